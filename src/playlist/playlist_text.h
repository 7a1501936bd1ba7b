#pragma once

#include <string>
#include <vector>

namespace weir {

// Whether the first line is "#EXTM3U" (RFC 8216, section 4.3.1.1), white space
// around it aside; if not, says so on the error stream. No lines at all pass.
[[nodiscard]] bool is_playlist(const std::vector<std::string>& lines);

}  // namespace weir
