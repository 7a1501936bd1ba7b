#pragma once

#include <cstddef>
#include <memory>

namespace weir {

// Memory from malloc, aligned to 16 bytes, or null. The address returned by malloc is stored
// directly below the aligned one.
[[nodiscard]] void* aligned_allocate(size_t bytes);

// Frees memory from aligned_allocate(); null is ignored.
void aligned_release(void* memory);

struct AlignedRelease {
  void operator()(void* memory) const { aligned_release(memory); }
};
using AlignedBytes = std::unique_ptr<unsigned char[], AlignedRelease>;

// Owned memory, or null.
[[nodiscard]] inline AlignedBytes aligned_bytes(size_t bytes) {
  return AlignedBytes(static_cast<unsigned char*>(aligned_allocate(bytes)));
}

}  // namespace weir
