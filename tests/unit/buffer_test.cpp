#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "buffer/aligned.h"

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

}  // namespace weir::test
