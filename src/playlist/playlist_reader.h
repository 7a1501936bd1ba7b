#pragma once

#include <cstddef>
#include <string_view>

#include "base/limits.h"
#include "base/text.h"

namespace weir {

// Reads a playlist line by line. Lines end at "\n" alone, and nothing is trimmed.
//
// Threads:   one.
// Ownership: the text stays the caller's, and lines point into it.
class PlaylistReader {
 public:
  explicit PlaylistReader(std::string_view text) : lines_(text, '\n') {}

  // Whether the first line is "#EXTM3U" (RFC 8216, section 4.3.1.1), white space
  // around it aside; if not, says so on the error stream. No lines at all pass.
  [[nodiscard]] bool read_header();

  // Sets `line` to the next one. False at the end of the text and at a line that is
  // longer than kMaxLine.
  [[nodiscard]] bool next(std::string_view& line);

  // Whether such a line was met, which is then on the error stream.
  [[nodiscard]] bool met_long_line() const { return met_long_line_; }

 private:
  Pieces lines_;
  bool met_long_line_ = false;
};

}  // namespace weir
