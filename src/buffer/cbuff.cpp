#include "buffer/cbuff.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "base/limits.h"
#include "base/log.h"
#include "base/wait.h"
#include "buffer/cblock.h"

namespace weir {

namespace {

// Makes the kernel supply the pages of the range at once.
void populate(unsigned char* memory, size_t bytes) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t to_boundary = -reinterpret_cast<std::uintptr_t>(memory) % page;
  if (bytes > to_boundary) {
    (void)madvise(memory + to_boundary, bytes - to_boundary, MADV_POPULATE_WRITE);
  }
}

// If malloc's heap had to grow, its new pages are supplied in one call, at half the cost of
// single page faults. A sealed block may leave its last quarter unused, so the pages of that
// quarter are supplied on first use.
std::unique_ptr<CBlock> new_block(std::uint64_t size) {
  const void* const end_of_heap = sbrk(0);
  std::unique_ptr<CBlock> block(new (std::nothrow) CBlock(size));
  if (block == nullptr || block->data == nullptr) {
    log_err("CBUFF: Unable to allocate mem for cblock data");
    return nullptr;
  }
  if (sbrk(0) != end_of_heap) populate(block->data.get(), static_cast<size_t>(size / 4 * 3));
  return block;
}

}  // namespace

CBuff::CBuff(std::uint64_t block_size) : block_size_(block_size) {}

CBuff::~CBuff() { clear(); }

// Links a new block at the tail for the producer. Memory is allocated before the lock is
// taken, so that the consumer never waits for it.
bool CBuff::append() {
  std::unique_ptr<CBlock> block = new_block(block_size_);
  if (block == nullptr) return false;
  current_ = block.get();
  position_ = 0;
  room_ = block_size_;
  const MutexLock lock(mutex_);
  if (tail_ == nullptr) {
    head_.store(block.release(), std::memory_order_release);
  } else {
    tail_->next.store(block.release(), std::memory_order_release);
  }
  tail_ = current_;
  return true;
}

bool CBuff::has_tail() {
  const MutexLock lock(mutex_);
  return tail_ != nullptr;
}

// Publishes `count` bytes at the producer's position. If they fill the block, the store of
// writePos is the producer's last access to the block: the consumer may then free it.
void CBuff::publish(std::uint64_t count) {
  position_ += count;
  room_ -= count;
  fill_.fetch_add(count, std::memory_order_release);
  current_->writePos.store(position_, std::memory_order_release);
}

bool CBuff::write(std::span<const unsigned char> bytes) {
  // Without a tail a block is appended even if there is nothing to store.
  if (bytes.empty() && room_ == 0 && !has_tail()) (void)append();
  while (!bytes.empty()) {
    if (room_ == 0 && !append()) return false;
    const auto count = static_cast<size_t>(std::min<std::uint64_t>(room_, bytes.size()));
    std::memcpy(current_->data.get() + position_, bytes.data(), count);
    publish(count);
    bytes = bytes.subspan(count);
  }
  return true;
}

std::span<unsigned char> CBuff::reserve() {
  if (room_ == 0 && !append()) return {};
  return {current_->data.get() + position_, static_cast<size_t>(room_)};
}

std::span<unsigned char> CBuff::sealAndReserve() {
  if (room_ > 0) {
    room_ = 0;
    current_->limit.store(position_, std::memory_order_release);
  }
  return reserve();
}

void CBuff::commit(std::uint64_t count) {
  if (count > 0) publish(count);
  // A full block gets its successor at once, unlike in write(). If memory has run out, the next
  // reserve() tries again.
  if (room_ == 0) (void)append();
}

bool CBuff::wait_for_bytes() const {
  if (fill() > 0) return true;
  sleep_for(limits::kEmptyWait);
  return fill() > 0;
}

std::span<const unsigned char> CBuff::peek() {
  if (!wait_for_bytes()) return {};
  const CBlock* block = head_.load(std::memory_order_acquire);
  // Load `next` before writePos: once `next` is set, writePos is final, so a drained block can
  // be freed without losing a byte.
  const bool has_next = block->next.load(std::memory_order_acquire) != nullptr;
  if (has_next && block->writePos.load(std::memory_order_acquire) == block->readPos) {
    remove_head();
    block = head_.load(std::memory_order_acquire);
  }
  const std::uint64_t end = block->writePos.load(std::memory_order_acquire);
  return {block->data.get() + block->readPos, static_cast<size_t>(end - block->readPos)};
}

void CBuff::consume(std::uint64_t count) {
  if (count == 0) return;
  CBlock* const block = head_.load(std::memory_order_acquire);
  fill_.fetch_sub(count, std::memory_order_relaxed);
  block->readPos += count;
  if (block->readPos == block->limit.load(std::memory_order_acquire)) remove_head();
}

std::uint64_t CBuff::read(std::span<unsigned char> destination) {
  size_t copied = 0;
  while (copied < destination.size()) {
    // Only the first iteration may wait.
    if (copied > 0 && fill() == 0) break;
    const std::span<const unsigned char> from = peek();
    const size_t count = std::min(from.size(), destination.size() - copied);
    if (count == 0) break;
    std::memcpy(destination.data() + copied, from.data(), count);
    consume(count);
    copied += count;
  }
  return copied;
}

void CBuff::remove_head() {
  const std::unique_ptr<CBlock> block(head_.load(std::memory_order_relaxed));
  const MutexLock lock(mutex_);
  CBlock* const next = block->next.load(std::memory_order_relaxed);
  if (next == nullptr) tail_ = nullptr;
  head_.store(next, std::memory_order_relaxed);
}

void CBuff::clear() {
  while (head_.load(std::memory_order_acquire) != nullptr) remove_head();
  fill_.store(0, std::memory_order_relaxed);
  room_ = 0;
}

}  // namespace weir
