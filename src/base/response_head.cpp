#include "base/response_head.h"

#include <unistd.h>

#include <utility>

namespace weir {

ResponseHead::ResponseHead(int fd_, int status_, std::string message_, std::string contentType_)
    : fd(fd_),
      status(status_),
      message(std::move(message_)),
      contentType(std::move(contentType_)) {}

void ResponseHead::send() const {
  std::string text = "HTTP/1.0 ";
  text.append(std::to_string(status)).append(" ").append(message).append("\r\n");
  text.append("Content-Type: ").append(contentType).append("\r\n");
  text.append(
      "Connection: close\r\n"
      "Allow: GET, HEAD\r\n"
      "Cache-Control: no-cache\r\n"
      "Access-Control-Allow-Origin: *\r\n"
      "\r\n");
  (void)!write(fd, text.data(), text.size());
}

}  // namespace weir
