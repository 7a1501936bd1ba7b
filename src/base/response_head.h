#pragma once

#include <string>

namespace weir {

// The head of an answer to a client. There is never a Content-Length: the end
// of the body is the end of the connection (RFC 9112, section 6.3), and the
// version is HTTP/1.0 whatever the client spoke.
//
// Threads:   one.
// Ownership: the descriptor stays the caller's.
// Failure:   not reported. Whoever writes the body learns that a client has gone.
class ResponseHead {
 public:
  // The reason phrase and the content type are sent as they are, unescaped.
  ResponseHead(int fd, int status, std::string message, std::string content_type);

  // One write(); a short or failed one is not repeated.
  void send() const;

 private:
  int fd_;
  int status_;
  std::string message_;
  std::string content_type_;
};

}  // namespace weir
