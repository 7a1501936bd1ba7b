#include "upstream/url.h"

#include "base/text.h"

namespace weir {

namespace {

constexpr int kDefaultPort = 80;  // for "https" too
constexpr std::string_view kSchemeEnd = "://";

}  // namespace

int parse_port(std::string_view text) { return static_cast<int>(leading_number(text)); }

std::string_view scheme_of(std::string_view url) { return url.substr(0, url.find(kSchemeEnd)); }

std::optional<Url> parse_url(std::string_view url) {
  const std::string_view scheme = scheme_of(url);
  if (scheme.size() == url.size() || (scheme != "http" && scheme != "https")) return std::nullopt;
  const std::string_view rest = url.substr(scheme.size() + kSchemeEnd.size());
  const size_t slash = rest.find('/');
  const size_t colon = rest.find(':');
  Url parsed;
  parsed.path = slash == std::string_view::npos ? "/" : rest.substr(slash);
  parsed.explicit_port = colon != std::string_view::npos && colon < slash;
  parsed.host = rest.substr(0, parsed.explicit_port ? colon : slash);
  parsed.port =
      parsed.explicit_port ? parse_port(rest.substr(colon + 1, slash - colon - 1)) : kDefaultPort;
  return parsed;
}

}  // namespace weir
