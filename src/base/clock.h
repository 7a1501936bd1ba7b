// The clocks of the system.
//
// Threads: any.
#pragma once

#include <ctime>

namespace weir {

// CLOCK_MONOTONIC, which no change of the date moves.
[[nodiscard]] inline timespec monotonic_now() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

}  // namespace weir
