#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

#include "buffer/aligned.h"

namespace weir {

// One block of a CBuff. readPos <= writePos <= limit <= the block size; the
// bytes that the consumer may take are those in [readPos, writePos).
//
// The producer fills `data` and publishes with a release store of writePos; the
// consumer that loads it with acquire sees the bytes. Lowering `limit` to
// writePos seals the block: the rest of its storage stays idle.
struct CBlock {
  explicit CBlock(std::uint64_t size)
      : data(aligned_bytes(static_cast<size_t>(size))), limit(size) {}

  // Null when there is no memory for the descriptor.
  static void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    return aligned_allocate(bytes);
  }
  static void operator delete(void* memory) { aligned_release(memory); }

  const AlignedBytes data;  // null when there is no memory for it

  std::atomic<CBlock*> next{nullptr};      // written under the buffer's mutex
  std::atomic<std::uint64_t> limit;        // written by the producer
  std::atomic<std::uint64_t> writePos{0};  // written by the producer
  std::uint64_t readPos = 0;               // the consumer's own
};

}  // namespace weir
