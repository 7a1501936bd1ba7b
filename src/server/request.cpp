// The thread of a connection, and the table of endpoints.
#include "server/request.h"

#include <sys/socket.h>

#include <array>
#include <optional>
#include <utility>

#include "base/limits.h"
#include "base/log.h"
#include "base/thread.h"
#include "server/endpoints.h"
#include "server/http406.h"
#include "server/response_head.h"

namespace weir {

namespace {

struct Route {
  std::string_view path;
  void (*answer)(int fd, const RequestLine& request, Service& service);
};

constexpr Route kRoutes[] = {
    {"/stream", answer_stream},           {"/stream.ts", answer_stream},
    {"/update-cache-map", answer_update}, {"/stats.json", answer_stats},
    {"/watchdog", answer_watchdog},
};

}  // namespace

Request::Request(Fd fd, Service& service) : fd_(std::move(fd)), service_(service) {}

Request::~Request() = default;

void Request::process(std::unique_ptr<Request> request) {
  log_out("Request::process");
  // The new thread may end, and free the request, before start_detached() returns.
  Request* const handed_over = request.release();
  if (!start_detached(thread_entry, handed_over)) request.reset(handed_over);
  log_out("Request::process end");
}

void* Request::thread_entry(void* self) {
  const std::unique_ptr<Request> request(static_cast<Request*>(self));
  log_out("do_request_start");
  lower_priority();
  log_out("pthread_detach");  // done in start_detached(); readers of the log expect the line
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
  for (const Route& route : kRoutes) {
    if (line_.path == route.path) return route.answer(fd_.get(), line_, service_);
  }
  log_err("not found");
  send_not_found(line_.path);
}

void Request::send_not_found(const std::string& path) {
  send_head(fd_.get(), 404, path + " Not Found", kTextType);
}

void Request::send_not_acceptable(const std::string& message) {
  send_head(fd_.get(), 406, message, kTextType);
}

void Request::reject(const char* message) {
  rejection_ = std::make_unique<Http406>(message);
  throw rejection_.get();
}

// Closing a socket with unread input makes the kernel reset the connection and drop unsent
// output. So the part of a body that has already arrived is discarded, without waiting.
void Request::close_connection() {
  std::array<char, 4096> discarded;
  for (size_t left = limits::kMaxDiscarded; left > 0; left -= discarded.size()) {
    if (recv(fd_.get(), discarded.data(), discarded.size(), MSG_DONTWAIT) <= 0) break;
  }
  fd_.reset();
}

}  // namespace weir
