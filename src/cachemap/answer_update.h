#pragma once

#include <string>

namespace weir {

// Answers "/update-cache-map": replaces the maps whose text was sent; null for a map that
// stays as it is.
//
// Threads:   any.
// Ownership: the descriptor and the texts stay the caller's.
// Failure:   none; any text is a map, and the answer is always the same.
void answer_update(int fd, const std::string* chunk, const std::string* playlist);

}  // namespace weir
