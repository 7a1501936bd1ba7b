#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "upstream/outcome.h"

namespace weir {

class Connection;

// A response being read (RFC 9112): status line, header fields, start of the body. Bytes
// received but not yet parsed are in `rest`.
//
// Threads: one at a time.
// Failure: a header block of more than 256 KiB counts as a failed receive.
class Response {
 public:
  // Makes one read; a status line incomplete after it counts as missing. Done if the status is
  // 2xx.
  [[nodiscard]] Outcome read_status(Connection& connection);

  // Reads up to the blank line after the header fields. False if a receive failed. Deliberate:
  // a header block with no fields is not recognised as complete and times out; real servers
  // always send some.
  [[nodiscard]] bool read_headers(Connection& connection);

  // Whether the version is HTTP/1.1; otherwise it is HTTP/1.0.
  [[nodiscard]] bool http11() const { return http11_; }

  // The value of Content-Length; nothing without that field.
  [[nodiscard]] std::optional<std::uint64_t> content_length() const;

  // The offset of the body in the resource: the first position of Content-Range (RFC 9110,
  // section 14.4), 0 without that field.
  [[nodiscard]] std::uint64_t position() const;

  std::string rest;

 private:
  [[nodiscard]] std::optional<std::string_view> find_header(std::string_view name) const;

  bool http11_ = false;
  std::string headers_;  // lines between the status line and the blank line
};

}  // namespace weir
