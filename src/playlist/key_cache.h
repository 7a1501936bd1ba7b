#pragma once

#include <string>

namespace weir {

struct Chunk;

// The AES-128 key of the segments being downloaded.
//
// Threads: only the fill pass. Loading a key blocks as UCurl::get() does.
class KeyCache {
 public:
  // The key of a segment, at most 16 raw bytes; empty for clear media. Loads the key if its URL
  // differs from that of the last key.
  //
  // Deliberate: a key that could not be loaded is not requested again until a key with another
  // URL has been requested. Until then the previous key stays in use, or what a failed response
  // contained. A clear segment clears the key but not its URL, so the next segment with that URL
  // stays encrypted. Playlists for weir use a new URL for each new key.
  [[nodiscard]] const std::string& key_for(const Chunk& chunk);

 private:
  std::string key_;
  std::string key_url_;  // of the last request, successful or not
};

}  // namespace weir
