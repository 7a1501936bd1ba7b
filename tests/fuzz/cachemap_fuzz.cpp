// A cache map under a list of operations, a line each: "=text" sets it, "!address"
// invalidates, anything else is a path to select a server for.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "cachemap/cache_map.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
  weir::CacheMap map;
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with('=')) {
      text = line.substr(1);
      map.setMap(text);
    } else if (line.starts_with('!')) {
      map.invalidateServer(line.substr(1));
      if (line.size() > 1 && map.selectServer("/a/b") == line.substr(1)) std::abort();
    } else if (!line.empty()) {
      const std::string server = map.selectServer(line);
      if (text.find(server) == std::string::npos) std::abort();
      if (server != map.selectServer(line)) std::abort();
    }
  }
  return 0;
}
