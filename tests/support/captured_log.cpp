#include "support/captured_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

// The sanitizers' own, where there are any.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void* fd);

namespace weir::test {

// A test that dies says why where it can be seen.
static int error_stream = -1;
static void die_aloud(int original) {
  error_stream = original;
  if (__sanitizer_set_report_fd != nullptr) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): so they want it
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(original)));
  }
  static const std::terminate_handler handler = std::set_terminate([] {
    dup2(error_stream, STDERR_FILENO);
    handler();
  });
}

CapturedStream::CapturedStream(int fd)
    : fd_(fd), original_(dup(fd)), file_(open("/tmp", O_TMPFILE | O_RDWR, 0600)) {
  std::fflush(nullptr);
  if (original_ < 0 || file_ < 0 || dup2(file_, fd_) < 0) std::abort();
  if (fd == STDERR_FILENO) die_aloud(original_);
}

CapturedStream::~CapturedStream() {
  std::fflush(nullptr);
  dup2(original_, fd_);
  if (fd_ == STDERR_FILENO) die_aloud(fd_);
  // A failure's own message is among what was captured.
  if (testing::Test::HasFailure()) std::fputs((*this)().c_str(), stdout);
  close(original_);
  close(file_);
}

std::string CapturedStream::operator()() const {
  std::fflush(nullptr);
  std::string text;
  char piece[65536];
  ssize_t count;
  while ((count = pread(file_, piece, sizeof piece, static_cast<off_t>(text.size()))) > 0) {
    text.append(piece, static_cast<size_t>(count));
  }
  return text;
}

bool CapturedStream::shows(const std::string& text) const {
  return eventually([&] { return count((*this)(), text) > 0; });
}

FullErrorStream::FullErrorStream() : original_(dup(STDERR_FILENO)) {
  int ends[2];
  if (original_ < 0 || pipe2(ends, O_NONBLOCK) < 0) std::abort();
  const std::string filling(4096, '.');
  while (write(ends[1], filling.data(), filling.size()) > 0) {
  }
  fcntl(ends[1], F_SETFL, 0);
  std::signal(SIGPIPE, SIG_IGN);
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
  unread_ = ends[0];
}

// Whoever still writes gets an error instead of waiting.
FullErrorStream::~FullErrorStream() {
  close(unread_);
  dup2(original_, STDERR_FILENO);
  close(original_);
}

int count(const std::string& log, const std::string& text) {
  int found = 0;
  for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size()) ++found;
  return found;
}

bool eventually(const std::function<bool()>& condition) {
  for (int turn = 0; turn < 2000; ++turn) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

}  // namespace weir::test
