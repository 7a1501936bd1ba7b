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

// The driver in fuzz/, which has a model of the buffer.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace weir::test {
namespace {

TEST(CBuff, HoldsWhatItsModelHolds) {
  std::minstd_rand random;
  for (int turn = 0; turn < 3000; ++turn) {
    std::vector<std::uint8_t> input(1 + random() % 200);
    // Small numbers as often as large ones, so that borders are met.
    for (auto& byte : input) byte = static_cast<std::uint8_t>(random() % (turn % 2 ? 256 : 12));
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
}

TEST(Aligned, MemoryIsAlignedAndWhole) {
  for (std::size_t size = 0; size < 100; ++size) {
    auto* const memory = static_cast<unsigned char*>(aligned_allocate(size));
    std::fill_n(memory, size, 0xA5);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % 16, 0U);
    aligned_release(memory);
  }
}

// A producer and a consumer close together: bytes of a pattern that never repeats with the
// size of a block. For ThreadSanitizer and for real processors.
TEST(CBuff, NoByteIsLostBetweenAProducerAndAConsumer) {
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
      // In this order: after the flag is seen the fill count is final.
      const bool last = ended.load(std::memory_order_acquire);
      if (buffer.fill() == 0) {
        if (last) break;
        std::this_thread::yield();  // a peek would sleep
        continue;
      }
      EXPECT_LE(buffer.fill(), 4 * block) << "it went below 0";
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
