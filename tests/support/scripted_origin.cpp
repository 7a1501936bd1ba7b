#include "support/scripted_origin.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace weir::test {

namespace {

// A socket bound to a free port of loopback.
int bound_socket(int& port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof local;
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), size) != 0) std::abort();
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size);
  port = ntohs(local.sin_port);
  return fd;
}

bool send_all(int fd, const std::string& text) {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

std::string with_length(const std::string& line, const std::string& body,
                        const std::string& more = "") {
  return "HTTP/1.1 " + line + "\r\n" + more + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

}  // namespace

Reply raw(std::string bytes, Reply::End end) { return {{std::move(bytes)}, end}; }

Reply ok(const std::string& body) { return raw(with_length("200 OK", body)); }

Reply status(const std::string& line) { return raw(with_length(line, "")); }

Reply cut(const std::string& body, size_t sent, Reply::End end) {
  std::string text = with_length("200 OK", body);
  text.resize(text.size() - body.size() + sent);
  return raw(std::move(text), end);
}

Reply ranged(const std::string& body) {
  Reply reply;
  reply.make = [body](const std::string& request) {
    const std::string range = "Range: bytes=";
    const size_t found = request.find(range);
    if (found == std::string::npos) return with_length("200 OK", body);
    const size_t from = std::stoul(request.substr(found + range.size()));
    return with_length("206 Partial Content", body.substr(std::min(from, body.size())),
                       "Content-Range: bytes " + std::to_string(from) + "-" +
                           std::to_string(body.size() - 1) + "/" + std::to_string(body.size()) +
                           "\r\n");
  };
  return reply;
}

int free_port() {
  int port;
  close(bound_socket(port));
  return port;
}

BlackHole::BlackHole() : sockets_{bound_socket(port_)} {
  if (listen(sockets_[0], 0) != 0) std::abort();
  sockaddr_in local{};
  socklen_t size = sizeof local;
  getsockname(sockets_[0], reinterpret_cast<sockaddr*>(&local), &size);
  for (int queued = 0; queued < 4; ++queued) {
    sockets_.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    (void)connect(sockets_.back(), reinterpret_cast<sockaddr*>(&local), size);
  }
}

BlackHole::~BlackHole() {
  for (const int fd : sockets_) close(fd);
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
  for (std::thread& thread : threads_) thread.join();
  close(listen_fd_);
}

void ScriptedOrigin::on(const std::string& path, std::vector<Reply> replies) {
  const std::lock_guard lock(mutex_);
  scripts_[path] = {std::move(replies), 0};
}

std::vector<std::string> ScriptedOrigin::requests() {
  const std::lock_guard lock(mutex_);
  return requests_;
}

int ScriptedOrigin::requests_for(const std::string& path) {
  const std::vector<std::string> all = requests();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const std::string& request) {
    return request.starts_with("GET " + path + " ");
  }));
}

void ScriptedOrigin::accept_loop() {
  int fd;
  while ((fd = accept(listen_fd_, nullptr, nullptr)) >= 0) {
    ++connections_;
    const std::lock_guard lock(mutex_);
    open_.push_back(fd);
    threads_.emplace_back([this, fd] { serve(fd); });
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
  open_.erase(std::find(open_.begin(), open_.end(), fd));
  close(fd);
}

Reply ScriptedOrigin::next_reply(const std::string& path) {
  const std::lock_guard lock(mutex_);
  const auto found = scripts_.find(path);
  if (found == scripts_.end()) return status("404 Not Found");
  auto& [replies, next] = found->second;
  return replies[std::min(next++, replies.size() - 1)];
}

// False when the connection is to be closed.
bool ScriptedOrigin::answer(int fd, const std::string& request) {
  {
    const std::lock_guard lock(mutex_);
    requests_.push_back(request);
  }
  const size_t start = request.find(' ') + 1;
  const Reply reply = next_reply(request.substr(start, request.find(' ', start) - start));
  if (reply.make && !send_all(fd, reply.make(request))) return false;
  for (size_t i = 0; i < reply.pieces.size(); ++i) {
    if (i > 0) std::this_thread::sleep_for(reply.pause);
    if (stopping_ || !send_all(fd, reply.pieces[i])) return false;
  }
  if (reply.end == Reply::End::kReset) {
    const linger abort{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  // Silent until the peer or the destructor ends it.
  char byte;
  while (reply.end == Reply::End::kStall && read(fd, &byte, 1) > 0) {
  }
  return reply.end == Reply::End::kKeep;
}

}  // namespace weir::test
