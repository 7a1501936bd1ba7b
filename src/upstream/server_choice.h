#pragma once

#include <string>
#include <string_view>

#include "upstream/url.h"

namespace weir {

class CacheMap;

// Chooses the server for one attempt to fetch a URL.
//
// Threads: one at a time.
class ServerChoice {
 public:
  // Parses a URL and replaces the host "@" with a server from chunkCacheMap, "~" with one from
  // playlistCacheMap. A host with a port is never replaced. False, with the reason on the
  // error stream, if the scheme is neither http nor https or the map has no server.
  [[nodiscard]] bool choose(std::string_view url);

  // Marks the chosen server dead in its map. Does nothing if it is not from a map.
  void invalidate_cache_server();

  [[nodiscard]] bool from_cache_map() const { return map_ != nullptr; }

  // Host and port to connect to and path to request, from the last valid URL.
  [[nodiscard]] const std::string& host() const { return url_.host; }
  [[nodiscard]] int port() const { return url_.port; }
  [[nodiscard]] const std::string& path() const { return url_.path; }

 private:
  [[nodiscard]] bool substitute(CacheMap& map, const char* failure);

  Url url_;
  CacheMap* map_ = nullptr;   // the map that contains cache_server_; null for a named host
  std::string cache_server_;  // its address as written in the map
};

}  // namespace weir
