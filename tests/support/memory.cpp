// Counts the memory that the program holds, and refuses allocations.
#include <malloc.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "support/world.h"

using namespace weir::test;

extern "C" {
void* __real_malloc(size_t size);
void __real_free(void* memory);
}

namespace {

void* counted(void* memory, [[maybe_unused]] std::ptrdiff_t sign = 1) {
#if defined(COUNT_MEMORY)
  if (!in_program()) return memory;
  live_bytes += sign * static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
  peak_bytes = std::max(peak_bytes, live_bytes);
#endif
  return memory;
}

bool is_refused(const char* call) { return in_program() && refused(call) != 0; }

void release(void* memory) { __real_free(counted(memory, -1)); }

// Hidden from ThreadSanitizer: libcrypto keeps its error queue per operating-system thread,
// and all fibers share one.
void* crypto_realloc(void* memory, size_t size, const char*, int) {
  if (is_refused("libcrypto")) return nullptr;
  counted(memory, -1);
  {
    const Inside inside;
    memory = std::realloc(memory, size);
  }
  return counted(memory);
}

void* crypto_malloc(size_t size, const char* file, int line) {
  return crypto_realloc(nullptr, size, file, line);
}

void crypto_free(void* memory, const char*, int) {
  counted(memory, -1);
  const Inside inside;
  __real_free(memory);
}

[[maybe_unused]] const int counts_libcrypto =
    CRYPTO_set_mem_functions(crypto_malloc, crypto_realloc, crypto_free);

}  // namespace

extern "C" {

void* __wrap_malloc(size_t size) {
  if (is_refused("allocation")) return nullptr;
  // refuse("malloc", EAGAIN) means every large allocation; any other value, allocations of
  // exactly that size.
  constexpr size_t kLarge = 100'000;
  if (size >= kLarge && in_program()) {
    const auto what = static_cast<size_t>(refused("malloc"));
    if (what == EAGAIN || what == size) return nullptr;
  }
  return counted(__real_malloc(size));
}

void __wrap_free(void* memory) { release(memory); }
}

#if defined(COUNT_MEMORY)
void* operator new(std::size_t size) {
  void* const memory = counted(__real_malloc(size));
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
#endif
