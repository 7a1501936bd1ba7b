#pragma once

namespace weir {

struct StreamStats;

// Answers "/stats.json": the figures of the stream that wrote last, also long
// after it ended, zeros before the first.
//
// Threads:   one.
// Ownership: the descriptor and the record stay the caller's.
// Failure:   not reported.
class StatsHandler {
 public:
  StatsHandler(int fd, const StreamStats& stats) : fd_(fd), stats_(stats) {}

  void run() const;

 private:
  const int fd_;
  const StreamStats& stats_;
};

}  // namespace weir
