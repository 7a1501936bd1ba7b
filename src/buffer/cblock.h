#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

#include "buffer/aligned.h"

namespace weir {

// One block of a CBuff. readPos <= writePos <= limit <= block size; the consumer may take the
// bytes in [readPos, writePos).
//
// The producer fills `data`, then publishes with a release store of writePos; a consumer that
// loads writePos with acquire sees the bytes. Lowering `limit` to writePos seals the block:
// the rest of its storage is never used.
struct CBlock {
  explicit CBlock(std::uint64_t size)
      : data(aligned_bytes(static_cast<size_t>(size))), limit(size) {}

  // Null if there is no memory for the descriptor.
  static void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    return aligned_allocate(bytes);
  }
  static void operator delete(void* memory) { aligned_release(memory); }

  const AlignedBytes data;  // null if there was no memory

  std::atomic<CBlock*> next{nullptr};      // written under the buffer's mutex
  std::atomic<std::uint64_t> limit;        // written by the producer
  std::atomic<std::uint64_t> writePos{0};  // written by the producer
  std::uint64_t readPos = 0;               // consumer only
};

}  // namespace weir
