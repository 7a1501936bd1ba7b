#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace weir {

// One media segment (RFC 8216, section 3).
struct Chunk {
  std::uint64_t sequence = 0;  // media sequence number
  std::string url;             // absolute, as in the playlist
  bool last = false;           // the end of the stream

  // The URL of the AES-128 key, shared by the segments after a key line; null for clear media.
  std::shared_ptr<const std::string> key_url;
};

}  // namespace weir
