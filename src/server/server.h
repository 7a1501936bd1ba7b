#pragma once

#include <cstdint>

#include "base/fd.h"
#include "watchdog/device.h"

namespace weir {

class Watchdog;
struct StreamStats;

// Listens, accepts one connection a turn and gives it a thread of its own; once
// a second or more often it gives the watchdog a chance to act.
//
// Threads:   run() is the one loop. There is no limit on request threads.
// Ownership: the listening socket. The watchdog, the cache maps and the statistics
//            are created once and never destroyed, since detached threads use
//            them as long as the process lives.
// Failure:   throws a plain text (const char*): the socket can't be opened, a connection
//            can't be accepted, or its time-outs can't be set.
class Server {
 public:
  // `address` and `port` in host order, 0 being all interfaces; `max_buffer` in bytes, of
  // each stream's buffer. Opens nothing.
  Server(std::uint32_t address, std::uint32_t port, std::int32_t backlog, std::uint64_t max_buffer,
         Device device);

  // Returns by throwing only.
  [[noreturn]] void run();

 private:
  void createListeningSocket();
  [[nodiscard]] bool wait_for_connection() const;
  [[nodiscard]] Fd accept_connection() const;
  void handleConnection(Fd fd, StreamStats& stats, Watchdog& watchdog) const;

  const std::uint32_t address_;
  const std::uint32_t port_;
  const std::int32_t backlog_;
  const std::uint64_t max_buffer_;
  const Device device_;
  Fd listen_fd_;
};

}  // namespace weir
