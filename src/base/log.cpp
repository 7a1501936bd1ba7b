#include "base/log.h"

#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace weir {

namespace {

// Both outlive every thread: the mutex has no destructor to run and the text
// is never destroyed, since detached threads log until the process is gone.
std::mutex mutex;

std::string& waiting() {
  static std::string& text = *new std::string;
  return text;
}

void write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

void flush_waiting() {
  if (waiting().empty()) return;
  write_all(STDOUT_FILENO, waiting());
  waiting().clear();
}

}  // namespace

namespace log_detail {

void write_out(std::string_view line) {
  const std::lock_guard lock(mutex);
  if (waiting().empty()) return write_all(STDOUT_FILENO, line);
  waiting() += line;
  flush_waiting();
}

void write_err(std::string_view line) {
  const std::lock_guard lock(mutex);
  flush_waiting();
  write_all(STDERR_FILENO, line);
}

}  // namespace log_detail

void log_out_unflushed(std::string_view text) {
  const std::lock_guard lock(mutex);
  waiting() += text;
}

void log_flush() {
  const std::lock_guard lock(mutex);
  flush_waiting();
}

}  // namespace weir
