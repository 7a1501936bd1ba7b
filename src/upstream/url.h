#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace weir {

// The parts of an upstream URL. Deliberate: "https" is fetched as plain HTTP, by default on
// port 80, because URLs of both schemes refer to the same caches.
struct Url {
  std::string host;
  int port = 0;
  std::string path;            // starts with "/"; includes the query
  bool explicit_port = false;  // the URL contains a port
};

// The text before "://", or all of it.
[[nodiscard]] std::string_view scheme_of(std::string_view url);

// Parses an absolute URL. Nothing if the scheme is neither "http" nor "https"; every other
// text is valid: a port without digits is 0, and the host may be empty.
[[nodiscard]] std::optional<Url> parse_url(std::string_view url);

// The decimal number at the start of the text, 0 without digits.
[[nodiscard]] int parse_port(std::string_view text);

}  // namespace weir
