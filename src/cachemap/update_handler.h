#pragma once

#include <string>

namespace weir {

// Answers "/update-cache-map": replaces the maps whose text was sent.
//
// Threads:   one.
// Ownership: the descriptor and the texts stay the caller's.
// Failure:   none; any text is a map, and the answer is always the same.
class UpdateHandler {
 public:
  // Null for a map that stays as it is.
  UpdateHandler(int fd, const std::string* chunk, const std::string* playlist);

  void run() const;

 private:
  int fd;
  const std::string* chunk;
  const std::string* playlist;
};

}  // namespace weir
