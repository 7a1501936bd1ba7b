// How the head of a response is read.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "base/log.h"
#include "base/text.h"
#include "base/wait.h"
#include "upstream/ucurl.h"
#include "upstream/ucurl_exception.h"

namespace weir {

namespace {

constexpr std::size_t kHeadRead = 4096;     // bytes
constexpr std::size_t kMaxText = 16 << 20;  // bytes, of a head or a document
constexpr std::chrono::seconds kStatusTimeout{6};
constexpr std::chrono::seconds kReadTimeout{2};

}  // namespace

void UCurl::fail_receive(const char* text) {
  close_if_open();
  throw new UCurlExceptionRecvError(text);
}

// Empty at the end of the stream.
std::string UCurl::recv_string(std::size_t length, std::chrono::seconds timeout) {
  if (wait_readable(sock, timeout) != 1) fail_receive("recv timeout1");
  // Not cleared: most documents are much shorter.
  const auto piece = std::make_unique_for_overwrite<char[]>(length);
  const ssize_t count = read(sock, piece.get(), length);
  if (count < 0) {
    log_err("recv error");
    fail_receive("recv error");
  }
  return {piece.get(), static_cast<std::size_t>(count)};
}

// What read() returns: 0 at the end of the stream, -1 on an error. At full speed
// bytes are there already more often than not, and there is nothing to wait for.
std::int64_t UCurl::recv_into(void* destination, std::size_t length) {
  const ssize_t at_once = recv(sock, destination, length, MSG_DONTWAIT);
  if (at_once >= 0 || errno != EAGAIN) return at_once;
  if (wait_readable(sock, kReadTimeout) != 1) fail_receive("recv timeout2");
  return read(sock, destination, length);
}

// No playlist, key or head is that long; one without an end must not take all
// memory, and with it all other streams.
void UCurl::append_bounded(std::string& text, const std::string& piece) {
  if (text.size() + piece.size() > kMaxText) fail_receive("recv error");
  text += piece;
}

UCurl::Status UCurl::read_status(std::string& response) {
  response += recv_string(kHeadRead, kStatusTimeout);
  if (response.empty()) {
    log_out("socket is closed! no response!");
    return Status::kNoStatusLine;
  }
  const size_t end = response.find("\r\n");
  if (end == std::string::npos) {
    log_err("Where is http state?");
    log_out(response, " len:", response.size());
    return Status::kNoStatusLine;
  }
  const std::string line = response.substr(0, end);
  response.erase(0, end + 2);
  if (line.empty()) {
    log_err("Empty http state?");
    return Status::kNoStatusLine;
  }
  const std::vector<std::string> pieces = split(line, ' ');
  if (pieces[0] != "HTTP/1.1" && pieces[0] != "HTTP/1.0") {
    log_err("Not HTTP/1.x?");
    return Status::kNoStatusLine;
  }
  http11 = pieces[0] == "HTTP/1.1" ? 1 : 0;
  if (pieces.size() > 1 && pieces[1].starts_with('2')) return Status::kOk;
  log_err("HTTP response first_line: ", line);
  return Status::kNotSuccessful;
}

// What follows the head stays in `response`.
void UCurl::read_headers(std::string& response) {
  constexpr std::string_view kHeadEnd = "\r\n\r\n";
  size_t searched = 0;
  size_t end;
  while ((end = response.find(kHeadEnd, searched)) == std::string::npos) {
    // The end may straddle two reads.
    searched = response.size() - std::min(response.size(), kHeadEnd.size() - 1);
    const auto since = std::chrono::steady_clock::now();
    const std::string piece = recv_string(kHeadRead, kReadTimeout);
    if (piece.empty()) fail_inside_head(since);
    append_bounded(response, piece);
  }
  const std::string head = response.substr(0, end);
  response.erase(0, end + kHeadEnd.size());
  headers.clear();
  for (const std::string& line : split(head, '\n')) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string value = line.substr(colon + 1);
    headers.emplace_back(line.substr(0, colon), trim(value));
  }
}

// A server that closes inside its head fails as a silent one does, and no
// sooner: nothing more can come, so the time of the read is slept out.
void UCurl::fail_inside_head(std::chrono::steady_clock::time_point since) {
  const auto left = since + kReadTimeout - std::chrono::steady_clock::now();
  sleep_for(std::chrono::ceil<std::chrono::milliseconds>(left));
  fail_receive("recv timeout1");
}

// Names match in exact case; the first one counts.
const std::string* UCurl::find_header(const std::string& name) const {
  for (const auto& [header, value] : headers) {
    if (header == name) return &value;
  }
  return nullptr;
}

}  // namespace weir
