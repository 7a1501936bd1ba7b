#include "playlist/playlist_text.h"

#include "base/log.h"
#include "base/text.h"

namespace weir {

bool is_playlist(const std::vector<std::string>& lines) {
  if (lines.empty()) return true;
  std::string first = lines.front();
  if (trim(first) == "#EXTM3U") return true;
  log_err("This is not m3u playlist!");
  return false;
}

}  // namespace weir
