#pragma once

#include <atomic>
#include <cstdint>
#include <span>

#include "base/mutex.h"

namespace weir {

struct CBlock;

// The byte queue between the download of a stream and its player: a chain of
// blocks of fixed size, filled at the tail and freed at the head. Both sides work
// directly on the storage, so only the kernel and the cipher copy bytes. There is no
// capacity limit: the producer looks at fill() and holds back.
//
// Threads:   one producer (write, reserve, sealAndReserve, commit) and one
//            consumer (peek, consume, read), lock-free except when a block is
//            linked or unlinked. fill() from any. clear() and destruction when
//            both have ended.
// Ownership: blocks are freed when the consumer has passed their end, the rest
//            by clear() or destruction.
// Failure:   where there is no memory for a block, that is reported on the error
//            stream and the bytes that the block would have held are refused.
class CBuff {
 public:
  // 512 KiB: allocation and locking are so rare that they cost nothing.
  static constexpr std::uint64_t kBlockSize = 524288;

  // Tests use small blocks to meet every border; the program has one size.
  explicit CBuff(std::uint64_t block_size = kBlockSize);
  ~CBuff();
  CBuff(const CBuff&) = delete;
  CBuff& operator=(const CBuff&) = delete;

  // Bytes written and not yet consumed; other threads see it a little late. Once
  // the producer has ended (an acquire load says so) 0 means that all is consumed.
  [[nodiscard]] std::uint64_t fill() const { return fill_.load(std::memory_order_acquire); }

  // Producer -----------------------------------------------------------------

  // Copies bytes in. False when memory ran out; a part may then be stored.
  [[nodiscard]] bool write(std::span<const unsigned char> bytes);

  // Free storage at the tail, of one byte at least; empty when memory ran out.
  // Fill it from its start, then commit.
  [[nodiscard]] std::span<unsigned char> reserve();

  // The same with a whole fresh block; the tail block ends where its data ends.
  [[nodiscard]] std::span<unsigned char> sealAndReserve();

  // Publishes the first `count` bytes of the storage reserved last.
  void commit(std::uint64_t count);

  // Consumer -----------------------------------------------------------------

  // The oldest bytes that are contiguous, at most to the end of a block. An empty buffer
  // is waited for once, 100 ms; nothing is returned if it stays empty.
  [[nodiscard]] std::span<const unsigned char> peek();

  // Drops bytes at the front: at most as many as peek() returned.
  void consume(std::uint64_t count);

  // Copies bytes out and drops them, across blocks; waits as peek() does. Returns how
  // many there were.
  [[nodiscard]] std::uint64_t read(std::span<unsigned char> destination);

  // Neither ------------------------------------------------------------------

  void clear();

 private:
  [[nodiscard]] bool append();
  [[nodiscard]] bool has_tail();
  void publish(std::uint64_t count);
  [[nodiscard]] bool wait_for_bytes() const;
  void remove_head();

  // Set once.
  const std::uint64_t block_size_;

  // The producer's own. It touches `current_` without the lock only while room_ > 0:
  // a block with room is not finished, so the consumer can't have freed it.
  // room_ is 0 whenever the tail is full, sealed or absent.
  CBlock* current_ = nullptr;
  std::uint64_t position_ = 0;
  std::uint64_t room_ = 0;

  // Shared. The chain from head_ on owns its blocks. head_ is loaded by the consumer
  // without the lock: only the consumer moves it on, and the producer sets it only
  // where it was null, before the bytes behind it are counted.
  Mutex mutex_;
  std::atomic<CBlock*> head_{nullptr};
  CBlock* tail_ WEIR_GUARDED_BY(mutex_) = nullptr;

  // Raised before writePos is published and lowered after it was read, so that
  // it never wraps below 0 and that bytes in sight imply a head.
  std::atomic<std::uint64_t> fill_{0};
};

}  // namespace weir
