#pragma once

#include <cstdint>

#include "playlist/stream_stats.h"

namespace weir {

// State shared by all streams of the process.
struct Streams {
  const std::uint64_t max_buffer;  // bytes; a stream that holds this many starts no segment
  StreamStats stats;
};

}  // namespace weir
