#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace weir {

// One entry of a master playlist (RFC 8216, section 4.3.4.2).
struct Variant {
  std::uint64_t bandwidth = 0;  // bit/s; a negative number in the text wraps around to the top
  std::string url;              // absolute, as in the playlist
  bool invalid = false;         // its playlist could not be loaded; never selected again
};

// The variants of a master playlist, in order. A stream tag without a bandwidth ends the list.
// Empty if the text is not a playlist, has more than 4,096 variants or a line of more than
// 64 KiB. The reason is on the error stream.
//
// Deliberate: every line after the first that is not a stream tag, even a comment or an empty
// line, is a variant with the last bandwidth read, because playlists are made for weir.
[[nodiscard]] std::vector<Variant> parse_master(std::string_view text);

}  // namespace weir
