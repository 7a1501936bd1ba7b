#include "playlist/key_cache.h"

#include "base/limits.h"
#include "base/log.h"
#include "playlist/chunk.h"
#include "upstream/ucurl.h"

namespace weir {

const std::string& KeyCache::key_for(const Chunk& chunk) {
  if (chunk.key_url == nullptr) {
    key_.clear();
  } else if (*chunk.key_url != key_url_) {
    log_out("getting new decryption key from: ", *chunk.key_url);
    key_url_ = *chunk.key_url;
    (void)UCurl().get(key_url_, key_);  // see key_for() for a failure
    if (key_.size() > limits::kKeySize) {
      key_.resize(limits::kKeySize);
      key_.shrink_to_fit();
    }
  }
  return key_;
}

}  // namespace weir
