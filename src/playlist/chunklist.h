#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "playlist/chunk.h"

namespace weir {

// The media playlist of the variant being played: the segments not yet looked at.
//
// Threads: the refresh timer until it has started a fill pass, the fill pass until its end.
class Chunklist {
 public:
  explicit Chunklist(std::string from) : url(std::move(from)) {}

  // Replaces the segments by those of a media playlist (RFC 8216, section 4.3.3). There
  // are none where the text isn't a playlist or exceeds 50,000 segments or 64 KiB per
  // line; the reason is on the error stream.
  //
  // Deliberate: a key line switches decryption on for what follows, whatever its METHOD,
  // and its URI extends to the end of the line, because playlists are made for weir.
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
