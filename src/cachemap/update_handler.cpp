#include "cachemap/update_handler.h"

#include <unistd.h>

#include <string_view>

#include "base/process.h"
#include "base/response_head.h"
#include "cachemap/cache_map.h"

namespace weir {

UpdateHandler::UpdateHandler(int fd_, const std::string* chunk_, const std::string* playlist_)
    : fd(fd_), chunk(chunk_), playlist(playlist_) {}

void UpdateHandler::run() const {
  ignore_sigpipe();
  if (chunk != nullptr) chunkCacheMap->setMap(*chunk);
  if (playlist != nullptr) playlistCacheMap->setMap(*playlist);
  ResponseHead(fd, 200, "OK", "application/json").send();
  constexpr std::string_view kBody = "\"OK\"\n";
  (void)!write(fd, kBody.data(), kBody.size());
}

}  // namespace weir
