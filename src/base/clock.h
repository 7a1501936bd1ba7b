#pragma once

#include <ctime>

namespace weir {

// CLOCK_MONOTONIC: not affected by changes of the date. Any thread may call this function.
[[nodiscard]] inline timespec monotonic_now() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

}  // namespace weir
