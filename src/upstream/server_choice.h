#pragma once

#include <string>
#include <string_view>

#include "upstream/url.h"

namespace weir {

class CacheMap;

// The server that one attempt at a URL goes to.
//
// Threads: one at a time.
class ServerChoice {
 public:
  // Parses a URL and replaces the hosts "@" and "~" by a server from chunkCacheMap or
  // playlistCacheMap. A host with a port is a name, even "@". False, with the reason on
  // the error stream, for a scheme other than http and https, and where the map has no
  // server.
  [[nodiscard]] bool choose(std::string_view url);

  // Marks the chosen server dead in the map that it came from, if it came from one.
  void invalidate_cache_server();

  [[nodiscard]] bool from_cache_map() const { return map_ != nullptr; }

  // Of the last URL, as far as it could be parsed: the host and port to connect to, the
  // path to request.
  [[nodiscard]] const std::string& host() const { return url_.host; }
  [[nodiscard]] int port() const { return url_.port; }
  [[nodiscard]] const std::string& path() const { return url_.path; }

 private:
  [[nodiscard]] bool substitute(CacheMap& map, const char* failure);

  Url url_;
  CacheMap* map_ = nullptr;   // where cache_server_ came from; null for a real host
  std::string cache_server_;  // as the map has it
};

}  // namespace weir
