// An upstream's whole response: status, head and body, clear or encrypted, into
// a string or the buffer. The first byte says which; the head always ends, since
// a head that doesn't costs two seconds.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "buffer/cbuff.h"
#include "upstream/body.h"
#include "upstream/connection.h"
#include "upstream/decryptor.h"
#include "upstream/response.h"
#include "upstream/segment_sink.h"

namespace weir {

static void run(unsigned kind, const std::string& text, int sock) {
  Connection connection{Fd(sock)};
  Response response;
  if (response.read_status(connection) != Outcome::kDone) return;
  if (!response.read_headers(connection)) return;
  CBuff buffer;
  std::string document;
  Download download;
  if ((kind & 1) != 0) {
    (void)download_document(connection, response, document);
  } else {
    const std::atomic<bool> stop{false};
    Decryptor decryptor;
    const std::string key((kind >> 1) % 20, 'k');
    if (!key.empty() && !decryptor.start(key)) std::abort();
    SegmentSink sink(buffer, decryptor);
    download = download_segment(connection, response, sink, stop);
  }
  if (download.received > text.size()) std::abort();
  if (buffer.fill() > download.received + 16 || document.size() > text.size()) std::abort();
}

}  // namespace weir

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string text =
      std::string(reinterpret_cast<const char*>(data) + 1, size - 1) + "\r\n\r\n\r\n";
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
  if (write(ends[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
  shutdown(ends[1], SHUT_WR);
  weir::run(data[0], text, ends[0]);
  close(ends[1]);
  return 0;
}
