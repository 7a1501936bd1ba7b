#include "cachemap/cache_map.h"

#include <algorithm>

#include "base/log.h"
#include "base/text.h"
#include "cachemap/crc32.h"

namespace weir {

CacheMap* chunkCacheMap = nullptr;
CacheMap* playlistCacheMap = nullptr;

namespace {

constexpr std::string_view kLivePrefix = "/_live/";

// The first two segments of the path, without any query.
std::string ring_key(const std::string& path) {
  const size_t start = path.starts_with(kLivePrefix) ? kLivePrefix.size() : 1;
  size_t end = path.find('/', start);
  if (end != std::string::npos) end = path.find('/', end + 1);
  std::string key = path.substr(start, end == std::string::npos ? end : end - start);
  key.erase(std::min(key.find('?'), key.size()));
  return key;
}

// Bits 16 to 30 of the CRC-32, spread over the live servers.
std::uint32_t rank_of(const std::string& key, std::uint32_t alive_count) {
  return (crc32(key) >> 16 & 0x7FFF) % alive_count;
}

// The live server with this 0-based rank, or the last live one if there are fewer.
const CacheServer* live_server(const Ring& ring, std::uint32_t rank) {
  const CacheServer* candidate = nullptr;
  for (const CacheServer& server : ring.servers) {
    if (!server.alive) continue;
    candidate = &server;
    if (rank-- == 0) break;
  }
  return candidate;
}

}  // namespace

std::string CacheMap::selectServer(const std::string& path) {
  const MutexLock lock(mutex_);
  const std::string key = ring_key(path);
  const auto ring = std::find_if(rings_.begin(), rings_.end(),
                                 [](const Ring& candidate) { return candidate.aliveCount != 0; });
  if (ring == rings_.end()) {
    log_err("no valid ring found");
    return "";
  }
  const CacheServer* const server = live_server(*ring, rank_of(key, ring->aliveCount));
  if (server == nullptr) {
    log_err("no server found in ring");
    return "";
  }
  log_out("for url ", path, " key ", key, " selected server: ", server->address);
  return server->address;
}

void CacheMap::invalidateServer(const std::string& address) {
  const MutexLock lock(mutex_);
  log_out("Invalidating cache server ", address);
  for (Ring& ring : rings_) {
    for (CacheServer& server : ring.servers) {
      if (server.address != address || !server.alive) continue;
      server.alive = false;
      if (ring.aliveCount != 0) --ring.aliveCount;
    }
  }
  dumpRings();
}

void CacheMap::setMap(const std::string& text) {
  const MutexLock lock(mutex_);
  rings_.clear();
  log_out("setting map to: ", text);
  for (const std::string_view ring_text : split(text, ';')) {
    Ring& ring = rings_.emplace_back();
    for (const std::string_view address : split(ring_text, ',')) {
      ring.servers.push_back({std::string(address)});
    }
    ring.aliveCount = static_cast<std::uint32_t>(ring.servers.size());
  }
  dumpRings();
}

void CacheMap::dumpRings() const {
  for (const Ring& ring : rings_) {
    log_out("ring: alive servers: ", ring.aliveCount);
    for (const CacheServer& server : ring.servers) {
      log_out("  server: ", server.address, server.alive ? " alive" : " DEAD");
    }
  }
}

}  // namespace weir
