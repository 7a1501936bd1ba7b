// What a UCurl throws inside itself. Both are thrown as pointers to heap objects
// and belong to whoever catches them; neither leaves a UCurl's get operations.
// They have no common base to be caught by, and that is meant: a handler for the
// one must not catch the other.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace weir {

// The URL can't be used, or no cache server is left for it.
class UCurlException : private std::exception {
 public:
  explicit UCurlException(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }
  ~UCurlException() override = default;

 private:
  std::string message;
};

// The server fell silent or the connection broke while it was read from.
class UCurlExceptionRecvError : private std::exception {
 public:
  explicit UCurlExceptionRecvError(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }
  ~UCurlExceptionRecvError() override = default;

 private:
  std::string message;
};

}  // namespace weir
