#include "buffer/cbuff.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>

#include "base/log.h"
#include "base/wait.h"
#include "buffer/aligned.h"
#include "buffer/cblock.h"

namespace weir {

namespace {

constexpr std::chrono::milliseconds kEmptyWait{100};

// Has the system supply the pages of that range now.
void populate(unsigned char* memory, std::size_t bytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t to_boundary = -reinterpret_cast<std::uintptr_t>(memory) % page;
  if (bytes > to_boundary) {
    (void)madvise(memory + to_boundary, bytes - to_boundary, MADV_POPULATE_WRITE);
  }
}

// Where malloc's heap had to grow its pages are had together, for half of what one
// page fault after the other costs. A sealed block may leave its last quarter
// unused; those pages come when they are touched, if ever.
unsigned char* new_storage(std::size_t size) {
  const void* const end_of_heap = sbrk(0);
  auto* const data = static_cast<unsigned char*>(aligned_allocate(size));
  if (data != nullptr && sbrk(0) != end_of_heap) populate(data, size / 4 * 3);
  return data;
}

CBlock* new_block(std::uint64_t size) {
  void* const descriptor = aligned_allocate(sizeof(CBlock));
  unsigned char* const data = new_storage(static_cast<std::size_t>(size));
  if (descriptor == nullptr || data == nullptr) {
    log_err("CBUFF: Unable to allocate mem for cblock data");
    aligned_release(descriptor);
    aligned_release(data);
    return nullptr;
  }
  auto* const block = new (descriptor) CBlock;
  block->data = data;
  block->limit.store(size, std::memory_order_relaxed);
  return block;
}

void free_block(CBlock* block) {
  aligned_release(block->data);
  block->~CBlock();
  aligned_release(block);
}

}  // namespace

CBuff::CBuff(std::uint64_t blockSize) : block_size_(blockSize) {}

CBuff::~CBuff() { clear(); }

// Links a fresh block at the tail and makes it the producer's. Memory is taken
// before the lock, so the consumer never waits for it.
bool CBuff::append() {
  CBlock* const block = new_block(block_size_);
  if (block == nullptr) return false;
  cur_ = block;
  pos_ = 0;
  room_ = block_size_;
  const MutexLock lock(mutex);
  if (tail == nullptr) {
    head.store(block, std::memory_order_release);
  } else {
    tail->next.store(block, std::memory_order_release);
  }
  tail = block;
  return true;
}

bool CBuff::has_tail() {
  const MutexLock lock(mutex);
  return tail != nullptr;
}

// Hands `count` bytes at the producer's position over to the consumer. Storing
// writePos is the last access to a block that these bytes fill.
void CBuff::publish(std::uint64_t count) {
  pos_ += count;
  room_ -= count;
  fill_.fetch_add(count, std::memory_order_release);
  cur_->writePos.store(pos_, std::memory_order_release);
}

std::uint64_t CBuff::write(const void* source, std::uint64_t length) {
  const auto* const bytes = static_cast<const unsigned char*>(source);
  // Without a tail a block is appended even when there is nothing to store.
  if (length == 0 && room_ == 0 && !has_tail()) (void)append();
  std::uint64_t stored = 0;
  while (stored < length) {
    if (room_ == 0 && !append()) break;
    const std::uint64_t count = std::min(room_, length - stored);
    std::memcpy(cur_->data + pos_, bytes + stored, static_cast<std::size_t>(count));
    publish(count);
    stored += count;
  }
  return stored;
}

std::uint64_t CBuff::reserve(unsigned char** out) {
  if (room_ == 0 && !append()) {
    *out = nullptr;
    return 0;
  }
  *out = cur_->data + pos_;
  return room_;
}

std::uint64_t CBuff::sealAndReserve(unsigned char** out) {
  if (room_ > 0) {
    room_ = 0;
    cur_->limit.store(pos_, std::memory_order_release);
  }
  return reserve(out);
}

void CBuff::commit(std::uint64_t count) {
  if (count > 0) publish(count);
  // Unlike write(), which appends when the next bytes come. If memory has run
  // out the next reserve() tries again.
  if (room_ == 0) (void)append();
}

bool CBuff::wait_for_bytes() const {
  if (fill() > 0) return true;
  sleep_for(kEmptyWait);
  return fill() > 0;
}

std::uint64_t CBuff::peek(unsigned char** out) {
  if (!wait_for_bytes()) return 0;
  CBlock* block = head.load(std::memory_order_acquire);
  // `next` first: once it is set, the writePos loaded after it is final, and a
  // drained block can be dropped without losing a byte.
  const bool has_next = block->next.load(std::memory_order_acquire) != nullptr;
  if (has_next && block->writePos.load(std::memory_order_acquire) == block->readPos) {
    remove_head();
    block = head.load(std::memory_order_acquire);
  }
  *out = block->data + block->readPos;
  return block->writePos.load(std::memory_order_acquire) - block->readPos;
}

void CBuff::consume(std::uint64_t count) {
  if (count == 0) return;
  CBlock* const block = head.load(std::memory_order_acquire);
  fill_.fetch_sub(count, std::memory_order_relaxed);
  block->readPos += count;
  if (block->readPos == block->limit.load(std::memory_order_acquire)) remove_head();
}

std::uint64_t CBuff::read(void* destination, std::uint64_t capacity) {
  auto* const bytes = static_cast<unsigned char*>(destination);
  std::uint64_t copied = 0;
  while (copied < capacity) {
    // Only the first turn may wait.
    if (copied > 0 && fill() == 0) break;
    unsigned char* from = nullptr;
    const std::uint64_t count = std::min(peek(&from), capacity - copied);
    if (count == 0) break;
    std::memcpy(bytes + copied, from, static_cast<std::size_t>(count));
    consume(count);
    copied += count;
  }
  return copied;
}

void CBuff::remove_head() {
  CBlock* const block = head.load(std::memory_order_relaxed);
  {
    const MutexLock lock(mutex);
    CBlock* const next = block->next.load(std::memory_order_relaxed);
    if (next == nullptr) tail = nullptr;
    head.store(next, std::memory_order_relaxed);
  }
  free_block(block);
}

void CBuff::clear() {
  while (head.load(std::memory_order_acquire) != nullptr) remove_head();
  fill_.store(0, std::memory_order_relaxed);
  room_ = 0;
}

}  // namespace weir
