#pragma once

#include <string>
#include <vector>

#include "base/mutex.h"
#include "cachemap/ring.h"

namespace weir {

// Rings of cache servers, in order of preference. A ring is used if all servers of the rings
// before it are dead. A dead server becomes alive again only with a new map.
//
// Threads: any. Each operation holds the mutex while it logs, so that a selection is never
//          logged in the middle of a dump. While holding it, takes only the log's locks.
class CacheMap {
 public:
  // The address of the server for the path of an upstream URL, or "" if there is none. It
  // depends on the first two segments of the path (after "/_live/" if the path starts with
  // that; without the query), so that related files come from one server. Throws
  // std::out_of_range if the path is empty.
  [[nodiscard]] std::string selectServer(const std::string& path);

  // Marks a server dead in every ring that contains it.
  void invalidateServer(const std::string& address);

  // Replaces all rings. Rings are separated by ";", servers by ",". Addresses are neither
  // trimmed nor checked: every text is valid.
  void setMap(const std::string& text);

 private:
  void dumpRings() const WEIR_REQUIRES(mutex_);

  Mutex mutex_;
  std::vector<Ring> rings_ WEIR_GUARDED_BY(mutex_);
};

// The two maps of the process: for media ("@" in a URL) and for playlists ("~").
// The server loop creates them before it accepts a connection; they are never destroyed.
extern CacheMap* chunkCacheMap;
extern CacheMap* playlistCacheMap;

}  // namespace weir
