#pragma once

#include <cstdint>
#include <string>

namespace weir {

// One entry of a master playlist.
struct Variant {
  std::uint64_t bandwidth = 0;  // bit/s; a negative number in the text ranks above all others
  std::string url;              // absolute, as written
  bool invalid = false;         // its playlist couldn't be had; not selected any more
};

}  // namespace weir
