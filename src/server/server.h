#pragma once

#include <cstdint>

#include "base/fd.h"
#include "watchdog/device.h"

namespace weir {

struct Service;

// Listens, accepts one connection per turn and gives it a thread of its own. Every turn,
// at most a second apart, runs the watchdog's check.
//
// Threads:   run() is the only loop. The number of request threads is not limited.
// Ownership: the listening socket. The service and the cache maps are created once and never
//            destroyed: detached threads use them until the process ends.
// Failure:   throws a plain text (const char*) if the socket cannot be opened, a connection
//            cannot be accepted, or its time-outs cannot be set.
class Server {
 public:
  // `address` and `port` in host byte order, address 0 for all interfaces; `max_buffer` in
  // bytes, per stream. Opens nothing.
  Server(std::uint32_t address, std::uint32_t port, std::int32_t backlog, std::uint64_t max_buffer,
         Device device);

  // Ends only by throwing.
  [[noreturn]] void run();

 private:
  void createListeningSocket();
  [[nodiscard]] bool wait_for_connection() const;
  [[nodiscard]] Fd accept_connection() const;
  void handleConnection(Fd fd) const;

  const std::uint32_t address_;
  const std::uint32_t port_;
  const std::int32_t backlog_;
  Service& service_;
  Fd listen_fd_;
};

}  // namespace weir
