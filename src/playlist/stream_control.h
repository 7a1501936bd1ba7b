#pragma once

#include <atomic>
#include <cstdint>

namespace weir {

// What the threads of one stream tell each other.
//
// Threads: the request thread, the refresh timer and the fill pass, as stated below.
struct StreamControl {
  // The stream is over: once all that was downloaded has been consumed, nothing more
  // comes. Release after the last commit to the buffer, acquire in who drains it.
  std::atomic<bool> should_finish{false};

  // Seconds until the next refresh. The pass sets it, the timer lowers it in one step, so
  // that a 0 from the pass isn't lost. Relaxed, since it only says when.
  std::atomic<std::int32_t> refresh_countdown{0};

  void end_stream() { should_finish.store(true, std::memory_order_release); }
  [[nodiscard]] bool is_over() const { return should_finish.load(std::memory_order_acquire); }
};

}  // namespace weir
