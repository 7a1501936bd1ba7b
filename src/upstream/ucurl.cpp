#include "upstream/ucurl.h"

#include <sys/time.h>

#include <chrono>

#include "base/log.h"
#include "base/units.h"
#include "base/wait.h"
#include "upstream/response.h"
#include "upstream/segment_sink.h"

namespace weir {

namespace {

constexpr int kAttempts = 4;  // in one get_common()
constexpr int kTries = 6;     // of get_common() in one get() or get_stream()
constexpr std::chrono::seconds kRetryPause{1};

timeval wall_clock() {
  timeval now{};
  (void)gettimeofday(&now, nullptr);
  return now;
}

double milliseconds_between(const timeval& from, const timeval& to) {
  return static_cast<double>(to.tv_usec - from.tv_usec) / 1000 +
         static_cast<double>(to.tv_sec - from.tv_sec) * 1000;
}

// Bit/s. A body that arrives with its header block takes no measurable time: the speed is
// then infinite or NaN.
double speed(std::uint64_t bytes, double milliseconds) {
  return static_cast<double>(bytes) * 8 * 1000 / milliseconds;
}

std::string request_text(const ServerChoice& server, bool keep_alive, std::uint64_t from_bytes) {
  std::string text = "GET " + server.path() + " HTTP/1.1\r\nHost: " + server.host();
  if (server.port() != 80) text.append(":").append(std::to_string(server.port()));
  text += keep_alive ? "\r\nConnection: keep-alive\r\n" : "\r\nConnection: close\r\n";
  if (from_bytes != 0) {
    log_err("DEBUG: from bytes specified! ", from_bytes);
    text.append("Range: bytes=").append(std::to_string(from_bytes)).append("-\r\n");
  }
  return text + "\r\n";
}

}  // namespace

bool UCurl::send_request(const std::string& text) {
  if (!connection_.wait_for_sending()) {
    log_err("Send timeout");
  } else if (connection_.send(text)) {
    return true;
  } else {
    log_err("Send failed");
    server_.invalidate_cache_server();
  }
  connection_.close_if_open();
  return false;
}

UCurl::Attempt UCurl::get_common(const std::string& url, Response& response, bool keep_alive,
                                 std::uint64_t from_bytes) {
  for (int number = 1;; ++number) {
    const Attempt result = attempt(url, response, keep_alive, from_bytes);
    if (result != Attempt::kFailed || number == kAttempts) return result;
    if (number == 1) continue;
    if (server_.from_cache_map()) {
      server_.invalidate_cache_server();
    } else {
      sleep_for(kRetryPause);
    }
  }
}

UCurl::Attempt UCurl::attempt(const std::string& url, Response& response, bool keep_alive,
                              std::uint64_t from_bytes) {
  const bool chosen = server_.choose(url);
  connection_.set_url_host(server_.host());
  if (!chosen) {
    connection_.close_if_open();
    return Attempt::kFailed;
  }
  if (!connection_.connect_to(server_.host(), server_.port())) {
    return fail_attempt("Trying to reconnect when connecting");
  }
  if (!send_request(request_text(server_, keep_alive, from_bytes))) {
    return fail_attempt("Trying to reconnect when send data");
  }
  switch (response.read_status(connection_)) {
    case Response::Status::kOk:
      return response.read_headers(connection_) ? Attempt::kDone : Attempt::kBroken;
    case Response::Status::kBroken:
      return Attempt::kBroken;
    case Response::Status::kNoStatusLine:
      return fail_attempt("Trying to reconnect when read response failed");
    case Response::Status::kNotSuccessful:
      break;
  }
  // Deliberate: despite that line there is no further attempt, so that a document which
  // doesn't exist is given up at once. What arrived with the status must not precede the
  // next try's response.
  (void)fail_attempt("Trying to reconnect when http != 200");
  response.rest.clear();
  return Attempt::kRefused;
}

UCurl::Attempt UCurl::fail_attempt(const char* reason) {
  log_out(reason);
  connection_.close_if_open();
  return Attempt::kFailed;
}

bool UCurl::get(const std::string& url, std::string& out) {
  const bool done = get_document(url, out);
  connection_.close_if_open();
  return done;
}

bool UCurl::get_head(const std::string& url, Response& response, bool keep_alive,
                     std::uint64_t from_bytes, std::string_view name) {
  for (int number = 1;; ++number) {
    const Attempt result = get_common(url, response, keep_alive, from_bytes);
    if (result == Attempt::kDone || result == Attempt::kBroken) return result == Attempt::kDone;
    log_err(name, " failed - retry ", number);
    if (number == kTries) return false;
    // Deliberate: a document keeps what an attempt without a status line received, in front
    // of the next response.
    if (keep_alive) response.rest.clear();
  }
}

bool UCurl::get_document(const std::string& url, std::string& out) {
  Response response;
  if (!get_head(url, response, false, 0, "get common")) return false;
  const BodyResult body = download_document(connection_, response, out);
  // Without a length no byte of the body was received.
  if (body == BodyResult::kLengthUnknown) server_.invalidate_cache_server();
  return body == BodyResult::kDelivered;
}

std::optional<UCurl::Download> UCurl::get_stream(const std::string& url, CBuff& cbuff,
                                                 const std::string& key,
                                                 const std::atomic<bool>& stop_flag,
                                                 std::uint64_t from_bytes) {
  position = 0;
  Response response;
  if (!get_head(url, response, true, from_bytes, "get_stream / get common")) return std::nullopt;
  const timeval start = wall_clock();
  if (!prepare_cipher(key, from_bytes != 0)) return std::nullopt;
  SegmentSink sink(cbuff, cipher_);
  Progress progress;
  const BodyResult body = download_segment(connection_, response, sink, stop_flag, progress);
  position = progress.position;
  if (body == BodyResult::kBroken) return std::nullopt;
  cipher_.stop();
  if (body == BodyResult::kLengthUnknown) return std::nullopt;
  return Download{progress.received,
                  kbps(speed(progress.received, milliseconds_between(start, wall_clock())))};
}

// A resumed download continues with the context that the interrupted one left, in the
// middle of the CBC chain. If that left none (its response had no Content-Length, say),
// the rest of the segment goes on as it comes, encrypted. A new context that can't be set
// up fails the download, and the next attempt starts at the segment's first byte.
bool UCurl::prepare_cipher(const std::string& key, bool resume) {
  if (key.empty()) cipher_.stop();
  if (key.empty() || resume || cipher_.start(key)) return true;
  connection_.close_if_open();  // in the middle of a response
  return false;
}

}  // namespace weir
