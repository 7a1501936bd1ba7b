#pragma once

#include <ctime>

namespace weir {

// The system calls of the watchdog, replaceable by tests.
struct Device {
  timespec (*now)();        // CLOCK_MONOTONIC
  bool (*marker_exists)();  // the file that announces a shutdown
  void (*reboot)();         // restarts at once; returns if not permitted
};

// The real system calls. Only main() may use it.
Device real_device();

}  // namespace weir
