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

// A producer and a consumer on real threads, for ThreadSanitizer too. Small pieces make them meet
// often. The pattern never repeats with the size of a block.
TEST(CBuff, ConsumerGetsWhatTheProducerWrote) {
  for (const std::uint64_t block : {1U, 3U, 16U, 300U}) {
    const std::string all = pattern(200'000 * block / 16);
    CBuff buffer(block);
    std::atomic<bool> written{false};
    std::thread producer([&] {
      std::minstd_rand random(1);
      for (std::string_view left = all; !left.empty();) {
        const auto room = random() % 64 == 0 ? buffer.sealAndReserve() : buffer.reserve();
        const auto count = std::min({1 + random() % 5, room.size(), left.size()});
        std::copy_n(left.begin(), count, room.begin());
        buffer.commit(count);
        left.remove_prefix(count);
      }
      written = true;
    });
    std::string got;
    // Once all is written, each turn takes a byte or an empty block, unless bytes were lost.
    for (size_t turns = 2 * all.size(); turns > 0 && got.size() < all.size();) {
      if (written) --turns;
      const std::uint64_t fill = buffer.fill();
      if (fill == 0) continue;  // a peek would sleep
      EXPECT_LE(fill, all.size()) << "it wrapped below 0";
      const auto there = buffer.peek();
      got.append(there.begin(), there.end());
      buffer.consume(there.size());
    }
    producer.join();
    EXPECT_TRUE(got == all) << block;
  }
}

}  // namespace weir::test
