#include "watchdog/device.h"

#include <sys/reboot.h>
#include <sys/stat.h>

#include "base/clock.h"

namespace weir {

namespace {

constexpr const char* kMarkerFile = "/var/shutdown_in_progress";

bool marker_exists() {
  struct stat status {};
  return stat(kMarkerFile, &status) == 0;
}

void restart() { (void)reboot(RB_AUTOBOOT); }

}  // namespace

Device real_device() { return {monotonic_now, marker_exists, restart}; }

}  // namespace weir
