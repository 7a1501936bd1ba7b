#include "base/log.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "base/limits.h"
#include "base/mutex.h"
#include "base/wait.h"

namespace weir {

namespace {

// Each stream has its own lock, so that a stalled reader of one stream blocks only the threads
// that write to that stream.
struct Stream {
  const int fd;
  Mutex mutex;
  std::string waiting WEIR_GUARDED_BY(mutex);
};

// Never destroyed: detached threads log until the process ends.
Stream& out() {
  static Stream& stream = *new Stream{STDOUT_FILENO, {}, {}};
  return stream;
}

Stream& err() {
  static Stream& stream = *new Stream{STDERR_FILENO, {}, {}};
  return stream;
}

void write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

// Whether the text can be written without blocking. A writable pipe accepts PIPE_BUF bytes,
// provided that no other thread writes to it first.
bool takes_at_once(int fd, std::string_view text) {
  pollfd entry{fd, POLLOUT, 0};
  return text.size() <= PIPE_BUF && poll(&entry, 1, 0) == 1;
}

void write_waiting(Stream& stream) WEIR_REQUIRES(stream.mutex) {
  write_all(stream.fd, stream.waiting);
  stream.waiting.clear();
}

// Keeps lines in order if both streams share a file or pipe. Never blocks, even if the
// reader of the standard output has stalled.
void flush_out_at_once() {
  Stream& stream = out();
  if (!stream.mutex.try_lock()) return;
  if (!stream.waiting.empty() && takes_at_once(stream.fd, stream.waiting)) write_waiting(stream);
  stream.mutex.unlock();
}

bool share_a_file(int one, int other) {
  struct stat a {};
  struct stat b {};
  return fstat(one, &a) == 0 && fstat(other, &b) == 0 && a.st_dev == b.st_dev &&
         a.st_ino == b.st_ino;
}

bool try_write(Stream& stream, std::string_view line) {
  if (!stream.mutex.try_lock()) return false;
  const bool accepted = takes_at_once(stream.fd, line);
  if (accepted) write_all(stream.fd, line);
  stream.mutex.unlock();
  return accepted;
}

// If both streams share a pipe, hold both locks so that no other thread fills it between
// poll() and write().
bool try_write_err(std::string_view line) {
  if (!share_a_file(out().fd, err().fd)) return try_write(err(), line);
  if (!out().mutex.try_lock()) return false;
  const bool accepted = try_write(err(), line);
  out().mutex.unlock();
  return accepted;
}

}  // namespace

namespace log_detail {

void write_out(std::string_view line) {
  Stream& stream = out();
  const MutexLock lock(stream.mutex);
  if (stream.waiting.empty()) return write_all(stream.fd, line);
  stream.waiting += line;
  write_waiting(stream);
}

void write_err(std::string_view line) {
  flush_out_at_once();
  const MutexLock lock(err().mutex);
  write_all(err().fd, line);
}

void write_err_at_once(std::string_view line) {
  for (auto left = limits::kLastLine; !try_write_err(line) && left > left.zero();
       left -= limits::kLastLineStep) {
    sleep_for(limits::kLastLineStep);
  }
}

}  // namespace log_detail

void log_out_unflushed(std::string_view text) {
  const MutexLock lock(out().mutex);
  out().waiting += text;
}

}  // namespace weir
