#include "upstream/document.h"

namespace weir {

bool Document::append(std::string_view piece) {
  // Up to here the string doubles its capacity each time; beyond, that would take too much.
  constexpr size_t kMaxDoubled = kMaxSize / 4;
  const size_t size = text_.size() + piece.size();
  if (size > kMaxSize) return false;
  if (size > kMaxDoubled) text_.reserve(kMaxSize);
  text_ += piece;
  return true;
}

}  // namespace weir
