#include "cachemap/answer_update.h"

#include <unistd.h>

#include <string_view>

#include "base/process.h"
#include "base/response_head.h"
#include "cachemap/cache_map.h"

namespace weir {

void answer_update(int fd, const std::string* chunk, const std::string* playlist) {
  ignore_sigpipe();
  if (chunk != nullptr) chunkCacheMap->setMap(*chunk);
  if (playlist != nullptr) playlistCacheMap->setMap(*playlist);
  ResponseHead(fd, 200, "OK", "application/json").send();
  constexpr std::string_view kBody = "\"OK\"\n";
  (void)!write(fd, kBody.data(), kBody.size());
}

}  // namespace weir
