#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace weir {

// One entry of a master playlist (RFC 8216, section 4.3.4.2).
struct Variant {
  std::uint64_t bandwidth = 0;  // bit/s; a negative number in the text ranks above all others
  std::string url;              // absolute, as written
  bool invalid = false;         // its playlist couldn't be loaded; not selected any more
};

// The variants of a master playlist's text, in its order; those before it where a stream
// tag has no bandwidth, and none where the text isn't a playlist or goes beyond 4,096
// variants or 64 KiB a line. The reason is on the error stream.
//
// Deliberate: every line after the first that is no stream tag is a variant of the
// bandwidth seen last, comments and empty lines too. Playlists are made for weir.
[[nodiscard]] std::vector<Variant> parse_master(std::string_view text);

}  // namespace weir
