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

  // The number of `chunks` before the segment that `start_from` selects by its index in the
  // playlist, negative from the end. Negative if that segment was dropped, or if a
  // negative `start_from` exceeds the length of the playlist.
  [[nodiscard]] std::int64_t segments_before(std::int32_t start_from) const;

  // Removes all segments, with the reason on the error stream, if the segment that `start_from`
  // selects was dropped.
  void require(std::int32_t start_from);

  std::string url;
  std::uint32_t target_duration = 1;  // seconds; a playlist without the tag keeps the value
  std::deque<Chunk> chunks;

 private:
  struct Cursor;
  void parse_line(std::string_view line, Cursor& cursor);

  std::int64_t dropped_ = 0;  // number of the playlist's segments before the first of `chunks`
};

}  // namespace weir
