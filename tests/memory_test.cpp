// What one answer of an upstream may cost, whatever it holds: counted as allocated.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include "buffer/cbuff.h"
#include "playlist/chunklist.h"
#include "playlist/key_cache.h"
#include "playlist/variant.h"
#include "support/captured_log.h"
#include "support/scripted_origin.h"
#include "upstream/ucurl.h"

namespace {

// Bytes of this thread; the origin has threads of its own.
thread_local std::ptrdiff_t live = 0;
thread_local std::ptrdiff_t peak = 0;

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  live += static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
  peak = std::max(peak, live);
  return memory;
}

void operator delete(void* memory) noexcept {
  live -= static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

namespace weir::test {
namespace {

constexpr std::ptrdiff_t kMiB = 1 << 20;
constexpr std::size_t kLargest = 16 << 20;

// The line again and again, up to a size or a number of them; "%" is its number.
std::string lines(const std::string& line, std::size_t size, std::size_t most = kLargest) {
  const size_t mark = line.find('%');
  std::string text;
  text.reserve(size);
  for (std::size_t number = 0; number < most && text.size() + line.size() + 12 < size; ++number) {
    const size_t start = text.size();
    text += line;
    if (mark != std::string::npos) text.replace(start + mark, 1, std::to_string(number));
  }
  return text;
}

enum class As { kMaster, kVariant, kKey, kSegment };

struct Answer {
  const char* name;
  As as;
  std::string head;  // header fields besides Content-Length
  std::string body;
  size_t entries;  // variants, segments, or bytes of a key or a segment that come of it
};

std::string day() {
  const std::string url = "http://@/live/" + std::string(180, 'd') + "/%.ts\n";
  std::string text = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n";
  for (int hundred = 0; hundred < 432; ++hundred) {
    text += "#EXT-X-KEY:METHOD=AES-128,URI=\"http://~/key" + std::to_string(hundred) + "\"\n";
    text += lines(url, kLargest, 100);
  }
  return text;
}

const std::string kLong(60000, 'u');
const std::string kKeyed = "#EXTM3U\n#EXT-X-KEY:URI=\"http://" + kLong + "\"\n";
const std::string kUnique = "#EXT-X-KEY:URI=\"%" + std::string(250, 'k') + "\"\n\n";

const Answer kAnswers[] = {
    {"ADayOfSegments", As::kVariant, "", day(), 43200},
    {"OneKeyAndManySegments", As::kVariant, "", kKeyed + std::string(30000, '\n'), 30000},
    {"ManyKeys", As::kVariant, "", "#EXTM3U\n" + lines(kUnique, kLargest - 9, 50000), 50000},
    {"LongSegments", As::kVariant, "", "#EXTM3U\n" + lines(kLong + '\n', kLargest - 9), 279},
    {"MoreSegmentsThanAllowed", As::kVariant, "", "#EXTM3U\n" + std::string(kLargest - 8, '\n'), 0},
    {"OneSegmentOf15MB", As::kVariant, "", "#EXTM3U\n" + std::string(15000000, 'u'), 0},
    {"MoreThanADocument", As::kVariant, "", "#EXTM3U\n" + lines("u\n", kLargest + 1000000), 0},
    {"LongVariants", As::kMaster, "", "#EXTM3U\n" + lines(kLong + '\n', kLargest - 9), 279},
    {"MoreVariantsThanAllowed", As::kMaster, "", "#EXTM3U\n" + std::string(4097, '\n'), 0},
    {"MostVariants", As::kMaster, "", "#EXTM3U\n" + std::string(4096, '\n'), 4096},
    {"HugeKey", As::kKey, "", std::string(kLargest, 'k'), 16},
    {"LongHeadOfADocument", As::kMaster, lines("a:\r\n", 250000), "#EXTM3U\nu", 1},
    {"LongHeadOfASegment", As::kSegment, lines("a:\r\n", 250000), "media", 5},
    {"TooLongAHeadOfADocument", As::kMaster, lines("a:\r\n", kLargest), "#EXTM3U\nu", 0},
    {"TooLongAHeadOfASegment", As::kSegment, lines("a:\r\n", kLargest), "media", 0},
};

class MemoryTest : public testing::TestWithParam<Answer> {};

TEST_P(MemoryTest, OneAnswerTakesNoMoreThanIsPromised) {
  const Answer& answer = GetParam();
  const CapturedLog log;
  ScriptedOrigin origin;
  origin.on("/a", {raw("HTTP/1.1 200 OK\r\n" + answer.head + "Content-Length: " +
                       std::to_string(answer.body.size()) + "\r\n\r\n" + answer.body)});
  const std::string url = origin.url("/a");
  const auto shared_url = std::make_shared<const std::string>(url);
  const std::ptrdiff_t before = peak = live;
  {
    std::vector<Variant> variants;
    Chunklist chunklist(url);
    KeyCache keys;
    CBuff buffer;
    UCurl client;
    size_t entries = 0;
    if (answer.as == As::kSegment) {
      const auto download = client.get_stream(url, buffer, "", std::atomic<bool>{false}, 0);
      entries = download ? download->bytes : 0;
    } else if (answer.as == As::kKey) {
      entries = keys.key_for({1, "", false, shared_url}).size();
    } else {
      std::string text;
      const bool got = UCurl().get(url, text);
      if (got && answer.as == As::kMaster) variants = parse_master(text);
      if (got && answer.as == As::kVariant) chunklist.parse(text);
      entries = variants.size() + chunklist.chunks.size();
    }
    EXPECT_EQ(entries, answer.entries);
    EXPECT_LT(live - before, 24 * kMiB) << "held";
  }
  EXPECT_LT(peak - before, 48 * kMiB);
  EXPECT_LT(live - before, kMiB) << "left behind";
}

INSTANTIATE_TEST_SUITE_P(Answers, MemoryTest, testing::ValuesIn(kAnswers),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace weir::test
