#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace weir {

// The figures that "/stats.json" reports, and the speeds of the last downloads, by which
// variants are selected. Deliberate: there is one record for the whole process. With
// several streams running the last writer wins, so each stream's choice of a variant
// follows the speeds of all; they share one network.
//
// Threads: any may read and write. Each value is read and written whole, and no two are
//          read as belonging together, except that an average may mix the speeds of
//          streams that add theirs at the same time. Relaxed order suffices for that.
struct StreamStats {
  class Value {
   public:
    [[nodiscard]] std::uint64_t get() const { return value_.load(std::memory_order_relaxed); }
    void set(std::uint64_t value) { value_.store(value, std::memory_order_relaxed); }

   private:
    std::atomic<std::uint64_t> value_{0};
  };

  // Puts the speed of a download, in kbps, in front of the history and computes the average.
  void add_speed(std::uint64_t kbps);

  // Makes the history look as if downloads had been that slow for long.
  void fall_to_speed(std::uint64_t kbps);

  Value last_chunk_speed;  // kbps, units of 1024 bit/s
  Value avg_speed;         // kbps, weighted average of speed_history
  Value cbuff_size;        // bytes buffered >> 10
  Value selected_profile;  // bandwidth of the variant being played >> 10

  std::array<Value, 5> speed_history;  // kbps, newest first
};

}  // namespace weir
