#include "playlist/key_cache.h"

#include "base/log.h"
#include "playlist/chunk.h"
#include "upstream/ucurl.h"

namespace weir {

namespace {
constexpr size_t kKeySize = 16;  // bytes; any further ones are ignored
}

const std::string& KeyCache::key_for(const Chunk& chunk) {
  if (chunk.key_url == nullptr) {
    key_.clear();
  } else if (*chunk.key_url != key_url_) {
    log_out("getting new decryption key from: ", *chunk.key_url);
    key_url_ = *chunk.key_url;
    (void)UCurl().get(key_url_, key_);  // if that fails, the key before it stays
    if (key_.size() > kKeySize) {
      key_.resize(kKeySize);
      key_.shrink_to_fit();
    }
  }
  return key_;
}

}  // namespace weir
