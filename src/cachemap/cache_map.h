#pragma once

#include <string>
#include <vector>

#include "base/mutex.h"
#include "cachemap/ring.h"

namespace weir {

// Rings of cache servers, the preferred one first. A later ring is used when
// all servers of the earlier ones are dead; only a new map revives a server.
//
// Threads: any. Each operation holds the mutex to its end, its log lines
//          included, so a selection is never logged in the middle of a dump. The
//          locks of the log's streams are taken inside, and no other.
class CacheMap {
 public:
  // The address of the server for the path of an upstream URL, or "" when there
  // is none. The first two segments of the path (after "/_live/" where it begins
  // so, without any query) decide, so what belongs together goes to one server.
  // The path must not be empty; std::out_of_range otherwise.
  [[nodiscard]] std::string selectServer(const std::string& path);

  // Marks a server dead wherever it stands in the map.
  void invalidateServer(const std::string& address);

  // Replaces all rings. Rings are separated by ";", servers by ","; nothing is
  // trimmed or checked, so there is no invalid text.
  void setMap(const std::string& text);

 private:
  void dumpRings() const WEIR_REQUIRES(mutex_);

  Mutex mutex_;
  std::vector<Ring> rings_ WEIR_GUARDED_BY(mutex_);
};

// The two maps of the process: for media ("@" in a URL) and for playlists ("~").
// The server loop sets them once before it accepts a connection, and they are
// never destroyed.
extern CacheMap* chunkCacheMap;
extern CacheMap* playlistCacheMap;

}  // namespace weir
