#pragma once

#include <atomic>
#include <cstdint>

namespace weir {

// Signals between the threads of one stream: the request thread, the refresh timer and the fill
// pass.
struct StreamControl {
  // The stream is over: nothing more will be added to the buffer. Stored with release after
  // the last commit, loaded with acquire by the thread that drains the buffer.
  std::atomic<bool> should_finish{false};

  // Seconds until the next refresh. The fill pass sets it, the timer after an unloadable variant;
  // the timer decrements it atomically, so that a 0 set by the pass is not lost. Relaxed: it
  // publishes no other data.
  std::atomic<std::int32_t> refresh_countdown{0};

  void end_stream() { should_finish.store(true, std::memory_order_release); }
  [[nodiscard]] bool is_over() const { return should_finish.load(std::memory_order_acquire); }
};

}  // namespace weir
