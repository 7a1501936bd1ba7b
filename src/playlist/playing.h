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

// The playback state of a stream. Moves between the refresh timer, which selects variants and
// loads playlists, and the fill pass, which takes segments.
struct Playing {
  std::vector<Variant> variants;
  Selection current;                   // points into `variants`
  std::optional<Chunklist> chunklist;  // of the current variant

  std::int32_t start_from = 0;  // segments for the next pass to skip; negative: from the end
  bool started = false;         // a fill pass has begun
};

// A mailbox that passes ownership of one object between threads.
//
// Threads: one calls put(), another take(); neither blocks. Release and acquire suffice: the
//          thread that takes the object sees everything done to it before put().
template <class Object>
class HandOver {
 public:
  HandOver() = default;
  ~HandOver() { (void)take(); }
  HandOver(const HandOver&) = delete;
  HandOver& operator=(const HandOver&) = delete;

  // The mailbox must be empty.
  void put(std::unique_ptr<Object> object) {
    object_.store(object.release(), std::memory_order_release);
  }

  // Null if the mailbox is empty.
  [[nodiscard]] std::unique_ptr<Object> take() {
    return std::unique_ptr<Object>(object_.exchange(nullptr, std::memory_order_acquire));
  }

 private:
  std::atomic<Object*> object_{nullptr};
};

}  // namespace weir
