#pragma once

namespace weir {

struct StreamStats;

// Answers "/stats.json": the figures of the stream that wrote last, also long
// after it ended, zeros before the first.
//
// Threads:   one.
// Ownership: the descriptor and the record stay the caller's.
// Failure:   none to be seen.
class StatsHandler {
 public:
  StatsHandler(int fd, const StreamStats* stats);

  void run() const;

 private:
  int fd;
  const StreamStats* stats;
};

}  // namespace weir
