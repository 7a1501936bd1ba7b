#include "base/response_head.h"

#include <unistd.h>

#include <utility>

namespace weir {

ResponseHead::ResponseHead(int fd, int status, std::string message, std::string content_type)
    : fd_(fd),
      status_(status),
      message_(std::move(message)),
      content_type_(std::move(content_type)) {}

void ResponseHead::send() const {
  std::string text = "HTTP/1.0 ";
  text.append(std::to_string(status_)).append(" ").append(message_).append("\r\n");
  text.append("Content-Type: ").append(content_type_).append("\r\n");
  text.append(
      "Connection: close\r\n"
      "Allow: GET, HEAD\r\n"
      "Cache-Control: no-cache\r\n"
      "Access-Control-Allow-Origin: *\r\n"
      "\r\n");
  (void)!write(fd_, text.data(), text.size());
}

}  // namespace weir
