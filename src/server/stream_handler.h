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
  // `url` of the master playlist; `maxBufferSize` in bytes; `startFrom` in
  // segments, negative from the end.
  StreamHandler(const std::string& url, int fd, std::int64_t maxBufferSize, StreamStats* stats,
                std::int32_t startFrom);

  void run();

 private:
  void stream();
  // `started` in whole seconds of the monotonic clock.
  void pump(CBuff& buffer, const MasterPlaylist& playlist, time_t started);

  const std::string& url;
  const int fd;
  const std::int64_t maxBufferSize;
  StreamStats* const stats;
  const std::int32_t startFrom;
};

}  // namespace weir
