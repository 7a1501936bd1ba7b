#include "upstream/connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/limits.h"
#include "base/log.h"
#include "base/wait.h"

namespace weir {

namespace {

void set_flags(int fd, int set, int cleared) {
  int flags = fcntl(fd, F_GETFL);
  if (flags == -1) flags = 0;
  (void)fcntl(fd, F_SETFL, (flags | set) & ~cleared);
}

void set_nonblocking(int fd) { set_flags(fd, O_NONBLOCK, 0); }
void set_blocking(int fd) { set_flags(fd, 0, O_NONBLOCK); }

std::string error_text(int error) {
  char space[128];
  return strerror_r(error, space, sizeof space);
}

std::string dotted(in_addr address) {
  char text[INET_ADDRSTRLEN] = "";
  (void)inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

// Re-entrant gethostbyname(). False if the name has no entry. If the entry has no address,
// `found` is unchanged and `any` is false.
bool look_up(const std::string& name, in_addr& found, bool& any) {
  std::string space(1024, '\0');
  hostent entry{};
  hostent* result = nullptr;
  int error = 0;
  int status;
  while ((status = gethostbyname_r(name.c_str(), &entry, space.data(), space.size(), &result,
                                   &error)) == ERANGE) {
    space.resize(space.size() * 2);
  }
  if (status != 0 || result == nullptr) return false;
  any = result->h_addr_list[0] != nullptr;
  if (any) std::memcpy(&found, result->h_addr_list[0], sizeof found);
  return true;
}

}  // namespace

Connection::~Connection() { close_if_open(); }

void Connection::disconnect() {
  log_out("disconnect: ", url_host_);
  sock_.reset();
}

void Connection::close_if_open() {
  if (sock_.is_open()) disconnect();
}

bool Connection::connect_to(const std::string& host, int port) {
  if (sock_.is_open() && connected_host_ == host && connected_port_ == port) {
    log_out("reusing existing connection");
    return true;
  }
  if (connected_host_ != host) log_out("old address does not match");
  if (connected_port_ != port) log_out("old port does not match: ", connected_port_, "->", port);
  close_if_open();
  sock_.reset(socket(AF_INET, SOCK_STREAM, 0));
  if (!sock_.is_open()) {
    log_err("Could not create socket");
    return false;
  }
  log_out_unflushed("Socket created\n");
  if (!resolve(host)) {
    log_err("Failed to resolve hostname: ", host);
    disconnect();
    return false;
  }
  addr_.sin_family = AF_INET;
  addr_.sin_port = htons(static_cast<std::uint16_t>(port));
  set_nonblocking(sock_.get());
  const auto* const to = reinterpret_cast<const sockaddr*>(&addr_);
  if (connect(sock_.get(), to, sizeof addr_) != 0 && !finish_connect(errno)) return false;

  // Deliberate: both lines show the new port, because readers of the log expect it.
  log_out("old: ", connected_host_, " port: ", port);
  connected_host_ = host;
  connected_port_ = port;
  log_out("new: ", connected_host_, " port: ", port);
  log_out("Connected: ", host);
  return true;
}

// Dotted addresses are parsed without the resolver.
bool Connection::resolve(const std::string& name) {
  const in_addr_t address = inet_addr(name.c_str());
  if (address != INADDR_NONE) {
    addr_.sin_addr.s_addr = address;
    return true;
  }
  bool any = false;
  if (!look_up(name, addr_.sin_addr, any)) return false;
  if (any) log_out(name, " resolved to ", dotted(addr_.sin_addr));
  return true;
}

// Continues a connect() that did not succeed at once. Deliberate: a pending error is not
// fetched, so that a refused connection counts as connected until it is used.
bool Connection::finish_connect(int error) {
  const bool pending = error == EINPROGRESS;
  if (pending) {
    log_out("EINPROGRESS in connect() - selecting");
    if (wait_writable(sock_.get(), limits::kConnectTimeout)) {
      set_blocking(sock_.get());
      return true;
    }
    log_err("ERR: connect timeout");
  } else {
    log_err("ERR: connect failed: ", error_text(error));
  }
  disconnect();
  return false;
}

bool Connection::wait_for_sending() const {
  return wait_writable(sock_.get(), limits::kSendTimeout);
}

bool Connection::send(std::string_view bytes) const {
  // Must not block: a server that never reads must not hold the thread.
  return ::send(sock_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) >= 0;
}

void Connection::fail_receive(const char* reason) {
  close_if_open();
  log_err("Excep: ", reason);
}

std::optional<std::string> Connection::recv_string(size_t most, std::chrono::seconds timeout) {
  if (!wait_readable(sock_.get(), timeout)) {
    fail_receive("recv timeout1");
    return std::nullopt;
  }
  // Not zero-filled: most documents are much shorter.
  const auto piece = std::make_unique_for_overwrite<char[]>(most);
  const ssize_t count = read(sock_.get(), piece.get(), most);
  if (count < 0) {
    log_err("recv error");
    fail_receive("recv error");
    return std::nullopt;
  }
  return std::string(piece.get(), static_cast<size_t>(count));
}

// Tries to receive before waiting: at full speed data has usually arrived.
std::optional<size_t> Connection::recv_into(std::span<unsigned char> destination) {
  ssize_t count = recv(sock_.get(), destination.data(), destination.size(), MSG_DONTWAIT);
  if (count < 0 && errno == EAGAIN) {
    if (!wait_readable(sock_.get(), limits::kReadTimeout)) {
      fail_receive("recv timeout2");
      return std::nullopt;
    }
    count = read(sock_.get(), destination.data(), destination.size());
  }
  return static_cast<size_t>(std::max<ssize_t>(count, 0));
}

}  // namespace weir
