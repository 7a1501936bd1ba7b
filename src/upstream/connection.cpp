// One TCP connection, reused while host and port stay the same.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "base/wait.h"
#include "upstream/ucurl.h"

namespace weir {

namespace {

constexpr std::chrono::seconds kConnectTimeout{2};

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

// Re-entrant gethostbyname(): false when the name has no entry. `found` stays
// as it is where an entry has no address.
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

UCurl::~UCurl() { close_if_open(); }

void UCurl::disconnect() {
  log_out("disconnect: ", host);
  close(sock);
  sock = -1;
}

void UCurl::close_if_open() {
  if (sock >= 0) disconnect();
}

bool UCurl::connect_to(const std::string& to_host, int to_port) {
  if (sock != -1 && connected_host == to_host && connected_port == to_port) {
    log_out("reusing existing connection");
    return true;
  }
  if (connected_host != to_host) log_out("old address does not match");
  if (connected_port != to_port) {
    log_out("old port does not match: ", connected_port, "->", to_port);
  }
  close_if_open();
  sock = socket(AF_INET, SOCK_STREAM, 0);
  if (sock == -1) {
    log_err("Could not create socket");
    return false;
  }
  log_out_unflushed("Socket created\n");
  if (!resolve(to_host)) {
    log_err("Failed to resolve hostname: ", to_host);
    set_blocking(sock);
    disconnect();
    return false;
  }
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(to_port));
  set_nonblocking(sock);
  const bool connected = connect(sock, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
  if (!connected && !finish_connect(errno)) return false;

  // Both lines print the new port; that is meant.
  log_out("old: ", connected_host, " port: ", port);
  connected_host = to_host;
  connected_port = to_port;
  log_out("new: ", connected_host, " port: ", port);
  log_out("Connected: ", to_host);
  return true;
}

// A dotted address needs no resolver.
bool UCurl::resolve(const std::string& name) {
  const in_addr_t address = inet_addr(name.c_str());
  if (address != INADDR_NONE) {
    addr.sin_addr.s_addr = address;
    return true;
  }
  bool any = false;
  if (!look_up(name, addr.sin_addr, any)) return false;
  if (any) log_out(name, " resolved to ", dotted(addr.sin_addr));
  return true;
}

// What is left of a connect() that did not succeed at once. A connection that
// was refused counts as made: the pending error isn't fetched, and the first
// send or read meets it.
bool UCurl::finish_connect(int error) {
  const bool pending = error == EINPROGRESS;
  if (pending) {
    log_out("EINPROGRESS in connect() - selecting");
    if (wait_writable(sock, kConnectTimeout) == 1) {
      set_blocking(sock);
      return true;
    }
    log_err("ERR: connect timeout");
  }
  set_blocking(sock);
  if (!pending) log_err("ERR: connect failed: ", error_text(error));
  disconnect();
  return false;
}

}  // namespace weir
