#pragma once

#include <atomic>
#include <cstdint>

#include "base/mutex.h"

namespace weir {

struct CBlock;

// The byte queue between the download of a stream and its player: a chain of
// blocks of fixed size, filled at the tail and freed at the head. Either side
// works right on the storage, so no byte is copied but by the kernel and the
// cipher. There is no capacity: the producer looks at fill() and holds back.
//
// Threads:   one producer (write, reserve, sealAndReserve, commit) and one
//            consumer (peek, consume, read), without a lock but when a block is
//            linked or unlinked. fill() from any. clear() and destruction when
//            both have ended.
// Ownership: blocks are freed when the consumer has passed their end, the rest
//            by clear() or destruction.
// Failure:   a block that can't be had is reported on the error stream and the
//            bytes that it would have held are refused.
class CBuff {
 public:
  // 512 KiB: allocation and locking are so rare that they cost nothing.
  static constexpr std::uint64_t kBlockSize = 524288;

  // Tests use small blocks to meet every border; the program has one size.
  explicit CBuff(std::uint64_t blockSize = kBlockSize);
  ~CBuff();
  CBuff(const CBuff&) = delete;
  CBuff& operator=(const CBuff&) = delete;

  // Bytes written and not yet consumed; other threads see it a little late. Once
  // the producer has ended (an acquire load says so) 0 means that all is consumed.
  std::uint64_t fill() const { return fill_.load(std::memory_order_acquire); }

  // Producer -----------------------------------------------------------------

  // Copies bytes in. Returns how many: all, or fewer when memory ran out.
  std::uint64_t write(const void* source, std::uint64_t length);

  // Sets `out` to free storage at the tail and returns its size, which is more
  // than 0; or null and 0 when memory ran out. Fill it from its start, then commit.
  [[nodiscard]] std::uint64_t reserve(unsigned char** out);

  // The same with a whole fresh block; the tail block ends where its data ends.
  [[nodiscard]] std::uint64_t sealAndReserve(unsigned char** out);

  // Publishes the first `count` bytes of the storage reserved last.
  void commit(std::uint64_t count);

  // Consumer -----------------------------------------------------------------

  // Sets `out` to the oldest bytes and returns how many stand there in one run,
  // which never crosses a block. An empty buffer is waited for, once, 100 ms;
  // if it stays empty the result is 0 and `out` is left alone.
  [[nodiscard]] std::uint64_t peek(unsigned char** out);

  // Drops bytes at the front: at most what peek() returned.
  void consume(std::uint64_t count);

  // Copies bytes out and drops them, across blocks; waits as peek() does.
  std::uint64_t read(void* destination, std::uint64_t capacity);

  // Neither ------------------------------------------------------------------

  void clear();

 private:
  bool append();
  bool has_tail();
  void publish(std::uint64_t count);
  bool wait_for_bytes() const;
  void remove_head();

  // Set once.
  const std::uint64_t block_size_;

  // The producer's own. It touches `cur_` without the lock only while room_ > 0:
  // a block with room is not finished, so the consumer can't have freed it.
  // room_ is 0 whenever the tail is full, sealed or absent.
  CBlock* cur_ = nullptr;
  std::uint64_t pos_ = 0;
  std::uint64_t room_ = 0;

  // Shared. `head` is loaded by the consumer without the lock: only the consumer
  // moves it on, and the producer sets it only where it was null, before the
  // bytes behind it are counted.
  Mutex mutex;
  std::atomic<CBlock*> head{nullptr};
  CBlock* tail WEIR_GUARDED_BY(mutex) = nullptr;

  // Raised before writePos is published and lowered after it was read, so that
  // it never wraps below 0 and that bytes in sight imply a head.
  std::atomic<std::uint64_t> fill_{0};
};

}  // namespace weir
