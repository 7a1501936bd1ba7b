#pragma once

#include <cstddef>
#include <memory>

namespace weir {

// Memory from malloc, aligned to 16 bytes. Null when malloc has none.
// The address that malloc returned is stored directly below this one.
[[nodiscard]] void* aligned_allocate(size_t bytes);

// Takes back what aligned_allocate gave; null is ignored.
void aligned_release(void* memory);

struct AlignedRelease {
  void operator()(void* memory) const { aligned_release(memory); }
};
using AlignedBytes = std::unique_ptr<unsigned char[], AlignedRelease>;

// Owned bytes, or an empty pointer when malloc has none.
[[nodiscard]] inline AlignedBytes aligned_bytes(size_t bytes) {
  return AlignedBytes(static_cast<unsigned char*>(aligned_allocate(bytes)));
}

}  // namespace weir
