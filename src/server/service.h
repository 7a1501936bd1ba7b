#pragma once

#include <cstdint>

#include "playlist/streams.h"
#include "watchdog/watchdog.h"

namespace weir {

// State shared by all requests. Created once and never destroyed: detached threads use it until
// the process ends.
struct Service {
  Service(std::uint64_t max_buffer, Device device) : streams{max_buffer, {}}, watchdog(device) {}

  Streams streams;
  Watchdog watchdog;
};

}  // namespace weir
