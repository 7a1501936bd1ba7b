#pragma once

#include <atomic>
#include <cstdint>

namespace weir {

// One block of a CBuff. readPos <= writePos <= limit <= the block size; the
// bytes that the consumer may take are those in [readPos, writePos).
//
// The producer fills `data` and publishes with a release store of writePos; the
// consumer that loads it with acquire sees the bytes. Lowering `limit` to
// writePos seals the block: the rest of its storage stays idle.
struct CBlock {
  unsigned char* data = nullptr;

  std::atomic<CBlock*> next{nullptr};      // written under the buffer's mutex
  std::atomic<std::uint64_t> limit{0};     // written by the producer
  std::atomic<std::uint64_t> writePos{0};  // written by the producer
  std::uint64_t readPos = 0;               // the consumer's own
};

}  // namespace weir
