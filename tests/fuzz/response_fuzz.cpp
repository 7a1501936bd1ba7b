// An upstream's whole response: status, head and body, clear or enciphered, into
// a string or the buffer. The first byte says which; the head always ends, since
// a head that doesn't costs two seconds.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "buffer/cbuff.h"
#include "upstream/ucurl.h"

namespace weir {

class UCurlPeer {
 public:
  static void run(unsigned kind, const std::string& text, int sock) {
    UCurl curl;
    curl.sock = sock;
    std::string response;
    if (curl.read_status(response) != UCurl::Status::kOk) return;
    curl.read_headers(response);
    CBuff buffer;
    std::string document;
    const bool whole = (kind & 1) != 0;
    UCurl::Body body{whole ? &document : nullptr, whole ? nullptr : &buffer, nullptr};
    const std::string key((kind >> 1) % 20, 'k');
    (void)curl.download_body(response, body, key, (kind & 0x80) != 0);
    if (body.received > text.size()) std::abort();
    if (buffer.fill() > body.received + 16 || document.size() > text.size()) std::abort();
  }
};

}  // namespace weir

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string text =
      std::string(reinterpret_cast<const char*>(data) + 1, size - 1) + "\r\n\r\n\r\n";
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
  if (write(ends[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
  shutdown(ends[1], SHUT_WR);
  weir::UCurlPeer::run(data[0], text, ends[0]);
  close(ends[1]);
  return 0;
}
