#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "playlist/chunk.h"

namespace weir {

// The playlist of the variant being played: the segments still to be looked at.
//
// Threads: the refresh timer while no fill pass runs, the fill pass else.
class Chunklist {
 public:
  explicit Chunklist(std::string url_);

  // Replaces the segments by those of a variant playlist (RFC 8216, section
  // 4.3.3). False when the text is no playlist; there are then no segments.
  //
  // A key line switches deciphering on for what follows, whatever its METHOD,
  // and its URI reaches to the end of the line; both are meant.
  bool parse(const std::string& text);

  std::string url;
  std::uint32_t target_duration = 1;  // seconds; a text without the tag keeps the last
  std::deque<Chunk> chunks;

 private:
  struct Cursor;
  void parse_line(const std::string& line, Cursor& cursor);
};

}  // namespace weir
