#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace weir {

// The figures of "/stats.json", and the speeds of the last downloads, which decide the variant.
//
// Deliberate: one record for the whole process, because all streams share one network. With
// several streams the last writer wins, the speeds of all of them affect the variant of each,
// and a new stream starts with the average left by the others.
//
// Threads: any may read and write. Relaxed order suffices: each value is atomic, and nothing
//          relies on two values being consistent. An average may mix the speeds of streams
//          that finish downloads at the same time.
struct StreamStats {
  class Value {
   public:
    [[nodiscard]] std::uint64_t get() const { return value_.load(std::memory_order_relaxed); }
    void set(std::uint64_t value) { value_.store(value, std::memory_order_relaxed); }

   private:
    std::atomic<std::uint64_t> value_{0};
  };

  void set_buffered(std::uint64_t bytes) { cbuff_size.set(bytes / 1024); }

  // Prepends the speed of a download, in kbps, to the history and updates the average.
  void add_speed(std::uint64_t kbps);

  // Rewrites the history after a sudden drop: the average and the newest entry become that
  // speed, all older entries half of it.
  void fall_to_speed(std::uint64_t kbps);

  Value last_chunk_speed;  // kbps, units of 1024 bit/s
  Value avg_speed;         // kbps, weighted average of speed_history
  Value cbuff_size;        // KiB buffered
  Value selected_profile;  // bandwidth of the variant being played, kbps

  std::array<Value, 5> speed_history;  // kbps, newest first
};

}  // namespace weir
