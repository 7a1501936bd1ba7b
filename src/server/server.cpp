#include "server/server.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <memory>
#include <utility>

#include "base/limits.h"
#include "base/log.h"
#include "cachemap/cache_map.h"
#include "server/request.h"
#include "server/service.h"

namespace weir {

namespace {

constexpr timeval kClientTimeout{limits::kClientTimeout.count(), 0};

// Keeps the service reachable after the server is destroyed.
Service* the_service = nullptr;

Service& new_service(std::uint64_t max_buffer, Device device) {
  the_service = new Service(max_buffer, device);
  return *the_service;
}

// The crypto library and the resolver initialise themselves on first use. If memory runs out
// during that, they crash, hang or keep failing. So they are initialised before the first
// stream, without a look-up.
void set_up_libraries() {
  // The library's exit handler would free ciphers that other threads use.
  (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  EVP_CIPHER_free(EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr));
  sethostent(0);
  endhostent();
}

}  // namespace

Server::Server(std::uint32_t address, std::uint32_t port, std::int32_t backlog,
               std::uint64_t max_buffer, Device device)
    : address_(address),
      port_(port),
      backlog_(backlog),
      service_(new_service(max_buffer, device)) {}

void Server::createListeningSocket() {
  listen_fd_.reset(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  const int fd = listen_fd_.get();
  // select() cannot handle higher descriptors.
  if (fd < 0 || fd >= FD_SETSIZE) throw "Couldn't create listening socket!";
  const int on = 1;
  (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(address_);
  local.sin_port = htons(static_cast<std::uint16_t>(port_));
  if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) < 0) {
    throw "Couldn't bind listening socket.";
  }
  if (listen(fd, backlog_) < 0) throw "Call to listen failed.";
}

void Server::run() {
  createListeningSocket();
  set_up_libraries();
  chunkCacheMap = new CacheMap;
  playlistCacheMap = new CacheMap;
  for (;;) {
    log_out("loop");
    service_.watchdog.check();
    if (wait_for_connection()) handleConnection(accept_connection());
  }
}

// Waits for at most a second. Errors count as time-outs.
bool Server::wait_for_connection() const {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(listen_fd_.get(), &ready);
  timeval timeout{limits::kTurn.count(), 0};
  const int count = select(listen_fd_.get() + 1, &ready, nullptr, nullptr, &timeout);
  log_out("after select");
  if (count < 1 || !FD_ISSET(listen_fd_.get(), &ready)) return false;
  log_out("read fds select ok");
  return true;
}

Fd Server::accept_connection() const {
  Fd fd(accept(listen_fd_.get(), nullptr, nullptr));
  if (!fd.is_open()) throw "Error calling accept()";
  log_out("accepted");
  if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kClientTimeout, sizeof kClientTimeout) < 0) {
    throw "setsockopt failed SO_RCVTIMEO";
  }
  log_out("set sock opt");
  if (setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kClientTimeout, sizeof kClientTimeout) < 0) {
    throw "setsockopt failed SO_SNDTIMEO";
  }
  log_out("set sock opt2");
  (void)setsockopt(fd.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &limits::kMaxUnsent,
                   sizeof limits::kMaxUnsent);
  return fd;
}

void Server::handleConnection(Fd fd) const {
  log_out("processing request");
  Request::process(std::make_unique<Request>(std::move(fd), service_));
  log_out("done processing request");
}

}  // namespace weir
