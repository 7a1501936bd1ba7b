#pragma once

#include <cstddef>
#include <string_view>

#include "base/limits.h"
#include "base/text.h"

namespace weir {

// Reads a playlist line by line. Lines end at "\n" only and are not trimmed.
//
// Threads:   one at a time.
// Ownership: the caller owns the text; lines point into it.
class PlaylistReader {
 public:
  explicit PlaylistReader(std::string_view text) : lines_(text, '\n') {}

  // Whether the first line, trimmed, is "#EXTM3U" (RFC 8216, section 4.3.1.1); if not, logs a
  // line on the error stream. True for an empty text.
  [[nodiscard]] bool read_header();

  // Sets `line` to the next line. False at the end of the text and at a line longer than
  // limits::kMaxLine, which is logged on the error stream.
  [[nodiscard]] bool next(std::string_view& line);

  // Whether next() has found a line that is too long.
  [[nodiscard]] bool met_long_line() const { return met_long_line_; }

 private:
  Pieces lines_;
  bool met_long_line_ = false;
};

}  // namespace weir
