#pragma once

#include <string>

namespace weir {

struct Chunk;

// The AES-128 key of the segments being downloaded.
//
// Threads: the fill pass. Loading a key blocks as UCurl::get() does.
class KeyCache {
 public:
  // The raw key for a segment, loaded when its URL differs from that of the last key;
  // empty for clear media.
  //
  // Deliberate: a key that couldn't be loaded is not requested again until a key with
  // another URL has been, and the key before it stays in use. A clear segment forgets the
  // key but not its URL, so that the next segment with that URL is passed on encrypted.
  // Playlists for weir name a new URL for each new key.
  [[nodiscard]] const std::string& key_for(const Chunk& chunk);

 private:
  std::string key_;
  std::string key_url_;  // where key_ was loaded from, or should have been
};

}  // namespace weir
