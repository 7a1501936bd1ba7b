#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/fd.h"
#include "server/request_line.h"

namespace weir {

class Http406;
class Watchdog;
struct StreamStats;

// One accepted connection: reads the request, routes it by its exact path,
// answers, and closes the socket. Header fields are read and thrown away, and so is as
// much of a body as has arrived in the end. Any method but HEAD is treated as GET.
//
// Threads:   process() hands the object to a detached thread of its own, which
//            lives as long as the answer takes; for a stream that is as long as
//            the player listens. A client that stays silent holds the thread for
//            4095 receive time-outs.
// Ownership: the socket; statistics and watchdog live as long as the process.
// Failure:   a request line of fewer than two words, or a stream without "url",
//            is answered with 406.
class Request {
 public:
  // `max_buffer` in bytes, for a stream's buffer.
  Request(Fd fd, std::uint64_t max_buffer, StreamStats& stats, Watchdog& watchdog);
  ~Request();
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  // Starts the request's thread. Where no thread can be had the connection is closed.
  static void process(std::unique_ptr<Request> request);

  // All of one connection, on the calling thread.
  void start();

 private:
  static void* thread_entry(void* self);

  void parse_resource();
  void dispatch();
  void serve_stream();
  void serve_stats();
  void serve_watchdog();
  void send_head(const char* message, const char* content_type);
  void send_not_found(const std::string& path);
  void send_not_acceptable(const std::string& message);
  [[noreturn]] void reject(const char* message);
  void close_connection();

  Fd fd_;
  const std::uint64_t max_buffer_;
  StreamStats& stats_;
  Watchdog& watchdog_;
  RequestLine line_;
  std::unique_ptr<Http406> rejection_;  // what reject() threw
};

}  // namespace weir
