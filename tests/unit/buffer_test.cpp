#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "buffer/aligned.h"
#include "buffer/cbuff.h"
#include "support/bytes.h"

// The driver in fuzz/, which compares the buffer with a string.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace weir::test {
namespace {

TEST(CBuff, MatchesReferenceModel) {
  std::minstd_rand random;
  for (int turn = 0; turn < 3000; ++turn) {
    std::vector<std::uint8_t> input(1 + random() % 200);
    // Half of the inputs have small numbers only, to hit block boundaries.
    for (auto& byte : input) byte = static_cast<std::uint8_t>(random() % (turn % 2 ? 256 : 12));
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
}

TEST(Aligned, MemoryOfEverySizeIsAligned) {
  for (std::size_t size = 0; size < 100; ++size) {
    auto* const memory = static_cast<unsigned char*>(aligned_allocate(size));
    std::fill_n(memory, size, 0xA5);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % 16, 0U);
    aligned_release(memory);
  }
}

// The sealed first block has been consumed to its end when more arrives in the next one.
TEST(CBuff, PeekSkipsADrainedBlock) {
  CBuff buffer(16);
  for (int turn = 0; turn < 3; ++turn) {
    const auto room = buffer.sealAndReserve();
    room[0] = 'a';
    buffer.commit(1);
    ASSERT_EQ(buffer.peek().size(), 1U);
    buffer.consume(1);
  }
}

// A producer and a consumer on real threads, for ThreadSanitizer too. The pattern never
// repeats with the size of a block.
TEST(CBuff, ConsumerGetsWhatTheProducerWrote) {
  for (const std::uint64_t block : {1U, 3U, 16U, 300U}) {
    const std::uint64_t total = 1000 * block;
    const std::string all = pattern(total);
    CBuff buffer(block);
    std::atomic<bool> ended{false};
    std::thread producer([&] {
      std::minstd_rand random(1);
      for (std::uint64_t at = 0; at < total;) {
        if (buffer.fill() > 2 * block) {
          std::this_thread::yield();
          continue;
        }
        const auto room = random() % 4 == 0 ? buffer.sealAndReserve() : buffer.reserve();
        const auto count =
            std::min<std::uint64_t>({1 + random() % room.size(), room.size(), total - at});
        std::copy_n(bytes_of(all).begin() + static_cast<std::ptrdiff_t>(at), count, room.begin());
        buffer.commit(count);
        at += count;
      }
      ended.store(true, std::memory_order_release);
    });
    std::string got;
    for (;;) {
      // The flag first: once it is set the fill count is final.
      const bool last = ended.load(std::memory_order_acquire);
      if (buffer.fill() == 0) {
        if (last) break;
        std::this_thread::yield();  // a peek would sleep
        continue;
      }
      EXPECT_LE(buffer.fill(), 4 * block) << "it wrapped below 0";
      const auto there = buffer.peek();
      got.append(there.begin(), there.end());
      buffer.consume(there.size());
    }
    producer.join();
    EXPECT_TRUE(got == all) << block;
  }
}

}  // namespace
}  // namespace weir::test
