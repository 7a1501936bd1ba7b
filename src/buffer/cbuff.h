#pragma once

#include <atomic>
#include <cstdint>
#include <span>

#include "base/mutex.h"

namespace weir {

struct CBlock;

// The byte queue between the download of a stream and its player: a chain of fixed-size
// blocks, filled at the tail and freed at the head. Both sides work directly on the storage,
// so that only the kernel and the cipher copy bytes. The capacity is not limited: the
// producer checks fill() and pauses.
//
// Threads:   one producer (write, reserve, sealAndReserve, commit) and one consumer (peek,
//            consume, read), lock-free except when a block is linked or unlinked. Any
//            thread may call fill(). clear() and the destructor require that both have ended.
// Ownership: a block is freed when the consumer has passed its end; remaining blocks are freed
//            by clear() or the destructor.
// Failure:   lack of memory for a block is reported on the error stream, and the bytes that
//            the block would have held are refused.
class CBuff {
 public:
  // Bytes. Large enough to make the cost of allocation and locking negligible.
  static constexpr std::uint64_t kBlockSize = 524288;

  // Tests use small blocks to reach every boundary; the program uses one size.
  explicit CBuff(std::uint64_t block_size = kBlockSize);
  ~CBuff();
  CBuff(const CBuff&) = delete;
  CBuff& operator=(const CBuff&) = delete;

  // Bytes written and not yet consumed; may be slightly stale. Once an acquire load has shown
  // that the producer has ended, 0 means that everything has been consumed.
  [[nodiscard]] std::uint64_t fill() const { return fill_.load(std::memory_order_acquire); }

  // Producer -----------------------------------------------------------------

  // Copies bytes in. False if memory ran out; some of them may have been stored.
  [[nodiscard]] bool write(std::span<const unsigned char> bytes);

  // Free storage at the tail, at least one byte; empty if memory ran out. Fill it from the
  // start, then commit.
  [[nodiscard]] std::span<unsigned char> reserve();

  // Seals the tail block and returns a whole new one, to be used like that of reserve().
  [[nodiscard]] std::span<unsigned char> sealAndReserve();

  // Publishes the first `count` bytes of the last reservation.
  void commit(std::uint64_t count);

  // Consumer -----------------------------------------------------------------

  // The oldest contiguous bytes, at most to the end of a block. If the buffer is empty, waits
  // once for 100 ms, and returns nothing if it is still empty.
  [[nodiscard]] std::span<const unsigned char> peek();

  // Drops bytes at the front, at most as many as peek() returned.
  void consume(std::uint64_t count);

  // Copies bytes out and drops them, across blocks; waits as peek() does. Returns their number.
  [[nodiscard]] std::uint64_t read(std::span<unsigned char> destination);

  // After both have ended ----------------------------------------------------

  void clear();

 private:
  [[nodiscard]] bool append();
  [[nodiscard]] bool has_tail();
  void publish(std::uint64_t count);
  [[nodiscard]] bool wait_for_bytes() const;
  void remove_head();

  // Constant after construction.
  const std::uint64_t block_size_;

  // Producer only. It accesses `current_` without the lock only while room_ > 0: the consumer
  // cannot have freed a block that has room. room_ is 0 if the tail is full, sealed or absent.
  CBlock* current_ = nullptr;
  std::uint64_t position_ = 0;
  std::uint64_t room_ = 0;

  // Shared. The chain owns its blocks. The consumer loads head_ without the lock: only the
  // consumer advances it, and the producer sets it only if it was null, before it counts the
  // bytes stored there.
  Mutex mutex_;
  std::atomic<CBlock*> head_{nullptr};
  CBlock* tail_ WEIR_GUARDED_BY(mutex_) = nullptr;

  // Increased before writePos is published and decreased after writePos was read, so that it
  // never wraps below 0, and a nonzero count implies a head.
  std::atomic<std::uint64_t> fill_{0};
};

}  // namespace weir
