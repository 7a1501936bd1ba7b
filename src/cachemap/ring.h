#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace weir {

// One cache server: "host:port", exactly as in the text of the map.
struct CacheServer {
  std::string address;
  bool alive = true;
};

// Servers among which paths are distributed by hash.
struct Ring {
  std::vector<CacheServer> servers;
  std::uint32_t aliveCount = 0;  // servers with `alive` set
};

}  // namespace weir
