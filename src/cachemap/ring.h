#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace weir {

// One cache server, "host:port" exactly as the map's text has it.
struct CacheServer {
  std::string address;
  bool alive = true;
};

// Servers that share the load of all paths by hashing.
struct Ring {
  std::vector<CacheServer> servers;
  std::uint32_t aliveCount = 0;  // servers not yet invalidated
};

}  // namespace weir
