#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace weir {

// What an upstream URL names. Deliberate: "https" is fetched as plain HTTP, on port 80
// unless the URL names another, because URLs of both schemes name the same caches.
struct Url {
  std::string host;
  int port = 0;
  std::string path;            // begins with "/"; the query is a part of it
  bool explicit_port = false;  // the host was given with a port
};

// The text before "://", or all of it.
[[nodiscard]] std::string_view scheme_of(std::string_view url);

// Takes an absolute URL apart. Nothing where the scheme is neither "http" nor "https".
// Everything else means something: a port without digits is 0, a host may be empty.
[[nodiscard]] std::optional<Url> parse_url(std::string_view url);

// The decimal number at the start of a port's text, 0 without digits.
[[nodiscard]] int parse_port(std::string_view text);

}  // namespace weir
