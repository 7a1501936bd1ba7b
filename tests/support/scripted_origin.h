#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace weir::test {

// What the origin does once a request has been read.
struct Reply {
  enum class End { kKeep, kClose, kStall, kReset };

  std::vector<std::string> pieces;      // sent as they are, one write each
  End end = End::kKeep;                 // then the connection is kept, closed, left silent or reset
  std::chrono::milliseconds pause{20};  // between the pieces
};

// The bytes as they are.
Reply raw(std::string bytes, Reply::End end = Reply::End::kKeep);
// A status, which may have headers behind it, and a body with a Content-Length.
Reply ok(const std::string& body, const std::string& status = "200 OK");
// The body with a Content-Length, cut off after `sent` bytes of it.
Reply cut(const std::string& body, size_t sent, Reply::End end);
// The body in pieces of that size, with a pause before each.
Reply slow(const std::string& body, size_t piece, std::chrono::milliseconds pause);

// A loopback web server that follows a script: each request of a path takes the
// next of the path's replies, the last one for ever. Unknown paths are 404.
class ScriptedOrigin {
 public:
  ScriptedOrigin();
  ~ScriptedOrigin();
  ScriptedOrigin(const ScriptedOrigin&) = delete;
  ScriptedOrigin& operator=(const ScriptedOrigin&) = delete;

  void on(const std::string& path, std::vector<Reply> replies);

  std::string port() const { return std::to_string(port_); }
  std::string address() const { return "127.0.0.1:" + port(); }
  std::string url(const std::string& path) const { return "http://" + address() + path; }

  // The texts of all requests so far, and the number of connections made.
  std::string requests();
  int connections() const { return connections_; }

 private:
  void accept_loop();
  void serve(int fd);
  bool answer(int fd, const std::string& request);
  Reply next_reply(const std::string& request);

  int port_ = 0;
  int listen_fd_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  std::map<std::string, std::pair<std::vector<Reply>, size_t>> scripts_;
  std::string requests_;
  std::atomic<int> serving_{0};  // threads
  std::vector<int> open_;
  std::thread acceptor_;
};

// A port of loopback that nobody has.
int free_port();

// For as long as the process lives, one that nobody else can have: it refuses
// connections, or answers none, since its queue is full and never emptied.
int refusing_port();
int silent_port();

}  // namespace weir::test
