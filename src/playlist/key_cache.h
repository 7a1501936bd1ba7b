#pragma once

#include <string>

namespace weir {

struct Chunk;

// The AES-128 key of the segments being downloaded.
//
// Threads: the fill pass. Loading a key blocks as UCurl::get() does.
class KeyCache {
 public:
  // The raw key for a segment, loaded where its address is a new one; empty for clear
  // media. Deliberate: a key that couldn't be loaded isn't asked for again as long as
  // its address stays, and a clear segment forgets the key but not its address.
  [[nodiscard]] const std::string& key_for(const Chunk& chunk);

 private:
  std::string key_;
  std::string key_url_;  // where key_ was loaded from, or should have been
};

}  // namespace weir
