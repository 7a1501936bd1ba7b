// Reads a request and parses the request line (RFC 9112, section 3).
//
// Threads: any; nothing is shared.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace weir {

enum class Method { kGet, kHead, kOther };

// A parsed request line.
struct RequestLine {
  Method method = Method::kOther;
  std::string path;  // decoded, without the query

  // Keys as sent, values decoded; in order, with duplicates.
  std::vector<std::pair<std::string, std::string>> params;

  // The first value with the key, or null.
  [[nodiscard]] const std::string* get_param(std::string_view key) const;
};

// Nothing if the line has fewer than two words.
[[nodiscard]] std::optional<RequestLine> parse_request_line(std::string_view line);

// The next line from a client, without its line end. A line is cut after 4095 bytes; the rest
// becomes the next line. Deliberate: a read that fails or times out counts as a byte, so that one
// time-out does not cut off a slow client.
[[nodiscard]] std::string readline(int fd);

// Reads and ignores header lines up to an empty line.
void skip_headers(int fd);

}  // namespace weir
