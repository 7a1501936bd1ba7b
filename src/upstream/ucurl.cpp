#include "upstream/ucurl.h"

#include <sys/time.h>

#include "base/limits.h"
#include "base/log.h"
#include "base/units.h"
#include "base/wait.h"
#include "upstream/response.h"
#include "upstream/segment_sink.h"

namespace weir {

namespace {

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

std::string request_text(const ServerChoice& server, bool keep_alive, std::uint64_t position) {
  std::string text = "GET " + server.path() + " HTTP/1.1\r\nHost: " + server.host();
  if (server.port() != 80) text.append(":").append(std::to_string(server.port()));
  text += keep_alive ? "\r\nConnection: keep-alive\r\n" : "\r\nConnection: close\r\n";
  if (position != 0) {
    log_err("DEBUG: from bytes specified! ", position);
    text.append("Range: bytes=").append(std::to_string(position)).append("-\r\n");
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

Outcome UCurl::get_common(const std::string& url, Response& response, bool keep_alive,
                          std::uint64_t position) {
  for (int number = 1;; ++number) {
    const Outcome result = attempt(url, response, keep_alive, position);
    if (result != Outcome::kNoAnswer || number == limits::kAttempts) return result;
    if (number == 1) continue;
    if (server_.from_cache_map()) {
      server_.invalidate_cache_server();
    } else {
      sleep_for(limits::kAttemptPause);
    }
  }
}

Outcome UCurl::attempt(const std::string& url, Response& response, bool keep_alive,
                       std::uint64_t position) {
  const bool chosen = server_.choose(url);
  connection_.set_url_host(server_.host());
  if (!chosen) {
    connection_.close_if_open();
    return Outcome::kNoAnswer;
  }
  if (!connection_.connect_to(server_.host(), server_.port())) {
    return fail_attempt("Trying to reconnect when connecting");
  }
  if (!send_request(request_text(server_, keep_alive, position))) {
    return fail_attempt("Trying to reconnect when send data");
  }
  const Outcome status = response.read_status(connection_);
  if (status == Outcome::kNoAnswer) {
    return fail_attempt("Trying to reconnect when read response failed");
  }
  if (status == Outcome::kUnusable) {
    // Deliberate: despite this line no further attempt is made, so that a document that does
    // not exist is given up at once. What arrived after the status line must not precede
    // the next try's response.
    (void)fail_attempt("Trying to reconnect when http != 200");
    response.rest.clear();
  }
  if (status != Outcome::kDone) return status;
  return response.read_headers(connection_) ? Outcome::kDone : Outcome::kBroken;
}

Outcome UCurl::fail_attempt(const char* reason) {
  log_out(reason);
  connection_.close_if_open();
  return Outcome::kNoAnswer;
}

bool UCurl::get(const std::string& url, std::string& out) {
  const bool done = get_document(url, out);
  connection_.close_if_open();
  return done;
}

bool UCurl::get_head(const std::string& url, Response& response, bool keep_alive,
                     std::uint64_t position, std::string_view name) {
  for (int number = 1;; ++number) {
    const Outcome result = get_common(url, response, keep_alive, position);
    if (result == Outcome::kDone || result == Outcome::kBroken) return result == Outcome::kDone;
    log_err(name, " failed - retry ", number);
    if (number == limits::kTries) return false;
    // Deliberate: for a document, bytes received by an attempt without a status line stay in
    // front of the next response.
    if (keep_alive) response.rest.clear();
  }
}

bool UCurl::get_document(const std::string& url, std::string& out) {
  Response response;
  if (!get_head(url, response, false, 0, "get common")) return false;
  const Outcome body = download_document(connection_, response, out);
  // Without a length no byte of the body was received.
  if (body == Outcome::kUnusable) server_.invalidate_cache_server();
  return body == Outcome::kDone;
}

Download UCurl::get_stream(const std::string& url, CBuff& cbuff, const std::string& key,
                           const std::atomic<bool>& stop_flag, std::uint64_t position) {
  Response response;
  if (!get_head(url, response, true, position, "get_stream / get common")) return {};
  const timeval start = wall_clock();
  if (!prepare_cipher(key, position != 0)) return {};
  SegmentSink sink(cbuff, cipher_);
  Download download = download_segment(connection_, response, sink, stop_flag);
  if (download.outcome != Outcome::kBroken) cipher_.stop();
  download.speed_kbps = kbps(speed(download.received, milliseconds_between(start, wall_clock())));
  return download;
}

// A resumed download continues with the cipher context of the interrupted one, in the middle
// of the CBC chain. If there is none (the response had no Content-Length, say), the rest of
// the segment stays encrypted. If a new context cannot be set up, the download fails, and the
// next one starts at the segment's first byte.
bool UCurl::prepare_cipher(const std::string& key, bool resume) {
  if (key.empty()) cipher_.stop();
  if (key.empty() || resume || cipher_.start(key)) return true;
  connection_.close_if_open();  // in the middle of a response
  return false;
}

}  // namespace weir
