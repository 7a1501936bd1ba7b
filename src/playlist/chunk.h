#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace weir {

// One media segment of a variant playlist (RFC 8216, section 3).
struct Chunk {
  std::uint64_t sequence = 0;  // media sequence number
  std::string url;             // absolute, as written
  bool last = false;           // the end of the stream

  // Of its AES-128 key, shared by all segments after one key line; null for clear media.
  std::shared_ptr<const std::string> key_url;
};

}  // namespace weir
