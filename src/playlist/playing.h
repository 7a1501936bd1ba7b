#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "playlist/chunklist.h"
#include "playlist/selection.h"

namespace weir {

// What a stream is playing. The thread that holds the pointer may use it: the refresh timer
// between passes, the fill pass until its end.
struct Playing {
  std::vector<Variant> variants;
  Selection current;                   // points into `variants`
  std::optional<Chunklist> chunklist;  // of the current variant

  std::int32_t start_from = 0;  // segments that the next pass skips, negative from the end
  bool delivering = false;      // a segment has been downloaded
};

// Hands an object from one thread to another, which finds it there or finds nothing.
//
// Threads: one that puts, one that takes, without waiting for each other. Release and
//          acquire: who takes the object sees everything done to it before.
template <class Object>
class HandOver {
 public:
  HandOver() = default;
  ~HandOver() { (void)take(); }
  HandOver(const HandOver&) = delete;
  HandOver& operator=(const HandOver&) = delete;

  // There must be nothing there.
  void put(std::unique_ptr<Object> object) {
    object_.store(object.release(), std::memory_order_release);
  }

  // Null if there is nothing there.
  [[nodiscard]] std::unique_ptr<Object> take() {
    return std::unique_ptr<Object>(object_.exchange(nullptr, std::memory_order_acquire));
  }

 private:
  std::atomic<Object*> object_{nullptr};
};

}  // namespace weir
