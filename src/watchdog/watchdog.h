#pragma once

#include <atomic>
#include <ctime>

#include "watchdog/device.h"

namespace weir {

// Reboots the device when pings stop coming or a shutdown doesn't finish.
//
// A device that was never pinged is never rebooted for a time-out. All times
// are whole seconds of the monotonic clock.
//
// Threads: check() by the server loop alone; ping() by any.
// Failure: an error stream that doesn't accept the line delays the reboot by about a
//          tenth of a second, and the line is dropped. A reboot that isn't allowed returns,
//          and check() carries on: the marker fires again with every call, the time-out
//          after the next ping.
class Watchdog {
 public:
  explicit Watchdog(Device device);

  // Arms the time-out, or starts it again.
  void ping();

  // Reboots when the marker file was there 10 s after it was first seen (whether
  // it stayed or came back), or when the last ping is 300 s old.
  void check();

 private:
  void check_marker();
  void check_timeout();

  const Device device_;

  // Shared with the threads that ping. last_ping_ is stored before armed_ (release)
  // and loaded after it (acquire), so a check never compares with no ping at all.
  std::atomic<bool> armed_{false};
  std::atomic<time_t> last_ping_{0};

  // The server loop's own. Deliberate: once seen, the marker stays seen, so that
  // a device which renews it instead of shutting down is restarted.
  bool marker_seen_ = false;
  time_t marker_seen_at_ = 0;
};

}  // namespace weir
