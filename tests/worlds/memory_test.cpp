// The memory that one upstream response may take, whatever it contains: bytes allocated by the
// program, in its own code and in libcrypto.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/world.h"

namespace weir::test {
namespace {

constexpr std::ptrdiff_t kMiB = 1 << 20;
constexpr std::size_t kLargest = 16 << 20;

// Repeats the line up to a total size or a number of lines; "%" becomes the line's number.
std::string lines(const std::string& line, std::size_t size, std::size_t most = kLargest) {
  const size_t mark = line.find('%');
  std::string text;
  text.reserve(size);
  for (std::size_t number = 0; number < most && text.size() + line.size() + 12 < size; ++number) {
    text += line;
    if (mark != std::string::npos)
      text.replace(text.size() - line.size() + mark, 1, std::to_string(number));
  }
  return text;
}

enum class As { kMaster, kVariant, kKey, kSegment };

struct Answer {
  const char* name;
  As as;
  std::string more;  // header fields besides Content-Length
  std::string body;
  size_t entries;  // variants, segments or bytes of media that result
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

const std::string kLong(65536, 'u');
const std::string kKeyed = "#EXTM3U\n#EXT-X-KEY:URI=\"http://" + kLong.substr(99) + "\"\n";
const std::string kUnique = "#EXT-X-KEY:URI=\"%" + std::string(250, 'k') + "\"\n\n";

const Answer kAnswers[] = {
    {"ADayOfSegments", As::kVariant, "", day(), 43200},
    {"OneKeyAndManySegments", As::kVariant, "", kKeyed + std::string(30000, '\n'), 30000},
    {"ManyKeys", As::kVariant, "", "#EXTM3U\n" + lines(kUnique, kLargest - 9, 50000), 50000},
    {"LongSegments", As::kVariant, "", "#EXTM3U\n" + lines(kLong + '\n', kLargest - 9), 255},
    {"MoreSegmentsThanAreKept", As::kVariant, "", "#EXTM3U\n" + std::string(50001, '\n'), 50000},
    {"TooLongASegment", As::kVariant, "", "#EXTM3U\n" + kLong + 'u', 0},
    {"MoreThanADocument", As::kVariant, "", "#EXTM3U\n" + lines("u\n", kLargest + 1000000), 0},
    {"OneVariantOf15MB", As::kMaster, "", "#EXTM3U\n" + std::string(15000000, 'u'), 0},
    {"TooLongAVariant", As::kMaster, "", "#EXTM3U\n" + kLong + "u\n#EXT-X-STREAM-INF:", 0},
    {"LongVariants", As::kMaster, "", "#EXTM3U\n" + lines(kLong + '\n', kLargest - 9), 255},
    {"MoreVariantsThanAllowed", As::kMaster, "", "#EXTM3U\n" + std::string(4097, '\n'), 0},
    {"MostVariants", As::kMaster, "", "#EXTM3U\n" + std::string(4096, '\n'), 4096},
    {"HugeKey", As::kKey, "", std::string(kLargest, 'k'), 5},
    {"LongestHead", As::kMaster, "a:" + std::string(262110, 'a') + "\r\n", "#EXTM3U\nu", 1},
    {"TooLongAHead", As::kMaster, "a:" + std::string(262111, 'a') + "\r\n", "#EXTM3U\nu", 0},
    {"LongHeadOfASegment", As::kSegment, lines("a:\r\n", 250000), "media", 5},
};

TEST(Memory, OneResponseStaysWithinItsBound) {
  for (const auto& [name, as, more, body, entries] : kAnswers) {
    SCOPED_TRACE(name);
    Pages pages = {{"/m", {ok("#EXTM3U\nhttp://o/v")}},
                   {"/v", {ok(list(1, {key(as == As::kKey ? "http://o/k" : ""), "/s", kEnd}))}},
                   {"/s", {ok(encrypt("media", std::string(16, 'k')))}}};
    const char* const paths[] = {"/m", "/v", "/k", "/s"};
    pages[paths[static_cast<size_t>(as)]] = {raw("HTTP/1.1 200 OK\r\n" + more + "Content-Length: " +
                                                 std::to_string(body.size()) + "\r\n\r\n" + body)};
    World world({"100000000"});
    world.origin("o", std::move(pages));
    const std::ptrdiff_t before = peak_bytes = live_bytes;
    std::ptrdiff_t held = 0;
    world.at(5s, [&] { held = live_bytes; });
    // startFrom=-1 skips all but the last segment of a variant playlist; the log has each.
    const std::string got = world.get({0s, "/stream?url=http://o/m&startFrom=-1"});
    world.play({});
    const size_t selected = world.transcript.find("selected variant");
    const auto said = [&world](const std::string& text, size_t end = std::string::npos) {
      size_t times = 0;
      for (size_t i = 0; (i = world.transcript.find(text, i)) < end; ++i) ++times;
      return times;
    };
    const size_t shown[] = {said("SELECT BEST first higher", selected),
                            said("skipping chunk from ") + said("fill buffer for"),
                            got.size() - stream("").size()};
    EXPECT_EQ(shown[std::min<size_t>(static_cast<size_t>(as), 2)], entries);
    EXPECT_LT(held - before, 24 * kMiB) << "held";
    EXPECT_LT(peak_bytes - before, (entries > 5 ? 48 : 24) * kMiB) << "list and document";
    EXPECT_LT(live_bytes - before, kMiB) << "left behind";
  }
}

}  // namespace
}  // namespace weir::test
