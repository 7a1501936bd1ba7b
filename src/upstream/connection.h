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

// One TCP connection to an upstream server, kept open between requests and reused while
// host and port stay the same.
//
// Threads:   one at a time. Connecting takes at most 2 s, plus however long the resolver
//            takes; a receive takes at most its time-out.
// Ownership: closes its descriptor when destroyed.
// Failure:   connect_to() and the receives that return nothing close the connection and
//            log why; the rest says so at each.
class Connection {
 public:
  // Takes over a socket that is connected already, or begins without one.
  explicit Connection(Fd sock = Fd()) : sock_(std::move(sock)) {}
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // The host of the URL that is being fetched. Deliberate: closing logs this one, not
  // the one that is connected, because readers of the log know it so.
  void set_url_host(const std::string& host) { url_host_ = host; }

  // True also where the server refuses: unless that is known at once, the first send or
  // receive fails. The same goes for a kept connection that the server has closed.
  [[nodiscard]] bool connect_to(const std::string& host, int port);

  // False, and the connection stays open, when the server takes no bytes within 2 s.
  [[nodiscard]] bool wait_for_sending() const;

  // What the system doesn't accept at once isn't sent. False on an error.
  [[nodiscard]] bool send(std::string_view bytes) const;

  // At most that many bytes as a text; empty at the end of the stream. Nothing when the
  // receive failed.
  [[nodiscard]] std::optional<std::string> recv_string(size_t most, std::chrono::seconds timeout);

  // Returns how many bytes arrived; 0 at the end of the stream, and errors count as
  // such. Nothing when none arrived within 2 s.
  [[nodiscard]] std::optional<size_t> recv_into(std::span<unsigned char> destination);

  // Closes the connection because of what was received, or was not.
  void fail_receive(const char* reason);

  void close_if_open();

 private:
  void disconnect();
  [[nodiscard]] bool resolve(const std::string& name);
  [[nodiscard]] bool finish_connect(int error);

  Fd sock_;
  sockaddr_in addr_{};
  std::string url_host_;

  // Of the last connection made; kept after its end.
  std::string connected_host_;
  int connected_port_ = -1;
};

}  // namespace weir
