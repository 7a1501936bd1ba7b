// The thread of a connection, and what is served on which path.
#include "server/request.h"

#include <sys/socket.h>

#include <array>
#include <optional>
#include <utility>

#include "base/log.h"
#include "base/response_head.h"
#include "base/text.h"
#include "base/thread.h"
#include "cachemap/answer_update.h"
#include "server/http406.h"
#include "server/stats_handler.h"
#include "server/stream_handler.h"
#include "watchdog/watchdog.h"

namespace weir {

namespace {
constexpr size_t kMaxDiscarded = 65536;  // bytes of a request's body
constexpr const char* kStreamType = "application/octet-stream";
constexpr const char* kJsonType = "application/json";
constexpr const char* kTextType = "plain/text";  // deliberate: clients expect this
}  // namespace

Request::Request(Fd fd, std::uint64_t max_buffer, StreamStats& stats, Watchdog& watchdog)
    : fd_(std::move(fd)), max_buffer_(max_buffer), stats_(stats), watchdog_(watchdog) {}

Request::~Request() = default;

void Request::process(std::unique_ptr<Request> request) {
  log_out("Request::process");
  // The new thread may end, and free the request, before the call returns.
  Request* const handed_over = request.release();
  if (!start_detached(thread_entry, handed_over)) request.reset(handed_over);
  log_out("Request::process end");
}

void* Request::thread_entry(void* self) {
  const std::unique_ptr<Request> request(static_cast<Request*>(self));
  log_out("do_request_start");
  lower_priority();
  log_out("pthread_detach");  // by who started it; readers of the log know the line
  request->start();
  log_out("after start");
  return nullptr;
}

void Request::start() {
  log_out("Request::start");
  try {
    log_out("Request::start 1");
    parse_resource();
    log_out("Request::start 2");
    skip_headers(fd_.get());
    log_out("Request::start 3 << ", line_.path);
    dispatch();
  } catch (const Http406* exception) {
    send_not_acceptable(exception->what());
  }
  close_connection();
}

void Request::parse_resource() {
  log_out("Request::parse_resource");
  const std::string line = readline(fd_.get());
  log_out("Request::parse_resource -- readline: ", line);
  std::optional<RequestLine> parsed = parse_request_line(line);
  if (!parsed) reject("Invalid Request");
  line_ = std::move(*parsed);
}

void Request::dispatch() {
  const std::string& path = line_.path;
  if (path == "/stream" || path == "/stream.ts") {
    serve_stream();
  } else if (path == "/update-cache-map") {
    answer_update(fd_.get(), line_.get_param("chunk"), line_.get_param("playlist"));
  } else if (path == "/stats.json") {
    serve_stats();
  } else if (path == "/watchdog") {
    serve_watchdog();
  } else {
    log_err("not found");
    send_not_found(path);
  }
}

void Request::serve_stream() {
  if (line_.method == Method::kHead) return send_head("Will try to stream...", kStreamType);
  const std::string* const from = line_.get_param("startFrom");
  const auto start_from = static_cast<std::int32_t>(from == nullptr ? 0 : leading_number(*from));
  const std::string* const url = line_.get_param("url");
  if (url == nullptr) reject("Missing url parameter");
  StreamHandler(*url, fd_.get(), max_buffer_, stats_, start_from).run();
}

void Request::serve_stats() {
  if (line_.method == Method::kHead) return send_head("OK", kJsonType);
  StatsHandler(fd_.get(), stats_).run();
}

void Request::serve_watchdog() {
  if (line_.method != Method::kHead) watchdog_.ping();
  send_head("OK", kJsonType);
}

void Request::send_head(const char* message, const char* content_type) {
  ResponseHead(fd_.get(), 200, message, content_type).send();
}

void Request::send_not_found(const std::string& path) {
  ResponseHead(fd_.get(), 404, path + " Not Found", kTextType).send();
}

void Request::send_not_acceptable(const std::string& message) {
  ResponseHead(fd_.get(), 406, message, kTextType).send();
}

void Request::reject(const char* message) {
  rejection_ = std::make_unique<Http406>(message);
  throw rejection_.get();
}

// Closing with bytes left unread makes the kernel reset the connection and drop what it
// hasn't sent yet. So what has already arrived of a body is discarded, without waiting.
void Request::close_connection() {
  std::array<char, 4096> discarded;
  for (size_t left = kMaxDiscarded; left > 0; left -= discarded.size()) {
    if (recv(fd_.get(), discarded.data(), discarded.size(), MSG_DONTWAIT) <= 0) break;
  }
  fd_.reset();
}

}  // namespace weir
