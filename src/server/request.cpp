// The thread of a connection, and what is served on which path.
#include "server/request.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "base/log.h"
#include "base/response_head.h"
#include "base/text.h"
#include "base/worker_thread.h"
#include "cachemap/update_handler.h"
#include "server/http406.h"
#include "server/stats_handler.h"
#include "server/stream_handler.h"
#include "watchdog/watchdog.h"

namespace weir {

namespace {
constexpr std::int32_t kHead = 1;
constexpr size_t kMaxDiscarded = 64 * 1024;  // bytes of a request's body
constexpr const char* kStreamType = "application/octet-stream";
constexpr const char* kJsonType = "application/json";
constexpr const char* kTextType = "plain/text";  // sent exactly so; that is meant
}  // namespace

Request::Request(int fd_, std::int64_t maxBufferSize_, StreamStats* stats_, Watchdog* watchdog_)
    : fd(fd_), maxBufferSize(maxBufferSize_), stats(stats_), watchdog(watchdog_) {}

Request::~Request() = default;

void Request::process(std::unique_ptr<Request> request) {
  log_out("Request::process");
  // The new thread may end, and free the request, before pthread_create returns.
  pthread_t handle;
  Request* const handed_over = request.release();
  if (pthread_create(&handle, nullptr, thread_entry, handed_over) != 0) {
    request.reset(handed_over);
    close(request->fd);
  }
  log_out("Request::process end");
}

void* Request::thread_entry(void* self) {
  std::unique_ptr<Request> request(static_cast<Request*>(self));
  log_out("do_request_start");
  lower_priority();
  request->thread = pthread_self();
  (void)pthread_detach(request->thread);
  log_out("pthread_detach");
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
    skip_headers();
    log_out("Request::start 3 << ", path);
    dispatch();
  } catch (const Http406* exception) {
    send_not_acceptable(exception->what());
  }
  close_connection();
}

// Where bytes are left unread the kernel resets the connection and drops what it
// hasn't sent yet. A body is thrown away as far as it is there, without a look at it.
void Request::close_connection() {
  std::array<char, 4096> discarded;
  for (size_t left = kMaxDiscarded; left > 0; left -= discarded.size()) {
    if (recv(fd, discarded.data(), discarded.size(), MSG_DONTWAIT) <= 0) break;
  }
  close(fd);
}

void Request::dispatch() {
  if (path == "/stream" || path == "/stream.ts") {
    serve_stream();
  } else if (path == "/update-cache-map") {
    const std::string* const chunk = get_param("chunk");
    UpdateHandler(fd, chunk, get_param("playlist")).run();
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
  if (method == kHead) return send_head("Will try to stream...", kStreamType);
  const std::string* const from = get_param("startFrom");
  const auto startFrom = static_cast<std::int32_t>(from == nullptr ? 0 : leading_number(*from));
  const std::string* const url = get_param("url");
  if (url == nullptr) reject("Missing url parameter");
  StreamHandler(*url, fd, maxBufferSize, stats, startFrom).run();
}

void Request::serve_stats() {
  if (method == kHead) return send_head("OK", kJsonType);
  StatsHandler(fd, stats).run();
}

void Request::serve_watchdog() {
  if (method != kHead) watchdog->ping();
  send_head("OK", kJsonType);
}

void Request::send_head(const char* message, const char* contentType) {
  ResponseHead(fd, 200, message, contentType).send();
}

void Request::send_not_found(const std::string& unknown) {
  ResponseHead(fd, 404, unknown + " Not Found", kTextType).send();
}

void Request::send_not_acceptable(const std::string& message) {
  ResponseHead(fd, 406, message, kTextType).send();
}

void Request::reject(const char* message) {
  rejection = std::make_unique<Http406>(message);
  throw rejection.get();
}

}  // namespace weir
