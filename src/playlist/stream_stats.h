#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace weir {

// The figures that "/stats.json" reports, and the speeds of the last downloads, by which
// variants are selected.
//
// Deliberate: one record for the whole process, because the streams share one network.
// With several of them the last writer wins, the speeds of all steer the choice in each,
// and a new stream starts with the average that the others left.
//
// Threads: any may read and write. Each value is read and written whole, and nothing
//          relies on two of them belonging together: an average may mix the speeds of
//          streams that add theirs at the same time. So relaxed order suffices.
struct StreamStats {
  class Value {
   public:
    [[nodiscard]] std::uint64_t get() const { return value_.load(std::memory_order_relaxed); }
    void set(std::uint64_t value) { value_.store(value, std::memory_order_relaxed); }

   private:
    std::atomic<std::uint64_t> value_{0};
  };

  void set_buffered(std::uint64_t bytes) { cbuff_size.set(bytes / 1024); }

  // Puts the speed of a download, in kbps, in front of the history and computes the average.
  void add_speed(std::uint64_t kbps);

  // Rewrites the history after a sudden drop: the average is that speed, and all older
  // entries are half of it.
  void fall_to_speed(std::uint64_t kbps);

  Value last_chunk_speed;  // kbps, units of 1024 bit/s
  Value avg_speed;         // kbps, weighted average of speed_history
  Value cbuff_size;        // KiB buffered
  Value selected_profile;  // bandwidth of the variant being played, kbps

  std::array<Value, 5> speed_history;  // kbps, newest first
};

}  // namespace weir
