#pragma once

#include <string>

namespace weir {

// The head of an answer to a client. There is never a Content-Length: the end
// of the body is the end of the connection (RFC 9112, section 6.3), and the
// version is HTTP/1.0 whatever the client spoke.
//
// Threads:   one.
// Ownership: the descriptor stays the caller's.
// Failure:   none to be seen. A client that has gone is found out by the body.
class ResponseHead {
 public:
  // The reason phrase and the content type are sent as they are, unescaped.
  ResponseHead(int fd, int status, std::string message, std::string contentType);

  // One write(); a short or failed one is not repeated.
  void send() const;

 private:
  int fd;
  int status;
  std::string message;
  std::string contentType;
};

}  // namespace weir
