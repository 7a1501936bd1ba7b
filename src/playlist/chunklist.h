#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "playlist/chunk.h"

namespace weir {

// The playlist of the variant being played: the segments still to be looked at.
//
// Threads: the refresh timer while no fill pass runs, the fill pass else.
class Chunklist {
 public:
  explicit Chunklist(std::string from) : url(std::move(from)) {}

  // Replaces the segments by those of a variant playlist, a media playlist as RFC 8216,
  // section 4.3.3, has it. There are none where the text isn't a playlist or goes beyond
  // 50,000 segments or 64 KiB a line; the reason is on the error stream.
  //
  // Deliberate: a key line switches decryption on for what follows, whatever its METHOD,
  // and its URI reaches to the end of the line. Playlists are made for weir.
  void parse(std::string_view text);

  std::string url;
  std::uint32_t target_duration = 1;  // seconds; a text without the tag keeps the last
  std::deque<Chunk> chunks;

 private:
  struct Cursor;
  [[nodiscard]] bool parse_line(std::string_view line, Cursor& cursor);
  [[nodiscard]] bool add(std::string_view location, Cursor& cursor);
};

}  // namespace weir
