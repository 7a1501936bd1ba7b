#include "support/captured_log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace weir::test {

CapturedLog::Stream::Stream(int fd_) : fd(fd_), original(dup(fd_)) {
  std::fflush(nullptr);
  char name[] = "/tmp/weir-log-XXXXXX";
  file = mkstemp(name);
  if (original < 0 || file < 0 || dup2(file, fd) < 0) std::abort();
  unlink(name);
}

CapturedLog::Stream::~Stream() {
  std::fflush(nullptr);
  dup2(original, fd);
  // A failure's own message is among what was captured.
  if (testing::Test::HasFailure()) std::fputs(text().c_str(), stdout);
  close(original);
  close(file);
}

std::string CapturedLog::Stream::text() const {
  std::fflush(nullptr);
  std::string text;
  char piece[65536];
  ssize_t count;
  while ((count = pread(file, piece, sizeof piece, static_cast<off_t>(text.size()))) > 0) {
    text.append(piece, static_cast<size_t>(count));
  }
  return text;
}

bool CapturedLog::Stream::wait_for(const std::string& wanted, int seconds) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (text().find(wanted) == std::string::npos) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

CapturedLog::CapturedLog() : out_(STDOUT_FILENO), err_(STDERR_FILENO) {}
CapturedLog::~CapturedLog() = default;

std::string CapturedLog::out() { return out_.text(); }
std::string CapturedLog::err() { return err_.text(); }

bool CapturedLog::wait_for_out(const std::string& text, int seconds) {
  return out_.wait_for(text, seconds);
}
bool CapturedLog::wait_for_err(const std::string& text, int seconds) {
  return err_.wait_for(text, seconds);
}

int count(const std::string& log, const std::string& text) {
  int found = 0;
  for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size()) ++found;
  return found;
}

}  // namespace weir::test
