#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace weir::test {

// What the origin does once a request has been read.
struct Reply {
  enum class End { kKeep, kClose, kReset, kStall };

  std::vector<std::string> pieces;      // sent as they are, one write each
  End end = End::kKeep;                 // then the connection is kept, closed, reset or left silent
  std::chrono::milliseconds pause{20};  // between the pieces
  // Instead of pieces: from the text of the request.
  std::function<std::string(const std::string& request)> make = nullptr;
};

// The bytes as they are.
Reply raw(std::string bytes, Reply::End end = Reply::End::kKeep);
// 200 with a Content-Length.
Reply ok(const std::string& body);
// An answer without a body.
Reply status(const std::string& line);
// The body with a Content-Length, cut off after `sent` bytes of it.
Reply cut(const std::string& body, size_t sent, Reply::End end);
// The body from where the request's Range begins: 206 with a Content-Range.
Reply ranged(const std::string& body);

// A loopback web server that follows a script: each request of a path takes the
// next of the path's replies, the last one for ever. Unknown paths are 404.
class ScriptedOrigin {
 public:
  ScriptedOrigin();
  ~ScriptedOrigin();
  ScriptedOrigin(const ScriptedOrigin&) = delete;
  ScriptedOrigin& operator=(const ScriptedOrigin&) = delete;

  void on(const std::string& path, std::vector<Reply> replies);

  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string url(const std::string& path) const { return "http://" + address() + path; }

  // The texts of all requests so far; those of one path; the connections made.
  std::vector<std::string> requests();
  int requests_for(const std::string& path);
  int connections() const { return connections_; }

 private:
  void accept_loop();
  void serve(int fd);
  bool answer(int fd, const std::string& request);
  Reply next_reply(const std::string& path);

  int port_ = 0;
  int listen_fd_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  std::map<std::string, std::pair<std::vector<Reply>, size_t>> scripts_;
  std::vector<std::string> requests_;
  std::vector<std::thread> threads_;
  std::vector<int> open_;
  std::thread acceptor_;
};

// An address that answers no connection: its queue is full and never emptied.
class BlackHole {
 public:
  BlackHole();
  ~BlackHole();
  BlackHole(const BlackHole&) = delete;
  BlackHole& operator=(const BlackHole&) = delete;
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  int port_ = 0;
  std::vector<int> sockets_;
};

// A port of loopback that nothing listens on.
int free_port();

}  // namespace weir::test
