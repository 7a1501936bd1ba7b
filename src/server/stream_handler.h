#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace weir {

class CBuff;
class MasterPlaylist;
struct StreamStats;

// Answers "/stream": sends a 200 head at once, starts the playlist engine, and
// pumps what appears in the buffer to the player.
//
// Threads:   one, for the length of the stream; the engine has its own, which
//            have ended when run() returns.
// Ownership: the descriptor, the url and the statistics stay the caller's.
// Failure:   whatever happens upstream, the player sees the end of the body. It
//            comes when the playlist has ended and all is sent, when a write
//            fails, or when nothing was readable for more than 15 s.
class StreamHandler {
 public:
  // `url` of the master playlist; `max_buffer` in bytes; `start_from` in
  // segments, negative from the end.
  StreamHandler(const std::string& url, int fd, std::uint64_t max_buffer, StreamStats& stats,
                std::int32_t start_from);

  void run();

 private:
  void stream();

  // `started` in whole seconds of the monotonic clock.
  void pump(CBuff& buffer, const MasterPlaylist& playlist, time_t started);

  const std::string& url_;
  const int fd_;
  const std::uint64_t max_buffer_;
  StreamStats& stats_;
  const std::int32_t start_from_;
};

}  // namespace weir
