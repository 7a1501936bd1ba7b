#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "upstream/outcome.h"

namespace weir {

class Connection;

// A response as it is read: status line, header fields, then what follows them
// (RFC 9112). Bytes received and not yet used stay in `rest`.
//
// Threads: one at a time.
// Failure: a head longer than 256 KiB fails like a receive that failed.
class Response {
 public:
  // Makes one read; a status line that is incomplete then counts as none. Done if the status
  // is 2xx.
  [[nodiscard]] Outcome read_status(Connection& connection);

  // Reads to the blank line after the header fields. Deliberate: a head without any
  // field has none for this reader and times out, as servers for weir all send some.
  // False when a receive failed.
  [[nodiscard]] bool read_headers(Connection& connection);

  // Of the status line: HTTP/1.1, or else HTTP/1.0.
  [[nodiscard]] bool http11() const { return http11_; }

  // The value of Content-Length; nothing when there is no such field.
  [[nodiscard]] std::optional<std::uint64_t> content_length() const;

  // The offset of the body in the resource: the first position of Content-Range (RFC 9110,
  // section 14.4), 0 without that field.
  [[nodiscard]] std::uint64_t position() const;

  std::string rest;

 private:
  [[nodiscard]] std::optional<std::string_view> find_header(std::string_view name) const;

  bool http11_ = false;
  std::string headers_;  // the lines between status line and blank line
};

}  // namespace weir
