#pragma once

#include <exception>
#include <string>
#include <utility>

namespace weir {

// Reports an unacceptable request; the text becomes the reason phrase of the response. Thrown
// as a pointer that the throwing Request owns.
class Http406 : public std::exception {
 public:
  explicit Http406(std::string text) : message_(std::move(text)) {}
  [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace weir
