#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace weir {

// The figures that "/stats.json" reports: one record for the whole process, so
// with several streams running the last writer wins. That is meant.
//
// Threads: any may read and write. Each value stands for itself and nothing is
//          concluded from two of them together, so relaxed order suffices; the
//          accessors below are the only ones that anybody needs.
struct StreamStats {
  class Value {
   public:
    std::uint64_t get() const { return value_.load(std::memory_order_relaxed); }
    void set(std::uint64_t value) { value_.store(value, std::memory_order_relaxed); }

   private:
    std::atomic<std::uint64_t> value_{0};
  };

  Value last_chunk_speed;  // kbps, units of 1024 bit/s
  Value avg_speed;         // kbps, weighted average of speed_history
  Value cbuff_size;        // bytes buffered >> 10
  Value selected_profile;  // bandwidth of the variant being played >> 10

  std::array<Value, 5> speed_history;  // kbps, newest first
};

}  // namespace weir
