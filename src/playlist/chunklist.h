#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "playlist/chunk.h"

namespace weir {

// The media playlist of the variant being played: the segments not yet processed.
//
// Threads: one at a time.
class Chunklist {
 public:
  explicit Chunklist(std::string from) : url(std::move(from)) {}

  // Replaces the segments with the newest 50,000 of a media playlist (RFC 8216, section
  // 4.3.3). There are none if the text is not a playlist or a line exceeds 64 KiB; the
  // reason is on the error stream.
  //
  // Deliberate: a key line enables decryption for the segments after it regardless of its
  // METHOD, and its URI extends to the end of the line, because playlists are made for weir.
  void parse(std::string_view text);

  // How many of `chunks` precede the segment that `start_from` names: its index in the
  // playlist, negative from the end. Negative if that segment was dropped, or if there is
  // none because the playlist is shorter.
  [[nodiscard]] std::int64_t segments_before(std::int32_t start_from) const;

  // Refuses the playlist, with the reason on the error stream, if that segment was dropped:
  // there are no segments then.
  void require(std::int32_t start_from);

  std::string url;
  std::uint32_t target_duration = 1;  // seconds; a text without the tag keeps the value
  std::deque<Chunk> chunks;

 private:
  struct Cursor;
  void parse_line(std::string_view line, Cursor& cursor);

  std::int64_t dropped_ = 0;  // segments of the text before the first of `chunks`
};

}  // namespace weir
