#pragma once

#include <ctime>

namespace weir {

// What the watchdog needs of the machine that it guards.
struct Device {
  timespec (*now)();        // CLOCK_MONOTONIC
  bool (*marker_exists)();  // the file that announces a shutdown
  void (*reboot)();         // an immediate restart; returns when it isn't allowed
};

// The real one. Only the program itself asks for it.
Device real_device();

}  // namespace weir
