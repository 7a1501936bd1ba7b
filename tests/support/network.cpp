#include "support/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <utility>
#include <vector>

namespace weir::test {

std::map<std::string, Host> hosts;
std::map<std::string, std::string> names;
std::function<void(int fd, const std::string&)> log_line;
std::function<void(const std::string&)> noticed;

namespace {

constexpr int kFirst = 200;
constexpr int kBeyondSelect = FD_SETSIZE + 1;  // all sockets but the first, the listening one
constexpr size_t kWindow = 64 << 10;           // bytes in the peer's kernel that a reset can't drop

struct Socket {
  std::shared_ptr<Pipe> in, out;
  Host* host = nullptr;  // the peer, if it is an origin
  std::string received;  // by that host
  bool blocking = true, listening = false, reuses_address = false;
  Time connected = kNever;  // or refused, if `error` is set
  int error = 0;
  Time receive_timeout = kNever, send_timeout = kNever;
  std::deque<int> backlog;
  Waiters changed;
};

std::map<int, Socket> sockets;
std::map<int, int> listeners;  // by port
bool stuck[3];
Waiters unstuck;

Socket* find(int fd) {
  if (fd < kFirst) return nullptr;
  const auto found = sockets.find(fd);
  return found == sockets.end() ? nullptr : &found->second;
}

int new_socket() {
  int fd = sockets.empty() ? kFirst : kBeyondSelect;
  while (sockets.contains(fd)) ++fd;
  sockets[fd];
  return fd;
}

bool is_log(int fd) { return (fd == STDOUT_FILENO || fd == STDERR_FILENO) && log_line; }

// When the next bytes or the end can be read.
Time readable_at(const Pipe& pipe) {
  return std::min(pipe.pieces.empty() ? kNever : pipe.pieces.front().at, pipe.ends);
}

bool gone(const Socket& socket) {
  return socket.out->broken || (socket.in->is_reset && socket.in->ends <= now());
}

int events_of(const Socket& socket) {
  if (socket.listening) return socket.backlog.empty() ? 0 : POLLIN;
  if (socket.in == nullptr) return socket.connected <= now() ? POLLIN | POLLOUT : 0;
  if (gone(socket)) return POLLIN | POLLOUT;
  const bool room = socket.connected <= now() && socket.out->held < socket.out->capacity;
  return (readable_at(*socket.in) <= now() ? POLLIN : 0) | (room ? POLLOUT : 0);
}

// Waits until any of the events holds; returns those that do, 0 at the deadline.
int wait_event(int fd, int events, Time deadline) {
  for (;;) {
    const Socket* const socket = find(fd);
    if (socket == nullptr && !is_log(fd)) return POLLNVAL;
    const int there = events & (socket == nullptr ? (stuck[fd] ? 0 : POLLOUT) : events_of(*socket));
    if (there != 0 || deadline <= now()) return there;
    Time next = deadline;
    std::vector<Waiters*> lists = {is_log(fd) ? &unstuck : &find(fd)->changed};
    const auto happens_at = [&next](Time time) {
      if (time > now()) next = std::min(next, time);
    };
    if (socket != nullptr) happens_at(socket->connected);
    if (socket != nullptr && socket->in != nullptr) {
      happens_at(readable_at(*socket->in));
      lists.push_back(&socket->in->readers);
      lists.push_back(&socket->out->writers);
    }
    (void)wait(lists, next);
  }
}

Time after(Time timeout) { return timeout == kNever ? kNever : now() + timeout; }

// Fails as told by refuse(). A reset is made real: the connection is of no further use.
bool is_refused(Socket* socket, const char* client_call, const char* upstream_call) {
  if (socket == nullptr || socket->in == nullptr) return false;
  errno = refused(socket->host == nullptr ? client_call : upstream_call);
  if (errno == ECONNRESET || errno == EPIPE) {
    socket->in->pieces.clear();
    socket->in->held = 0;
    socket->in->reset(now());
    socket->out->reset(now());
  }
  return errno != 0;
}

ssize_t receive(int fd, void* to, size_t size, bool dont_wait) {
  Socket* const socket = find(fd);
  if (socket == nullptr) return fail(EBADF);
  if (socket->error != 0) return fail(std::exchange(socket->error, 0));
  if (is_refused(socket, "client read", "upstream read")) return -1;
  if (socket->in == nullptr) return fail(ENOTCONN);
  const Time deadline = dont_wait || !socket->blocking ? now() : after(socket->receive_timeout);
  const std::shared_ptr<Pipe> in = socket->in;
  if (wait_event(fd, POLLIN, deadline) == 0) return fail(EAGAIN);
  size_t count = 0;
  while (count < size && !in->pieces.empty() && in->pieces.front().at <= now()) {
    const std::string& bytes = in->pieces.front().bytes;
    const size_t part = std::min(size - count, bytes.size() - in->taken);
    std::memcpy(static_cast<char*>(to) + count, bytes.data() + in->taken, part);
    count += part;
    in->taken += part;
    if (in->taken < bytes.size()) break;
    in->pieces.pop_front();
    in->taken = 0;
  }
  in->held -= count;
  if (count > 0) in->writers.wake();
  if (count == 0 && in->is_reset) return fail(ECONNRESET);
  return static_cast<ssize_t>(count);
}

ssize_t transmit(int fd, const void* from, size_t size, int flags) {
  Socket* const socket = find(fd);
  if (socket == nullptr) return fail(EBADF);
  if (socket->error != 0) return fail(std::exchange(socket->error, 0));
  if (is_refused(socket, "client write", "upstream write")) return -1;
  if (socket->out == nullptr) return fail(ENOTCONN);
  const bool waits = (flags & MSG_DONTWAIT) == 0 && socket->blocking;
  const Time deadline = waits ? after(socket->send_timeout) : now();
  const std::shared_ptr<Pipe> out = socket->out;
  size_t count = 0;
  while (count < size) {
    if (gone(*socket)) {
      if ((flags & MSG_NOSIGNAL) == 0) raise(SIGPIPE);
      return fail(EPIPE);
    }
    const size_t room = out->capacity - std::min(out->capacity, out->held);
    const size_t part = std::min(room, size - count);
    if (part > 0) out->put(now(), {static_cast<const char*>(from) + count, part});
    count += part;
    if (count < size && wait_event(fd, POLLOUT, deadline) == 0) break;
    if (find(fd) != socket) return fail(EBADF);
  }
  if (count == 0 && size > 0) return fail(EAGAIN);
  if (socket->host != nullptr && socket->host->kind != Host::Kind::kDeaf) {
    for (const Pipe::Piece& piece : out->pieces) socket->received += piece.bytes;
    out->pieces.clear();
    out->held = 0;
    socket->host->request(socket->received, *socket->in);
  }
  return static_cast<ssize_t>(count);
}

ssize_t write_log(int fd, const void* from, size_t size) {
  while (stuck[fd]) (void)wait({&unstuck});
  static bool interrupted = false;  // every log write is interrupted once with EINTR
  if ((interrupted = !interrupted)) return fail(EINTR);
  if (const int error = refused("log write")) return fail(error);
  log_line(fd, {static_cast<const char*>(from), size});
  return static_cast<ssize_t>(size);
}

void close_socket(int fd) {
  Socket& socket = sockets.at(fd);
  for (const int waiting : socket.backlog) close_socket(waiting);
  if (socket.in != nullptr) {
    // Closing with unread bytes sends a reset, and unsent bytes are lost.
    const bool unread = !socket.in->pieces.empty() && socket.in->pieces.front().at <= now();
    unread ? socket.out->reset(now()) : socket.out->end(now());
    socket.in->broken = true;
    socket.in->writers.wake();
  }
  socket.changed.wake();
  std::erase_if(listeners, [fd](const auto& entry) { return entry.second == fd; });
  sockets.erase(fd);
}

std::string text_of(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

// Creates both ends of a connection to the program.
int connect_to_listener(Socket& client, int listener) {
  const int fd = new_socket();
  Socket& accepted = sockets[fd];
  accepted.in = client.out = std::make_shared<Pipe>();
  accepted.out = client.in = std::make_shared<Pipe>();
  accepted.connected = client.connected = now();
  sockets.at(listener).backlog.push_back(fd);
  sockets.at(listener).changed.wake();
  return 0;
}

int connect_to_host(Socket& socket, Host& host) {
  const Time there = now() + host.latency;
  if (host.kind == Host::Kind::kUnreachable) return fail(ENETUNREACH);
  if (host.kind == Host::Kind::kRefuses) {
    socket.connected = there;
    socket.error = ECONNREFUSED;
  } else if (host.kind == Host::Kind::kSilent) {
    socket.error = socket.blocking ? ETIMEDOUT : 0;
  } else {
    socket.in = std::make_shared<Pipe>();
    socket.out = std::make_shared<Pipe>();
    socket.out->capacity = host.capacity;
    socket.connected = there;
    socket.host = &host;
  }
  if (!socket.blocking) return there == now() && socket.error == 0 ? 0 : fail(EINPROGRESS);
  sleep_until(host.kind == Host::Kind::kSilent ? now() + std::chrono::seconds(127) : there);
  return socket.error == 0 ? 0 : fail(std::exchange(socket.error, 0));
}

}  // namespace

void Pipe::put(Time at, std::string bytes) {
  if (bytes.empty()) return;
  held += bytes.size();
  pieces.push_back({at, std::move(bytes)});
  readers.wake();
}

void Pipe::end(Time at) {
  ends = at;
  readers.wake();
}

void Pipe::reset(Time at) {
  while (held > kWindow) {
    const size_t excess = std::min(held - kWindow, pieces.back().bytes.size());
    pieces.back().bytes.resize(pieces.back().bytes.size() - excess);
    held -= excess;
    if (pieces.back().bytes.empty()) pieces.pop_back();
  }
  ends = at;
  is_reset = true;
  readers.wake();
}

void set_log_stuck(int fd, bool is_stuck) {
  const Inside inside;
  stuck[fd] = is_stuck;
  unstuck.wake();
}

bool is_listening() { return !listeners.empty() && find(listeners.begin()->second)->listening; }

int open_sockets() { return static_cast<int>(sockets.size()); }

void close_all_sockets() {
  const Inside inside;
  while (!sockets.empty()) close_socket(sockets.begin()->first);
}

}  // namespace weir::test

// Wrapped calls --------------------------------------------------------------------------

using namespace weir::test;

extern "C" {

int __real_poll(pollfd* entries, nfds_t count, int timeout);
ssize_t __real_read(int fd, void* to, size_t size);
ssize_t __real_recv(int fd, void* to, size_t size, int flags);
ssize_t __real_write(int fd, const void* from, size_t size);
ssize_t __real_send(int fd, const void* from, size_t size, int flags);
int __real_close(int fd);
int __real_fcntl(int fd, int command, ...);

// The program polls one descriptor at a time, and selects for reading only.
int __wrap_poll(pollfd* entry, nfds_t count, int timeout) {
  const Inside inside;
  may_switch();
  entry->revents = 0;
  if (const int error = refused("poll")) return error == kTimeout ? 0 : fail(error);
  if (entry->fd < kFirst && !is_log(entry->fd)) return __real_poll(entry, count, timeout);
  const Time time = timeout < 0 ? kNever : now() + std::chrono::milliseconds(timeout);
  entry->revents = static_cast<short>(wait_event(entry->fd, entry->events, time));
  return entry->revents == 0 ? 0 : 1;
}

int __wrap_select(int count, fd_set* in, fd_set*, fd_set*, timeval* timeout) {
  const Inside inside;
  may_switch();
  const Time time =
      now() + std::chrono::seconds(timeout->tv_sec) + std::chrono::microseconds(timeout->tv_usec);
  const int events = wait_event(count - 1, POLLIN, time);
  if (const int error = refused("select")) return fail(error);
  if (events == 0) FD_CLR(count - 1, in);
  return events == 0 ? 0 : 1;
}

int __wrap_socket(int, int, int) {
  const Inside inside;
  if (const int error = refused("socket")) return fail(error);
  return new_socket();
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t) {
  const Inside inside;
  Socket* const socket = find(fd);
  if (socket == nullptr) return fail(EBADF);
  const auto time = [value] {
    const auto* const set = static_cast<const timeval*>(value);
    return std::chrono::seconds(set->tv_sec) + std::chrono::microseconds(set->tv_usec);
  };
  if (level == SOL_SOCKET && name == SO_RCVTIMEO) {
    if (const int error = refused("SO_RCVTIMEO")) return fail(error);
    socket->receive_timeout = time();
  } else if (level == SOL_SOCKET && name == SO_SNDTIMEO) {
    if (const int error = refused("SO_SNDTIMEO")) return fail(error);
    socket->send_timeout = time();
  } else if (const int error = refused("setsockopt")) {
    return fail(error);
  } else if (level == SOL_SOCKET && name == SO_REUSEADDR) {
    socket->reuses_address = true;
  } else if (level == IPPROTO_TCP && name == TCP_NOTSENT_LOWAT) {
    socket->out->capacity = kWindow + static_cast<size_t>(*static_cast<const int*>(value));
  }
  return 0;
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t) {
  const Inside inside;
  if (const int error = refused("bind")) return fail(error);
  // As soon after a stream as this, the port is still taken for other sockets.
  if (!find(fd)->reuses_address) return fail(EADDRINUSE);
  const int port = ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
  return listeners.try_emplace(port, fd).second ? 0 : fail(EADDRINUSE);
}

int __wrap_listen(int fd, int) {
  const Inside inside;
  if (const int error = refused("listen")) return fail(error);
  find(fd)->listening = true;
  return 0;
}

int __wrap_accept(int fd, sockaddr*, socklen_t*) {
  const Inside inside;
  if (const int error = refused("accept")) return fail(error);
  Socket* const socket = find(fd);
  if (wait_event(fd, POLLIN, kNever) == 0) return fail(EAGAIN);
  const int accepted = socket->backlog.front();
  socket->backlog.pop_front();
  return accepted;
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t) {
  const Inside inside;
  may_switch();
  const int error = refused("connect");
  if (error != 0 && error != ETIMEDOUT) return fail(error);
  const auto& to = *reinterpret_cast<const sockaddr_in*>(address);
  Socket& socket = *find(fd);
  const auto listener = listeners.find(ntohs(to.sin_port));
  if (to.sin_addr.s_addr == htonl(INADDR_LOOPBACK) && listener != listeners.end()) {
    return connect_to_listener(socket, listener->second);
  }
  static Host silent{Host::Kind::kSilent, {}, 0, nullptr};
  if (error != 0) return connect_to_host(socket, silent);
  Host& host = hosts[text_of(to)];
  if (!host.request) host.kind = Host::Kind::kRefuses;
  return connect_to_host(socket, host);
}

ssize_t __wrap_read(int fd, void* to, size_t size) {
  if (fd < kFirst) return __real_read(fd, to, size);
  const Inside inside;
  may_switch();
  return receive(fd, to, size, false);
}

ssize_t __wrap_recv(int fd, void* to, size_t size, int flags) {
  if (fd < kFirst) return __real_recv(fd, to, size, flags);
  const Inside inside;
  may_switch();
  return receive(fd, to, size, (flags & MSG_DONTWAIT) != 0);
}

ssize_t __wrap_write(int fd, const void* from, size_t size) {
  const Inside inside;
  if (fd < kFirst && !is_log(fd)) return __real_write(fd, from, size);
  may_switch();
  return is_log(fd) ? write_log(fd, from, size) : transmit(fd, from, size, 0);
}

ssize_t __wrap_send(int fd, const void* from, size_t size, int flags) {
  if (fd < kFirst) return __real_send(fd, from, size, flags);
  const Inside inside;
  may_switch();
  return transmit(fd, from, size, flags);
}

int __wrap_close(int fd) {
  if (fd < kFirst) return __real_close(fd);
  const Inside inside;
  if (find(fd) == nullptr) return fail(EBADF);
  close_socket(fd);
  return 0;
}

int __wrap_fcntl(int fd, int command, ...) {
  va_list more;
  va_start(more, command);
  const long argument = va_arg(more, long);
  va_end(more);
  if (fd < kFirst) return __real_fcntl(fd, command, argument);
  const Inside inside;
  if (const int error = refused("fcntl")) return fail(error);
  bool& blocking = find(fd)->blocking;
  if (command == F_GETFL) return O_RDWR | (blocking ? 0 : O_NONBLOCK);
  blocking = (argument & O_NONBLOCK) == 0;
  return 0;
}

int __wrap_gethostbyname_r(const char* name, hostent* entry, char* space, size_t size,
                           hostent** result, int* error) {
  const Inside inside;
  may_switch();
  *result = nullptr;
  *error = TRY_AGAIN;
  if (const int status = refused("gethostbyname_r")) return status;
  const auto found = names.find(name);
  if (found == names.end()) {
    *error = HOST_NOT_FOUND;
    return 0;
  }
  struct Found {
    char* none[1];
    char* list[2];
    in_addr address;
  };
  constexpr size_t kNeeded = 1500;  // more than the program offers at first
  if (size < kNeeded) return ERANGE;
  auto* const kept = new (space + (8 - reinterpret_cast<std::uintptr_t>(space) % 8)) Found{};
  if (inet_pton(AF_INET, found->second.c_str(), &kept->address) == 1) {
    kept->list[0] = reinterpret_cast<char*>(&kept->address);
  }
  *entry = {const_cast<char*>(name), kept->none, AF_INET, 4, kept->list};
  *result = entry;
  return 0;
}

int __wrap_setpriority(__priority_which_t which, id_t who, int value) {
  const Inside inside;
  const bool own = which == PRIO_PROCESS && who == static_cast<id_t>(getpid());
  if (noticed) noticed((own ? "priority " : "priority of another ") + std::to_string(value));
  return 0;
}

int __wrap_malloc_trim(size_t) {
  const Inside inside;
  if (noticed) noticed("trim, threads " + std::to_string(threads()));
  return 0;
}
}
