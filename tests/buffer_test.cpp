#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <span>
#include <string>
#include <thread>

#include "buffer/aligned.h"
#include "buffer/cbuff.h"
#include "support/captured_log.h"
#include "support/client.h"

namespace weir::test {
namespace {

std::string peeked(CBuff& buffer) {
  const auto bytes = buffer.peek();
  return {bytes.begin(), bytes.end()};
}

bool write(CBuff& buffer, const std::string& text) { return buffer.write(bytes_of(text)); }

// Peeks and consumes.
std::string taken(CBuff& buffer) {
  const std::string bytes = peeked(buffer);
  buffer.consume(bytes.size());
  return bytes;
}

std::string all_read(CBuff& buffer) {
  std::string bytes(buffer.fill() + 1, '?');
  bytes.resize(buffer.read(bytes_of(bytes)));
  return bytes;
}

using Reserve = std::span<unsigned char> (CBuff::*)();
constexpr Reserve kReserve = &CBuff::reserve;
constexpr Reserve kSeal = &CBuff::sealAndReserve;

// Reserves and commits; returns the room that there was.
std::uint64_t put(CBuff& buffer, Reserve reserve, const std::string& bytes) {
  const std::span<unsigned char> room = (buffer.*reserve)();
  if (room.size() >= bytes.size()) std::copy(bytes.begin(), bytes.end(), room.begin());
  buffer.commit(bytes.size());
  return room.size();
}

// A piece of a stream in which nothing repeats with the size of a block.
std::string stream(std::uint64_t position, std::uint64_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(position++ * 0x9E3779B97F4A7C15 >> 56);
  return bytes;
}

TEST(CBuff, CommitsTakePartOfTheRoomOrFillTheBlock) {
  CBuff buffer(8);
  EXPECT_EQ(put(buffer, kReserve, "abc"), 8U);
  EXPECT_EQ(put(buffer, kReserve, ""), 5U);
  EXPECT_EQ(put(buffer, kReserve, "de"), 5U);
  EXPECT_EQ(taken(buffer), "abcde");
  EXPECT_TRUE(write(buffer, "fg"));
  EXPECT_EQ(put(buffer, kReserve, "h"), 1U);
  EXPECT_EQ(put(buffer, kReserve, "ABCDEFGH"), 8U);
  EXPECT_EQ(put(buffer, kReserve, "i"), 8U);
  EXPECT_EQ(taken(buffer), "fgh");
  EXPECT_EQ(all_read(buffer), "ABCDEFGHi");
  EXPECT_EQ(put(buffer, kReserve, ""), 7U);
}

TEST(CBuff, AfterItsOnlyBlockIsGoneEveryOperationStartsAfresh) {
  using Operation = void (*)(CBuff&);
  const Operation operations[] = {
      [](CBuff& buffer) { EXPECT_TRUE(write(buffer, "")); },
      [](CBuff& buffer) { EXPECT_EQ(put(buffer, kReserve, ""), 8U); },
      [](CBuff& buffer) { EXPECT_EQ(put(buffer, kSeal, ""), 8U); },
      [](CBuff& buffer) { EXPECT_EQ(peeked(buffer), ""); },
      [](CBuff& buffer) { EXPECT_EQ(all_read(buffer), ""); },
      [](CBuff& buffer) { buffer.clear(); },
  };
  for (const Operation operation : operations) {
    CBuff buffer(8);
    operation(buffer);
    EXPECT_TRUE(write(buffer, "12345678"));
    EXPECT_EQ(taken(buffer), "12345678");
    EXPECT_EQ(buffer.fill(), 0U);
    operation(buffer);
    EXPECT_TRUE(write(buffer, "123456789"));
    EXPECT_EQ(taken(buffer), "12345678");
    EXPECT_EQ(taken(buffer), "9");
  }
}

TEST(CBuff, ASealedBlockEndsWhereItsBytesEnd) {
  CBuff buffer(8);
  EXPECT_EQ(put(buffer, kReserve, "abc"), 8U);
  EXPECT_EQ(put(buffer, kSeal, "defgh"), 8U);
  EXPECT_EQ(put(buffer, kReserve, "ijk"), 3U);
  EXPECT_EQ(put(buffer, kSeal, "lm"), 8U);
  EXPECT_EQ(peeked(buffer), "abc");
  buffer.consume(2);
  EXPECT_EQ(taken(buffer), "c");
  EXPECT_EQ(taken(buffer), "defghijk");
  EXPECT_EQ(put(buffer, kSeal, "n"), 8U);
  EXPECT_TRUE(write(buffer, "opqrstuvw"));
  EXPECT_EQ(all_read(buffer), "lmnopqrstuvw");
}

// Nothing is ever consumed from it again.
TEST(CBuff, ABlockSealedWhenItWasDrainedIsFreedByTheNextPeek) {
  for (const std::string before : {"", "a", "abcdefg"}) {
    for (const auto take : {taken, all_read}) {
      CBuff buffer(8);
      EXPECT_EQ(put(buffer, kReserve, before), 8U);
      EXPECT_EQ(take(buffer), before);
      EXPECT_EQ(put(buffer, kSeal, "next"), 8U);
      EXPECT_EQ(take(buffer), "next");
    }
  }
}

TEST(CBuff, ClearLeavesNothingBehind) {
  CBuff buffer(8);
  EXPECT_TRUE(write(buffer, "0123456789abcdefghi"));
  EXPECT_EQ(peeked(buffer), "01234567");
  buffer.consume(3);
  buffer.clear();
  EXPECT_EQ(buffer.fill(), 0U);
  EXPECT_EQ(put(buffer, kReserve, "x"), 8U);
  EXPECT_EQ(all_read(buffer), "x");
}

TEST(CBuff, AnEmptyPeekWaitsAndReturnsWhatCameMeanwhile) {
  using std::chrono::milliseconds;
  bool came_meanwhile = false;
  // More than once, since either thread may get its processor too late.
  for (int i = 0; i < 50 && !came_meanwhile; ++i) {
    CBuff buffer(8);
    std::atomic<bool> peeking{false};
    std::thread producer([&] {
      while (!peeking.load(std::memory_order_relaxed)) std::this_thread::yield();
      std::this_thread::sleep_for(milliseconds(10));
      (void)write(buffer, "late");
    });
    const auto start = std::chrono::steady_clock::now();
    peeking.store(true, std::memory_order_relaxed);
    const size_t size = buffer.peek().size();
    const bool waited = std::chrono::steady_clock::now() - start >= milliseconds(100);
    producer.join();
    EXPECT_TRUE(size == 4 || waited);
    EXPECT_EQ(taken(buffer), "late");
    came_meanwhile = size == 4 && waited;
  }
  EXPECT_TRUE(came_meanwhile);
}

TEST(Aligned, MemoryIsAlignedAndWholeAndKnowsWhereItCameFrom) {
  for (std::size_t size = 0; size < 100; ++size) {
    auto* const memory = static_cast<unsigned char*>(aligned_allocate(size));
    std::fill_n(memory, size, 0xA5);
    unsigned char* raw;
    std::memcpy(&raw, memory - sizeof raw, sizeof raw);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % 16, 0U);
    EXPECT_GE(memory, raw + 8);
    EXPECT_LE(memory, raw + 23);
    aligned_release(memory);
  }
}

TEST(CBuff, ABlockThatCannotBeHadIsReportedAndRefused) {
  CBuff buffer(std::numeric_limits<std::ptrdiff_t>::max());  // more than malloc ever gives
  CapturedLog log;
  EXPECT_TRUE(write(buffer, ""));
  EXPECT_FALSE(write(buffer, "abc"));
  EXPECT_EQ(buffer.reserve().size() + buffer.sealAndReserve().size(), 0U);
  EXPECT_EQ(buffer.fill(), 0U);
  EXPECT_EQ(count(log.err(), "CBUFF: Unable to allocate mem for cblock data\n"), 4);
}

// A producer and a consumer close together that do at random what they may.
class Stress {
 public:
  explicit Stress(std::uint64_t block) : block_(block), buffer_(block) {}

