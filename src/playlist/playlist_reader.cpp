#include "playlist/playlist_reader.h"

#include "base/limits.h"
#include "base/log.h"

namespace weir {

bool PlaylistReader::read_header() {
  std::string_view first;
  if (!lines_.next(first) || trim(first) == "#EXTM3U") return true;
  log_err("This is not m3u playlist!");
  return false;
}

bool PlaylistReader::next(std::string_view& line) {
  if (!lines_.next(line)) return false;
  if (line.size() <= limits::kMaxLine) return true;
  log_err("playlist refused: a line has more than ", limits::kMaxLine, " bytes");
  met_long_line_ = true;
  return false;
}

}  // namespace weir
