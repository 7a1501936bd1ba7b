#pragma once

#include <string>

namespace weir::test {

// Takes both streams of the log at their descriptors while it lives. One at a time.
class CapturedLog {
 public:
  CapturedLog();
  ~CapturedLog();

  // What was written so far, and goes on being captured.
  std::string out();
  std::string err();

  // Waits up to `seconds` for a text to appear on the stream.
  bool wait_for_out(const std::string& text, int seconds = 20);
  bool wait_for_err(const std::string& text, int seconds = 20);

 private:
  struct Stream {
    explicit Stream(int fd_);
    ~Stream();
    std::string text() const;
    bool wait_for(const std::string& wanted, int seconds) const;
    int fd;
    int original;
    int file;
  };
  Stream out_;
  Stream err_;
};

// How often `text` stands in `log`.
int count(const std::string& log, const std::string& text);

}  // namespace weir::test
