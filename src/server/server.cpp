#include "server/server.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>

#include "base/log.h"
#include "cachemap/cache_map.h"
#include "playlist/stream_stats.h"
#include "server/request.h"
#include "watchdog/watchdog.h"

namespace weir {

namespace {

constexpr timeval kClientTimeout{10, 0};  // of one read from or write to a client
constexpr timeval kTurn{1, 0};

// Bytes that the kernel takes before the network does. Without a limit it takes
// megabytes and wakes the writer when a third of them have gone, which a player
// that reads at the pace of its film may not manage within kClientTimeout.
constexpr int kMaxUnsent = 256 * 1024;

// What requests share. Reachable for ever, never destroyed.
struct Shared {
  explicit Shared(Device device) : watchdog(device) {
    chunkCacheMap = new CacheMap;
    playlistCacheMap = new CacheMap;
  }

  Watchdog watchdog;
  StreamStats stats;
};
Shared* shared = nullptr;

// The crypto library and the resolver set themselves up at their first use. Where
// memory runs out in the middle of that they crash, hang, or fail for ever after:
// so they do it here, before there is a stream to lose. No name is looked up.
void set_up_libraries() {
  // The library's own exit handler would take the ciphers from running threads.
  (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  EVP_CIPHER_free(EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr));
  sethostent(0);
  endhostent();
}

}  // namespace

Server::Server(std::uint32_t address_, std::uint32_t port_, std::int32_t backlog_,
               std::int64_t maxBufferSize_, Device device_)
    : address(address_),
      port(port_),
      backlog(backlog_),
      maxBufferSize(maxBufferSize_),
      device(device_) {}

Server::~Server() {
  if (listenFd >= 0) close(listenFd);
}

void Server::createListeningSocket() {
  listenFd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  // select() has no room for a descriptor that high.
  if (listenFd < 0 || listenFd >= FD_SETSIZE) throw "Couldn't create listening socket!";
  const int on = 1;
  (void)setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(address);
  local.sin_port = htons(static_cast<std::uint16_t>(port));
  if (bind(listenFd, reinterpret_cast<const sockaddr*>(&local), sizeof local) < 0) {
    throw "Couldn't bind listening socket.";
  }
  if (listen(listenFd, backlog) < 0) throw "Call to listen failed.";
}

void Server::run() {
  createListeningSocket();
  set_up_libraries();
  shared = new Shared(device);
  for (;;) {
    log_out("loop");
    shared->watchdog.check();
    if (!wait_for_connection()) continue;
    handleConnection(accept_connection(), &shared->stats, &shared->watchdog);
  }
}

// False when a second has passed, or on an error, which is nobody's concern.
bool Server::wait_for_connection() const {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(listenFd, &ready);
  timeval timeout = kTurn;
  const int count = select(listenFd + 1, &ready, nullptr, nullptr, &timeout);
  log_out("after select");
  if (count < 1 || !FD_ISSET(listenFd, &ready)) return false;
  log_out("read fds select ok");
  return true;
}

int Server::accept_connection() const {
  const int fd = accept(listenFd, nullptr, nullptr);
  if (fd < 0) throw "Error calling accept()";
  log_out("accepted");
  if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kClientTimeout, sizeof kClientTimeout) < 0) {
    throw "setsockopt failed SO_RCVTIMEO";
  }
  log_out("set sock opt");
  if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kClientTimeout, sizeof kClientTimeout) < 0) {
    throw "setsockopt failed SO_SNDTIMEO";
  }
  log_out("set sock opt2");
  (void)setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kMaxUnsent, sizeof kMaxUnsent);
  return fd;
}

void Server::handleConnection(int fd, StreamStats* stats, Watchdog* watchdog) const {
  log_out("processing request");
  Request::process(std::make_unique<Request>(fd, maxBufferSize, stats, watchdog));
  log_out("done processing request");
}

}  // namespace weir
