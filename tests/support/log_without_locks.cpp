// Linked before src/base/log.cpp: the same lines, without locks and without buffering. The
// locks of the real log order the threads, which hides data races from ThreadSanitizer.
#include <unistd.h>

#include <cerrno>

#include "base/log.h"

namespace weir {

namespace {

void write_line(int fd, std::string_view line) {
  while (write(fd, line.data(), line.size()) < 0 && errno == EINTR) {
  }
}

}  // namespace

namespace log_detail {

void write_out(std::string_view line) { write_line(STDOUT_FILENO, line); }
void write_err(std::string_view line) { write_line(STDERR_FILENO, line); }
void write_err_at_once(std::string_view line) { write_line(STDERR_FILENO, line); }

}  // namespace log_detail

void log_out_unflushed(std::string_view text) { write_line(STDOUT_FILENO, text); }

}  // namespace weir
