// How a request is read and its first line taken apart (RFC 9112, section 3).
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

// What a request line asks for.
struct RequestLine {
  Method method = Method::kOther;
  std::string path;  // decoded, without the query

  // In order, duplicates kept; keys as sent, values decoded.
  std::vector<std::pair<std::string, std::string>> params;

  // The first value of that key, or null.
  [[nodiscard]] const std::string* get_param(std::string_view key) const;
};

// Takes a line apart; nothing when it has fewer than two words.
[[nodiscard]] std::optional<RequestLine> parse_request_line(std::string_view line);

// The next line from a client, without its end. A line ends after 4095 bytes, and what
// follows is the next one. Deliberate: a read that fails or times out counts as a byte,
// so that a slow client isn't cut off by one time-out.
[[nodiscard]] std::string readline(int fd);

// Reads lines up to an empty one.
void skip_headers(int fd);

}  // namespace weir
