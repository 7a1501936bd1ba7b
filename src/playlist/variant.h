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
  bool invalid = false;         // its playlist couldn't be loaded; never selected again
};

// The variants of a master playlist, in its order. Only those before a stream tag that has
// no bandwidth; none where the text isn't a playlist or exceeds 4,096 variants or 64 KiB
// per line. The reason is on the error stream.
//
// Deliberate: every line after the first that is not a stream tag is a variant with the
// last bandwidth seen, comments and empty lines too, because playlists are made for weir.
[[nodiscard]] std::vector<Variant> parse_master(std::string_view text);

}  // namespace weir
