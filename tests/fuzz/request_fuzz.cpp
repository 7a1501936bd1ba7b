// The request line and its query, from a client that says anything.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "server/request_line.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
  if (write(ends[1], data, size) != static_cast<ssize_t>(size)) std::abort();
  shutdown(ends[1], SHUT_WR);
  if (const auto request = weir::parse_request_line(weir::readline(ends[0]))) {
    for (const auto& [key, value] : request->params) {
      if (key.find('=') != std::string::npos) std::abort();
      if (request->get_param(key) == nullptr) std::abort();
    }
    if (request->path.size() > size) std::abort();
  }
  close(ends[0]);
  close(ends[1]);
  return 0;
}
