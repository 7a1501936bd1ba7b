// How a GET is sent, tried again, and timed.
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "base/log.h"
#include "base/wait.h"
#include "cachemap/cache_map.h"
#include "upstream/ucurl.h"
#include "upstream/ucurl_exception.h"

namespace weir {

namespace {

constexpr int kAttempts = 4;  // in one get_common()
constexpr int kTries = 6;     // of get_common() in one get() or get_stream()
constexpr std::chrono::seconds kRetryPause{1};
constexpr std::chrono::seconds kSendTimeout{2};

timeval wall_clock() {
  timeval now{};
  (void)gettimeofday(&now, nullptr);
  return now;
}

double milliseconds_between(const timeval& from, const timeval& to) {
  return static_cast<double>(to.tv_usec - from.tv_usec) / 1000 +
         static_cast<double>(to.tv_sec - from.tv_sec) * 1000;
}

// Logs what was caught, and frees it.
template <class Exception>
void log_caught(Exception* exception) {
  const std::unique_ptr<Exception> owned(exception);
  log_err("Excep: ", owned->what());
}

}  // namespace

std::string UCurl::request_text(bool keep_alive, std::uint64_t from_bytes) const {
  std::string text = "GET " + path + " HTTP/1.1\r\nHost: " + host;
  if (port != 80) text.append(":").append(std::to_string(port));
  text += keep_alive ? "\r\nConnection: keep-alive\r\n" : "\r\nConnection: close\r\n";
  if (from_bytes != 0) {
    log_err("DEBUG: from bytes specified! ", from_bytes);
    text.append("Range: bytes=").append(std::to_string(from_bytes)).append("-\r\n");
  }
  return text + "\r\n";
}

void UCurl::invalidate_cache_server() {
  if (cache_kind == 1) chunkCacheMap->invalidateServer(cache_server);
  if (cache_kind == 2) playlistCacheMap->invalidateServer(cache_server);
}

bool UCurl::send_request(const std::string& text) {
  if (wait_writable(sock, kSendTimeout) != 1) {
    log_err("Send timeout");
    close_if_open();
    return false;
  }
  // A server that doesn't read must not hold the thread: what isn't taken at once is
  // not sent, and no answer comes.
  if (send(sock, text.data(), text.size(), MSG_DONTWAIT) >= 0) return true;
  log_err("Send failed");
  invalidate_cache_server();
  close_if_open();
  return false;
}

bool UCurl::get_common(const std::string& url, std::string& response, bool keep_alive,
                       std::uint64_t from_bytes) {
  for (int number = 1;; ++number) {
    const Attempt result = attempt(url, response, keep_alive, from_bytes);
    if (result == Attempt::kDone) return true;
    if (result == Attempt::kRefused || number == kAttempts) return false;
    if (number == 1) continue;
    if (cache_kind != 0) {
      invalidate_cache_server();
    } else {
      sleep_for(kRetryPause);
    }
  }
}

bool UCurl::parse_url_or_log(const std::string& url) {
  try {
    parse_url(url);
    return true;
  } catch (UCurlException* exception) {
    log_caught(exception);
    return false;
  }
}

UCurl::Attempt UCurl::attempt(const std::string& url, std::string& response, bool keep_alive,
                              std::uint64_t from_bytes) {
  if (!parse_url_or_log(url)) {
    close_if_open();
    return Attempt::kFailed;
  }
  if (!connect_to(host, port)) {
    log_out("Trying to reconnect when connecting");
    close_if_open();
    return Attempt::kFailed;
  }
  if (!send_request(request_text(keep_alive, from_bytes))) {
    log_out("Trying to reconnect when send data");
    close_if_open();
    return Attempt::kFailed;
  }
  switch (read_status(response)) {
    case Status::kOk:
      read_headers(response);
      return Attempt::kDone;
    case Status::kNoStatusLine:
      log_out("Trying to reconnect when read response failed");
      close_if_open();
      return Attempt::kFailed;
    case Status::kNotSuccessful:
      break;
  }
  // In spite of the line there is no further attempt; that is meant. What came
  // with the status must not stand in front of the next try's response.
  log_out("Trying to reconnect when http != 200");
  close_if_open();
  response.clear();
  return Attempt::kRefused;
}

bool UCurl::get(const std::string& url, std::string& out) {
  try {
    const bool done = get_document(url, out);
    close_if_open();
    return done;
  } catch (UCurlExceptionRecvError* exception) {
    log_caught(exception);
    close_if_open();
    return false;
  }
}

bool UCurl::get_document(const std::string& url, std::string& out) {
  // Between tries the response keeps what an attempt without a status line left.
  std::string response;
  for (int number = 1; !get_common(url, response, false, 0); ++number) {
    log_err("get common failed - retry ", number);
    if (number == kTries) return false;
  }
  Body body{&out, nullptr, nullptr};
  const bool done = download_body(response, body, "", false);
  if (!done && body.received == 0) invalidate_cache_server();
  return done;
}

std::int64_t UCurl::get_stream(const std::string& url, CBuff& cbuff, bool close_after,
                               double& speed_kbps, const std::string& key,
                               const std::atomic<bool>* stop_flag, std::uint64_t from_bytes) {
  try {
    return get_segment(url, cbuff, close_after, speed_kbps, key, stop_flag, from_bytes);
  } catch (UCurlExceptionRecvError* exception) {
    log_caught(exception);
    return -1;
  }
}

std::int64_t UCurl::get_stream(const std::string& url, CBuff& cbuff, bool close_after,
                               double& speed_kbps, std::uint64_t from_bytes) {
  return get_stream(url, cbuff, close_after, speed_kbps, "", nullptr, from_bytes);
}

std::int64_t UCurl::get_segment(const std::string& url, CBuff& cbuff, bool close_after,
                                double& speed_kbps, const std::string& key,
                                const std::atomic<bool>* stop_flag, std::uint64_t from_bytes) {
  position = 0;
  std::string response;
  for (int number = 1; !get_common(url, response, true, from_bytes); ++number) {
    log_err("get_stream / get common failed - retry ", number);
    if (number == kTries) return -1;
    response.clear();
  }
  const timeval start = wall_clock();
  Body body{nullptr, &cbuff, stop_flag};
  if (!download_body(response, body, key, from_bytes != 0)) return -1;
  if (close_after) close_if_open();
  const double elapsed = milliseconds_between(start, wall_clock());
  // Bits a second, in units of 1024. A body that came with its head takes no
  // measurable time: the speed is then infinite, or no number at all.
  speed_kbps = static_cast<double>(body.received) * 8 * 1000 / elapsed * 0.0009765625;
  return static_cast<std::int64_t>(body.received);
}

}  // namespace weir
