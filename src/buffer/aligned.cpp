#include "buffer/aligned.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace weir {

namespace {
constexpr size_t kAlignment = 16;
// Room for the raw address and for the shift to the next boundary.
constexpr size_t kOverhead = sizeof(void*) + kAlignment - 1;
}  // namespace

void* aligned_allocate(size_t bytes) {
  void* const raw = std::malloc(bytes + kOverhead);
  if (raw == nullptr) return nullptr;
  unsigned char* const end = static_cast<unsigned char*>(raw) + kOverhead;
  unsigned char* const aligned = end - reinterpret_cast<std::uintptr_t>(end) % kAlignment;
  std::memcpy(aligned - sizeof raw, &raw, sizeof raw);
  return aligned;
}

void aligned_release(void* memory) {
  if (memory == nullptr) return;
  void* raw;
  std::memcpy(&raw, static_cast<unsigned char*>(memory) - sizeof raw, sizeof raw);
  std::free(raw);
}

}  // namespace weir
