// Counts what the program allocates.
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "support/world.h"

static void count(std::ptrdiff_t size) {
  if (!weir::test::in_program()) return;
  weir::test::live_bytes += size;
  weir::test::peak_bytes = std::max(weir::test::peak_bytes, weir::test::live_bytes);
}

void* operator new(std::size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  count(static_cast<std::ptrdiff_t>(malloc_usable_size(memory)));
  return memory;
}

static void release(void* memory) {
  count(-static_cast<std::ptrdiff_t>(malloc_usable_size(memory)));
  std::free(memory);
}

void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
