#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "base/fd.h"
#include "base/limits.h"

namespace weir {

// One TCP connection to an upstream server, kept open between requests and reused for the
// same host and port.
//
// Threads:   one at a time. Connecting blocks for at most 2 s, plus the time of the resolver;
//            a receive for at most its time-out.
// Ownership: closes its descriptor when destroyed.
// Failure:   if connect_to() fails or a receive times out, the connection is closed and the
//            reason logged. A failed send() or a read error in recv_into() leaves it open.
class Connection {
 public:
  // Takes ownership of a connected socket, or starts without one.
  explicit Connection(Fd sock = Fd()) : sock_(std::move(sock)) {}
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // The host of the URL being fetched. Deliberate: closing logs this host, not the connected
  // one, because readers of the log expect it.
  void set_url_host(const std::string& host) { url_host_ = host; }

  // May return true although the server refuses the connection or has closed a reused one; the
  // first send or receive then fails.
  [[nodiscard]] bool connect_to(const std::string& host, int port);

  // False if the server accepts no bytes within 2 s.
  [[nodiscard]] bool wait_for_sending() const;

  // Sends what the system accepts at once; the rest is lost. False on an error.
  [[nodiscard]] bool send(std::string_view bytes) const;

  // Receives at most `most` bytes; empty at the end of the stream, nothing on failure.
  [[nodiscard]] std::optional<std::string> recv_string(size_t most, std::chrono::seconds timeout);

  // Returns the number of bytes received: 0 at the end of the stream and on an error, nothing
  // if none arrived within 2 s.
  [[nodiscard]] std::optional<size_t> recv_into(std::span<unsigned char> destination);

  // Closes the connection and logs `reason` as a failed receive.
  void fail_receive(const char* reason);

  void close_if_open();

 private:
  void disconnect();
  [[nodiscard]] bool resolve(const std::string& name);
  [[nodiscard]] bool finish_connect(int error);

  Fd sock_;
  sockaddr_in addr_{};
  std::string url_host_;

  // Host and port of the last successful connect; kept when the connection is closed.
  std::string connected_host_;
  int connected_port_ = -1;
};

}  // namespace weir
