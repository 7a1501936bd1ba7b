#pragma once

#include <cstdint>
#include <string>

namespace weir {

// One media segment of a variant playlist (RFC 8216, section 3).
struct Chunk {
  std::uint64_t sequence = 0;  // media sequence number
  std::string url;             // absolute, as written
  bool last = false;           // the end of the stream
  std::string key_url;         // of its AES-128 key; empty for clear media
};

}  // namespace weir
