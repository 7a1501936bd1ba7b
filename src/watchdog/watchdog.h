#pragma once

#include <atomic>
#include <ctime>

#include "watchdog/device.h"

namespace weir {

// Restarts the device if pings stop or a shutdown does not complete. The first ping
// arms the time-out, which counts from the last one. All times are whole seconds of the
// monotonic clock.
//
// Threads: check() by the server loop only; ping() by any.
// Failure: a stalled error stream delays the restart by 100 ms, and the line is dropped. If the
//          restart is not permitted, check() continues: the marker triggers again at every
//          call, the time-out only after the next ping.
class Watchdog {
 public:
  explicit Watchdog(Device device);

  // Arms or restarts the time-out.
  void ping();

  // Restarts the device if the marker file still (or again) exists 10 s or more after it was
  // first seen, or if the last ping is 300 s old.
  void check();

 private:
  void check_marker();
  void check_timeout();

  const Device device_;

  // Shared with pinging threads. ping() stores last_ping_ before armed_ (release), check()
  // loads it after armed_ (acquire): a check that sees armed_ also sees the ping.
  std::atomic<bool> armed_{false};
  std::atomic<time_t> last_ping_{0};

  // Used by the server loop only. Deliberate: marker_seen_ is never reset, so that a device that
  // renews the marker instead of shutting down is restarted.
  bool marker_seen_ = false;
  time_t marker_seen_at_ = 0;
};

}  // namespace weir
