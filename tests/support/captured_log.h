#pragma once

#include <functional>
#include <string>

namespace weir::test {

// One stream, taken at its descriptor for as long as this lives.
class CapturedStream {
 public:
  explicit CapturedStream(int fd);
  ~CapturedStream();

  // What was written so far, and goes on being captured.
  std::string operator()() const;
  // Waits for a text to appear.
  bool shows(const std::string& text) const;

 private:
  const int fd_;
  const int original_;
  const int file_;
};

// Both streams of the log.
struct CapturedLog {
  CapturedStream out{1};
  CapturedStream err{2};
};

// The standard error stream is a pipe that is full and that nobody reads.
class FullErrorStream {
 public:
  FullErrorStream();
  ~FullErrorStream();

 private:
  int unread_;
  const int original_;
};

// How often `text` stands in `log`.
int count(const std::string& log, const std::string& text);

// Waits up to 20 seconds for something to become true.
bool eventually(const std::function<bool()>& condition);

}  // namespace weir::test
