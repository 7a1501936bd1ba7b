#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace weir {

// Takes the body of a playlist or a key. It holds at most 16 MiB, and uses at most
// 24 MiB of memory while it grows.
//
// Threads:   one at a time.
// Ownership: the text stays the caller's.
class Document {
 public:
  static constexpr size_t kMaxSize = 16 << 20;  // bytes

  explicit Document(std::string& text) : text_(text) { text_.clear(); }

  // False, and nothing is taken, when that would be too much.
  [[nodiscard]] bool append(std::string_view piece);

 private:
  std::string& text_;
};

}  // namespace weir
