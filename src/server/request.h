#pragma once

#include <memory>
#include <string>
#include <utility>

#include "base/fd.h"
#include "server/request_line.h"

namespace weir {

class Http406;
struct Service;

// One accepted connection: reads the request, passes it to the endpoint of its exact path
// (404 if there is none), and closes the socket. Header fields are read and ignored, as is the
// part of a body that has arrived by then. Any method but HEAD is treated as GET.
//
// Threads:   process() gives the object a detached thread of its own, which lives until the
//            response has been sent: for a stream, as long as the player listens. A client
//            that stays silent holds the thread for 4095 receive time-outs.
// Ownership: owns the socket. The service lives as long as the process.
// Failure:   a request line of fewer than two words is answered with 406.
class Request {
 public:
  Request(Fd fd, Service& service);
  ~Request();
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  // Starts the request's thread. If the system refuses to create one, the connection
  // is closed.
  static void process(std::unique_ptr<Request> request);

  // Handles the connection from request line to close, on the calling thread.
  void start();

 private:
  static void* thread_entry(void* self);

  void parse_resource();
  void dispatch();
  void send_not_found(const std::string& path);
  void send_not_acceptable(const std::string& message);
  [[noreturn]] void reject(const char* message);
  void close_connection();

  Fd fd_;
  Service& service_;
  RequestLine line_;
  std::unique_ptr<Http406> rejection_;  // the exception thrown by reject()
};

}  // namespace weir
