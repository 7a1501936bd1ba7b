#include "upstream/server_choice.h"

#include <utility>

#include "base/log.h"
#include "cachemap/cache_map.h"

namespace weir {

bool ServerChoice::choose(std::string_view url) {
  log_out("parse URL: ", url);
  map_ = nullptr;
  std::optional<Url> parsed = parse_url(url);
  if (!parsed) {
    const std::string_view scheme = scheme_of(url);
    log_err("Excep: ", scheme.substr(0, scheme.find('\0')));  // as a C string
    return false;
  }
  url_ = std::move(*parsed);
  if (url_.explicit_port) return true;
  if (url_.host == "@") return substitute(*chunkCacheMap, "No cache server found");
  if (url_.host == "~") return substitute(*playlistCacheMap, "No playlist cache server found");
  return true;
}

bool ServerChoice::substitute(CacheMap& map, const char* failure) {
  std::string server = map.selectServer(url_.path);
  if (server.empty()) {
    log_err("Excep: ", failure);
    return false;
  }
  // Without a colon both host and port are read from the whole text.
  const size_t colon = server.find(':');
  url_.host = server.substr(0, colon);
  url_.port = parse_port(colon == std::string::npos ? server : server.substr(colon + 1));
  map_ = &map;
  cache_server_ = std::move(server);
  return true;
}

void ServerChoice::invalidate_cache_server() {
  if (map_ != nullptr) map_->invalidateServer(cache_server_);
}

}  // namespace weir
