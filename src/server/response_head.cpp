#include "server/response_head.h"

#include <unistd.h>

#include <string>

namespace weir {

void send_head(int fd, int status, std::string_view reason, std::string_view content_type) {
  std::string text = "HTTP/1.0 ";
  text.append(std::to_string(status)).append(" ").append(reason).append("\r\n");
  text.append("Content-Type: ").append(content_type).append("\r\n");
  text.append(
      "Connection: close\r\n"
      "Allow: GET, HEAD\r\n"
      "Cache-Control: no-cache\r\n"
      "Access-Control-Allow-Origin: *\r\n"
      "\r\n");
  (void)!write(fd, text.data(), text.size());
}

}  // namespace weir