  void run(std::uint64_t total) {
    std::thread producer([this, total] { produce(total); });
    consume();
    gave_up_.store(true, std::memory_order_relaxed);
    producer.join();
    EXPECT_EQ(consumed_, produced_);
  }

 private:
  void produce(std::uint64_t total) {
    std::minstd_rand random(1);
    while (produced_ < total && !gave_up_.load(std::memory_order_relaxed)) {
      if (buffer_.fill() > 2 * block_) {
        std::this_thread::yield();
        continue;
      }
      const auto kind = random() % 4;
      std::span<unsigned char> room;
      std::uint64_t size = 2 * block_;
      if (kind <= 1)
        size = (room = kind == 0 ? buffer_.sealAndReserve() : buffer_.reserve()).size();
      if (random() % 2 == 0) size = random() % (size + 1);
      const std::string bytes = stream(produced_, size);
      if (kind <= 1) {
        std::copy(bytes.begin(), bytes.end(), room.begin());
        buffer_.commit(size);
      } else {
        (void)write(buffer_, bytes);
      }
      produced_ += size;
    }
    ended_.store(true, std::memory_order_release);
  }

  // Ends at the first fault.
  void consume() {
    std::minstd_rand random(2);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(100);
    while (std::chrono::steady_clock::now() < end) {
      // In this order: after the flag is seen the fill count is final.
      const bool ended = ended_.load(std::memory_order_acquire);
      const std::uint64_t fill = buffer_.fill();
      if (fill == 0 && ended) return;
      if (fill == 0) {  // a peek would sleep
        std::this_thread::yield();
        continue;
      }
      ASSERT_LE(fill, 4 * block_) << "it went below 0";
      std::string bytes(static_cast<size_t>(1 + random() % (3 * block_)), '\0');
      if (random() % 4 == 0) {
        bytes.resize(buffer_.read(bytes_of(bytes)));
      } else {
        const auto there = buffer_.peek();
        bytes.resize(std::min(bytes.size(), there.size()));
        std::copy_n(there.begin(), bytes.size(), bytes.begin());
        buffer_.consume(bytes.size());
      }
      ASSERT_EQ(bytes, stream(consumed_, bytes.size())) << "from " << consumed_;
      consumed_ += bytes.size();
    }
    FAIL() << "the last bytes never came";
  }

  const std::uint64_t block_;
  CBuff buffer_;
  std::atomic<bool> ended_{false};
  std::atomic<bool> gave_up_{false};
  std::uint64_t produced_ = 0;
  std::uint64_t consumed_ = 0;
};

TEST(CBuff, NoByteIsLostBetweenAProducerAndAConsumer) {
  for (const std::uint64_t block : {1U, 3U, 16U, 300U}) {
    SCOPED_TRACE(block);
    Stress(block).run(200000 * std::min<std::uint64_t>(block, 16));
  }
}

}  // namespace
}  // namespace weir::test
