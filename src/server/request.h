#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace weir {

class Http406;
class Watchdog;
struct StreamStats;

// One accepted connection: reads the request, routes it by its exact path,
// answers, and closes the socket. Headers are read and thrown away, and so is as much
// of a body as is there in the end. Any method but HEAD is treated as GET.
//
// Threads:   process() hands the object to a detached thread of its own, which
//            lives as long as the answer takes; for a stream that is as long as
//            the player listens. A client that stays silent holds the thread for
//            4095 receive time-outs.
// Ownership: the socket; what it points to lives as long as the process.
// Failure:   a request line of fewer than two words, or a stream without "url",
//            is answered with 406.
class Request {
 public:
  // `maxBufferSize` in bytes, for a stream's buffer.
  Request(int fd, std::int64_t maxBufferSize, StreamStats* stats, Watchdog* watchdog);
  ~Request();
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  // Starts the request's thread. Where there is none to be had the connection is closed.
  static void process(std::unique_ptr<Request> request);

  // All of one connection, on the calling thread.
  void start();

  // Reads the request line and fills the members below, or throws Http406*.
  void parse_resource();

  // The first value of that key, or null.
  [[nodiscard]] const std::string* get_param(const std::string& name) const;

  // 0 for "HTTP/1.1", 1 for all else. Nothing depends on it.
  std::int32_t version = 1;
  std::int32_t method = 2;  // 0 GET, 1 HEAD, 2 any other
  std::string path;         // decoded, without the query
  // In order, duplicates kept; keys as sent, values decoded.
  std::vector<std::pair<std::string, std::string>> params;

 private:
  static void* thread_entry(void* self);

  int readline(std::string& line, int maxLength);
  void skip_headers();
  void parse_url(const std::string& resource);
  void parse_query(const std::string& query);
  void dispatch();
  void close_connection();
  void serve_stream();
  void serve_stats();
  void serve_watchdog();
  void send_head(const char* message, const char* contentType);
  void send_not_found(const std::string& unknown);
  void send_not_acceptable(const std::string& message);
  [[noreturn]] void reject(const char* message);

  pthread_t thread{};  // set by the thread itself
  const int fd;
  const std::int64_t maxBufferSize;
  StreamStats* const stats;
  Watchdog* const watchdog;
  std::unique_ptr<Http406> rejection;  // what reject() threw
};

}  // namespace weir
