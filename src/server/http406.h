#pragma once

#include <exception>
#include <string>
#include <utility>

namespace weir {

// The request is not acceptable; the text becomes the reason phrase of the response. Thrown as
// a pointer: the Request that throws it owns it.
class Http406 : public std::exception {
 public:
  explicit Http406(std::string text) : message_(std::move(text)) {}
  [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace weir
