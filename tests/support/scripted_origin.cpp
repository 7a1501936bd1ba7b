#include "support/scripted_origin.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "support/client.h"

namespace weir::test {

namespace {

// A socket bound to a free port of loopback.
int bound_socket(int& port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in local = loopback(0);
  socklen_t size = sizeof local;
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), size) != 0) std::abort();
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size);
  port = ntohs(local.sin_port);
  return fd;
}

}  // namespace

Reply raw(std::string bytes, Reply::End end) { return {{std::move(bytes)}, end}; }

Reply ok(const std::string& body, const std::string& status) {
  const std::string length = std::to_string(body.size());
  return raw("HTTP/1.1 " + status + "\r\nContent-Length: " + length + "\r\n\r\n" + body);
}

Reply cut(const std::string& body, size_t sent, Reply::End end) {
  std::string text = ok(body).pieces[0];
  text.resize(text.size() - body.size() + sent);
  return raw(std::move(text), end);
}

Reply slow(const std::string& body, size_t piece, std::chrono::milliseconds pause) {
  Reply reply = cut(body, 0, Reply::End::kKeep);
  reply.pause = pause;
  for (size_t at = 0; at < body.size(); at += piece) reply.pieces.push_back(body.substr(at, piece));
  return reply;
}

int free_port() {
  int port;
  close(bound_socket(port));
  return port;
}

int refusing_port() {
  int port;
  bound_socket(port);
  return port;
}

int silent_port() {
  int port;
  if (listen(bound_socket(port), 0) != 0) std::abort();
  const sockaddr_in local = loopback(port);
  for (int queued = 0; queued < 4; ++queued) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    (void)connect(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local);
  }
  return port;
}

ScriptedOrigin::ScriptedOrigin() : listen_fd_(bound_socket(port_)) {
  if (listen(listen_fd_, 64) != 0) std::abort();
  acceptor_ = std::thread([this] { accept_loop(); });
}

ScriptedOrigin::~ScriptedOrigin() {
  stopping_ = true;
  shutdown(listen_fd_, SHUT_RDWR);
  acceptor_.join();
  {
    const std::lock_guard lock(mutex_);
    for (const int fd : open_) shutdown(fd, SHUT_RDWR);
  }
  while (serving_ > 0) std::this_thread::yield();
  close(listen_fd_);
}

void ScriptedOrigin::on(const std::string& path, std::vector<Reply> replies) {
  const std::lock_guard lock(mutex_);
  scripts_[path] = {std::move(replies), 0};
}

std::string ScriptedOrigin::requests() {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void ScriptedOrigin::accept_loop() {
  int fd;
  while ((fd = accept(listen_fd_, nullptr, nullptr)) >= 0) {
    ++connections_;
    const std::lock_guard lock(mutex_);
    open_.push_back(fd);
    ++serving_;
    std::thread([this, fd] {
      serve(fd);
      --serving_;
    }).detach();
  }
}

// Requests of one connection, until it is to end. Ones without a body only.
void ScriptedOrigin::serve(int fd) {
  std::string text;
  char piece[4096];
  ssize_t count;
  bool more = true;
  while (more && (count = read(fd, piece, sizeof piece)) > 0) {
    text.append(piece, static_cast<size_t>(count));
    const size_t end = text.find("\r\n\r\n");
    if (end == std::string::npos) continue;
    more = answer(fd, text.substr(0, end + 4));
    text.erase(0, end + 4);
  }
  const std::lock_guard lock(mutex_);
  std::erase(open_, fd);
  close(fd);
}

Reply ScriptedOrigin::next_reply(const std::string& request) {
  const std::lock_guard lock(mutex_);
  requests_ += request;
  const size_t start = request.find(' ') + 1;
  const auto found = scripts_.find(request.substr(start, request.find(' ', start) - start));
  if (found == scripts_.end()) return ok("", "404 Not Found");
  auto& [replies, next] = found->second;
  return replies[std::min(next++, replies.size() - 1)];
}

// False when the connection is to be closed.
bool ScriptedOrigin::answer(int fd, const std::string& request) {
  const Reply reply = next_reply(request);
  for (size_t i = 0; i < reply.pieces.size(); ++i) {
    if (i > 0) std::this_thread::sleep_for(reply.pause);
    if (stopping_ || !send_all(fd, reply.pieces[i])) return false;
  }
  if (reply.end == Reply::End::kReset) {
    const linger none{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
  }
  // Silent until the peer or the destructor ends it.
  char byte;
  while (reply.end == Reply::End::kStall && read(fd, &byte, 1) > 0) {
  }
  return reply.end == Reply::End::kKeep;
}

}  // namespace weir::test
