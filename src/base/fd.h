#pragma once

#include <unistd.h>

#include <utility>

namespace weir {

// Owns at most one file descriptor, and closes it.
//
// Threads: one at a time.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, kNone)) {}
  Fd& operator=(Fd&& other) noexcept {
    reset(std::exchange(other.fd_, kNone));
    return *this;
  }
  ~Fd() { reset(); }

  [[nodiscard]] bool is_open() const { return fd_ >= 0; }

  // Negative if there is none.
  [[nodiscard]] int get() const { return fd_; }

  // Closes the descriptor, if there is one, and takes over another.
  void reset(int fd = kNone) {
    if (is_open()) (void)close(fd_);
    fd_ = fd;
  }

 private:
  static constexpr int kNone = -1;

  int fd_ = kNone;
};

}  // namespace weir
