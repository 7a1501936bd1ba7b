// A variant playlist, beside a count of its lines.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "playlist/chunklist.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  weir::Chunklist chunklist("");
  chunklist.parse(text);
  std::istringstream lines(text);
  std::string line;
  std::getline(lines, line);
  bool numbered_anew = true;
  std::size_t segments = 0;
  // Text that is refused has no segments.
  while (!chunklist.chunks.empty() && std::getline(lines, line)) {
    numbered_anew |= line.starts_with("#EXT-X-MEDIA-SEQUENCE:");
    if (line.starts_with('#')) continue;
    if (segments == chunklist.chunks.size()) std::abort();
    const weir::Chunk& chunk = chunklist.chunks[segments];
    if (line.find(chunk.url) == std::string::npos ||
        (chunk.key_url && chunk.key_url->size() > size))
      std::abort();
    if (!numbered_anew && chunk.sequence != chunklist.chunks[segments - 1].sequence + 1)
      std::abort();
    numbered_anew = false;
    ++segments;
  }
  if (segments != chunklist.chunks.size()) std::abort();
  return 0;
}
