#pragma once

#include <cstdint>

#include "playlist/stream_stats.h"

namespace weir {

// What all streams of the process share.
struct Streams {
  const std::uint64_t max_buffer;  // bytes; no segment is started while a stream holds as many
  StreamStats stats;
};

}  // namespace weir
