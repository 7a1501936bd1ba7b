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
#include <cstring>
#include <utility>
#include <vector>

namespace weir::test {

std::map<std::string, Host> hosts;
std::map<std::string, std::string> names;
std::function<void(int fd, const std::string&)> log_line;
std::function<void(const std::string&)> noticed;

namespace {

constexpr int kFirst = 200;                    // the program's listening socket
constexpr int kBeyondSelect = FD_SETSIZE + 1;  // all others
constexpr size_t kWindow = 64 << 10;           // bytes in the peer's kernel that a reset can't drop

struct Socket {
  Time connected = kNever;  // or refused, if `error` is set
  std::shared_ptr<Pipe> in = nullptr, out = nullptr;
  Host* host = nullptr;       // the peer, if it is an origin
  std::string received = {};  // by that host
  int error = 0, port = 0;
  bool blocking = true, listening = false, reuses_address = false;
  Time receive_timeout = kNever, send_timeout = kNever;
  std::deque<int> backlog = {};
};

std::map<int, Socket> sockets;
Socket standard[] = {{Time(0)}, {Time(0)}, {Time(0)}};  // never connected: stuck

Socket* find(int fd) {
  if (fd >= 0 && fd <= STDERR_FILENO) return &standard[fd];
  const auto found = sockets.find(fd);
  return found == sockets.end() ? nullptr : &found->second;
}

int new_socket() {
  int fd = sockets.empty() ? kFirst : kBeyondSelect;
  while (sockets.contains(fd)) ++fd;
  sockets[fd];
  return fd;
}

// When the next bytes or the end can be read.
Time readable_at(const Pipe& pipe) {
  return std::min(pipe.pieces.empty() ? kNever : pipe.pieces.front().at, pipe.ends);
}

// When the connection is found broken.
Time gone_at(const Socket& socket) {
  if (socket.out->broken) return Time(0);
  return socket.in->is_reset ? socket.in->ends : kNever;
}

// When the event occurs, or another call closes the descriptor.
Time ready_at(int fd, short event) {
  const Socket* const socket = find(fd);
  if (socket == nullptr) return Time(0);
  if (socket->listening) return socket->backlog.empty() ? kNever : Time(0);
  if (socket->in == nullptr) return socket->connected;
  const bool room = socket->out->held < socket->out->capacity;
  const Time there = event == POLLIN ? readable_at(*socket->in) : room ? socket->connected : kNever;
  return std::min(there, gone_at(*socket));
}

bool wait_for(int fd, short event, Time deadline) {
  return wait([=] { return ready_at(fd, event); }, deadline);
}

Time after(Time timeout) { return timeout == kNever ? kNever : now() + timeout; }

Time duration_of(const void* value) {
  const auto* const time = static_cast<const timeval*>(value);
  return std::chrono::seconds(time->tv_sec) + std::chrono::microseconds(time->tv_usec);
}

// A connected socket that may be used now. Otherwise null, and errno is set.
Socket* usable(int fd, const char* client_call, const char* upstream_call) {
  Socket* const socket = find(fd);
  int error = socket == nullptr ? EBADF : std::exchange(socket->error, 0);
  if (error == 0 && socket->in == nullptr) error = ENOTCONN;
  if (error == 0) {
    error = refused(socket->host == nullptr ? client_call : upstream_call);
    if (error == ECONNRESET || error == EPIPE) {  // the connection is of no further use
      socket->in->pieces.clear();
      socket->in->held = 0;
      socket->in->reset(now());
      socket->out->reset(now());
    }
  }
  if (error == 0) return socket;
  errno = error;
  return nullptr;
}

ssize_t receive(int fd, void* to, size_t size, bool dont_wait) {
  Socket* const socket = usable(fd, "client read", "upstream read");
  if (socket == nullptr) return -1;
  const Time deadline = dont_wait || !socket->blocking ? now() : after(socket->receive_timeout);
  const std::shared_ptr<Pipe> in = socket->in;
  if (!wait_for(fd, POLLIN, deadline)) return fail(EAGAIN);
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
  if (count == 0 && in->is_reset) return fail(ECONNRESET);
  return static_cast<ssize_t>(count);
}

ssize_t transmit(int fd, const void* from, size_t size, int flags) {
  Socket* const socket = usable(fd, "client write", "upstream write");
  if (socket == nullptr) return -1;
  const bool waits = (flags & MSG_DONTWAIT) == 0 && socket->blocking;
  const Time deadline = waits ? after(socket->send_timeout) : now();
  const std::shared_ptr<Pipe> out = socket->out;
  size_t count = 0;
  while (count < size) {
    if (gone_at(*socket) <= now()) {
      if ((flags & MSG_NOSIGNAL) == 0) raise(SIGPIPE);
      return fail(EPIPE);
    }
    const size_t room = out->capacity - std::min(out->capacity, out->held);
    const size_t part = std::min(room, size - count);
    if (part > 0) out->put(now(), {static_cast<const char*>(from) + count, part});
    count += part;
    if (count < size && !wait_for(fd, POLLOUT, deadline)) break;
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
  (void)wait_for(fd, POLLOUT, kNever);
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
    socket.out->ends = now();
    if (unread) socket.out->reset(now());
    socket.in->broken = true;
  }
  sockets.erase(fd);
}

std::string text_of(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

// Creates both ends of a connection to the program.
int connect_to_listener(Socket& client) {
  const int fd = new_socket();
  Socket& accepted = sockets[fd];
  accepted.in = client.out = std::make_shared<Pipe>();
  accepted.out = client.in = std::make_shared<Pipe>();
  accepted.connected = client.connected = now();
  sockets[kFirst].backlog.push_back(fd);
  return 0;
}

int connect_to_host(Socket& socket, Host& host, Host::Kind kind) {
  const Time there = now() + host.latency;
  if (kind == Host::Kind::kUnreachable) return fail(ENETUNREACH);
  if (kind == Host::Kind::kRefuses) {
    socket.connected = there;
    socket.error = ECONNREFUSED;
  } else if (kind == Host::Kind::kSilent) {
    socket.error = socket.blocking ? ETIMEDOUT : 0;
  } else {
    socket.in = std::make_shared<Pipe>();
    socket.out = std::make_shared<Pipe>();
    socket.out->capacity = host.capacity;
    socket.connected = there;
    socket.host = &host;
  }
  if (!socket.blocking) return there == now() && socket.error == 0 ? 0 : fail(EINPROGRESS);
  sleep_until(kind == Host::Kind::kSilent ? now() + std::chrono::seconds(127) : there);
  return socket.error == 0 ? 0 : fail(std::exchange(socket.error, 0));
}

}  // namespace

void Pipe::put(Time at, std::string bytes) {
  if (bytes.empty()) return;
  held += bytes.size();
  pieces.push_back({at, std::move(bytes)});
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
}

void set_log_stuck(int fd, bool stuck) {
  const Inside inside;
  standard[fd].connected = stuck ? kNever : Time(0);
}

bool is_listening() { return sockets.contains(kFirst) && sockets[kFirst].listening; }

int open_sockets() { return static_cast<int>(sockets.size()); }

void close_all_sockets() {
  const Inside inside;
  while (!sockets.empty()) close_socket(sockets.begin()->first);
}

}  // namespace weir::test

// Wrapped calls --------------------------------------------------------------------------

using namespace weir::test;

extern "C" {

int __real_close(int fd);
int __real_fcntl(int fd, int command, ...);

// The program polls one descriptor at a time, and selects for reading only.
int __wrap_poll(pollfd* entry, nfds_t, int timeout) {
  entry->revents = 0;
  const int result = simulated("poll", [=] {
    const bool ready =
        wait_for(entry->fd, entry->events, now() + std::chrono::milliseconds(timeout));
    if (ready) entry->revents = find(entry->fd) == nullptr ? short{POLLNVAL} : entry->events;
    return ready ? 1 : 0;
  });
  return result < 0 && errno == kTimeout ? 0 : result;
}

int __wrap_select(int count, fd_set* in, fd_set*, fd_set*, timeval* timeout) {
  const Inside inside;
  may_switch();
  const bool ready = wait_for(count - 1, POLLIN, now() + duration_of(timeout));
  if (const int error = refused("select")) return fail(error);
  if (!ready) FD_CLR(count - 1, in);
  return ready ? 1 : 0;
}

int __wrap_socket(int, int, int) { return simulated("socket", new_socket); }

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t) {
  const auto is = [=](int of, int option) { return level == of && name == option; };
  const char* const call = is(SOL_SOCKET, SO_RCVTIMEO)   ? "SO_RCVTIMEO"
                           : is(SOL_SOCKET, SO_SNDTIMEO) ? "SO_SNDTIMEO"
                                                         : "setsockopt";
  return simulated(call, [=] {
    Socket* const socket = find(fd);
    if (socket == nullptr) return fail(EBADF);
    if (is(SOL_SOCKET, SO_RCVTIMEO)) socket->receive_timeout = duration_of(value);
    if (is(SOL_SOCKET, SO_SNDTIMEO)) socket->send_timeout = duration_of(value);
    if (is(SOL_SOCKET, SO_REUSEADDR)) socket->reuses_address = true;
    if (is(IPPROTO_TCP, TCP_NOTSENT_LOWAT)) {
      socket->out->capacity = kWindow + static_cast<size_t>(*static_cast<const int*>(value));
    }
    return 0;
  });
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t) {
  return simulated("bind", [=] {
    // As soon after a stream as this, the port is still taken for other sockets.
    if (!find(fd)->reuses_address) return fail(EADDRINUSE);
    find(fd)->port = ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
    return 0;
  });
}

int __wrap_listen(int fd, int) {
  return simulated("listen", [fd] {
    find(fd)->listening = true;
    return 0;
  });
}

int __wrap_accept(int fd, sockaddr*, socklen_t*) {
  return simulated("accept", [fd] {
    Socket* const socket = find(fd);
    (void)wait_for(fd, POLLIN, kNever);
    const int accepted = socket->backlog.front();
    socket->backlog.pop_front();
    return accepted;
  });
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t) {
  const Inside inside;
  may_switch();
  const int error = refused("connect");
  if (error != 0 && error != ETIMEDOUT) return fail(error);
  const auto& to = *reinterpret_cast<const sockaddr_in*>(address);
  Socket& socket = *find(fd);
  if (is_listening() && to.sin_addr.s_addr == htonl(INADDR_LOOPBACK) &&
      ntohs(to.sin_port) == sockets[kFirst].port) {
    return connect_to_listener(socket);
  }
  Host& host = hosts[text_of(to)];
  if (error != 0) return connect_to_host(socket, host, Host::Kind::kSilent);
  return connect_to_host(socket, host, host.request ? host.kind : Host::Kind::kRefuses);
}

ssize_t __wrap_recv(int fd, void* to, size_t size, int flags) {
  const Inside inside;
  may_switch();
  return receive(fd, to, size, (flags & MSG_DONTWAIT) != 0);
}

ssize_t __wrap_read(int fd, void* to, size_t size) { return __wrap_recv(fd, to, size, 0); }

ssize_t __wrap_send(int fd, const void* from, size_t size, int flags) {
  const Inside inside;
  may_switch();
  const bool is_log = fd == STDOUT_FILENO || fd == STDERR_FILENO;
  return is_log ? write_log(fd, from, size) : transmit(fd, from, size, flags);
}

ssize_t __wrap_write(int fd, const void* from, size_t size) {
  return __wrap_send(fd, from, size, 0);
}

int __wrap_close(int fd) {
  if (fd < kFirst) return __real_close(fd);
  const Inside inside;
  if (find(fd) == nullptr) return fail(EBADF);
  close_socket(fd);
  return 0;
}

int __wrap_fcntl(int fd, int command, long argument) {
  // gcov locks its files at exit, when the simulation is gone.
  if (command == F_SETLKW) return __real_fcntl(fd, command, argument);
  return simulated("fcntl", [=] {
    if (find(fd) == nullptr) return fail(EBADF);
    bool& blocking = find(fd)->blocking;
    if (command == F_GETFL) return O_RDWR | (blocking ? 0 : O_NONBLOCK);
    blocking = (argument & O_NONBLOCK) == 0;
    return 0;
  });
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
  constexpr size_t kNeeded = 1500;  // more than the program offers at first
  if (size < kNeeded) return ERANGE;
  const size_t to_boundary = -reinterpret_cast<std::uintptr_t>(space) % alignof(char*);
  char** const list = new (space + to_boundary) char* [2] {};
  char* const address = reinterpret_cast<char*>(list + 2);
  if (inet_pton(AF_INET, found->second.c_str(), address) == 1) list[0] = address;
  *entry = {const_cast<char*>(name), list + 1, AF_INET, 4, list};
  *result = entry;
  return 0;
}

int __wrap_setpriority(__priority_which_t which, id_t who, int value) {
  const Inside inside;
  const bool own = which == PRIO_PROCESS && who == static_cast<id_t>(getpid());
  noticed((own ? "priority " : "priority of another ") + std::to_string(value));
  return 0;
}

int __wrap_malloc_trim(size_t) {
  const Inside inside;
  noticed("trim, threads " + std::to_string(threads()));
  return 0;
}
}
