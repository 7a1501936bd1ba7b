#include "base/wait.h"

#include <poll.h>

#include <ctime>

namespace weir {

namespace {

bool wait_for(int fd, short event, std::chrono::seconds timeout) {
  pollfd entry{fd, event, 0};
  const std::chrono::milliseconds time = timeout;
  return poll(&entry, 1, static_cast<int>(time.count())) == 1 && (entry.revents & POLLNVAL) == 0;
}

}  // namespace

bool wait_readable(int fd, std::chrono::seconds timeout) { return wait_for(fd, POLLIN, timeout); }

bool wait_writable(int fd, std::chrono::seconds timeout) { return wait_for(fd, POLLOUT, timeout); }

void sleep_for(std::chrono::milliseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  const std::chrono::nanoseconds rest = time - seconds;
  const timespec duration{static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
  (void)nanosleep(&duration, nullptr);
}

}  // namespace weir
