// How a URL is taken apart, and how a placeholder host becomes a cache server.
#include "base/log.h"
#include "base/text.h"
#include "cachemap/cache_map.h"
#include "upstream/ucurl.h"
#include "upstream/ucurl_exception.h"

namespace weir {

namespace {

constexpr int kDefaultPort = 80;  // for "https" too

int parse_port(const std::string& text) { return static_cast<int>(leading_number(text)); }

}  // namespace

void UCurl::parse_url(const std::string& url) {
  log_out("parse URL: ", url);
  const size_t scheme_end = url.find("://");
  const std::string scheme = url.substr(0, scheme_end);
  cache_kind = 0;
  if (scheme_end == std::string::npos || (scheme != "http" && scheme != "https")) {
    throw new UCurlException(scheme);
  }
  https = scheme == "https" ? 1 : 0;

  const std::string rest = url.substr(scheme_end + 3);
  const size_t slash = rest.find('/');
  const size_t colon = rest.find(':');
  const std::string target = slash == std::string::npos ? "/" : rest.substr(slash);
  if (colon != std::string::npos && colon < slash) {
    // A host with a port is real, even "@".
    host = rest.substr(0, colon);
    port = parse_port(rest.substr(colon + 1, slash - colon - 1));
  } else {
    host = rest.substr(0, slash);
    port = kDefaultPort;
    substitute_host(target);
  }
  path = target;
}

void UCurl::substitute_host(const std::string& target) {
  if (host == "@") {
    std::string server = chunkCacheMap->selectServer(target);
    if (server.empty()) throw new UCurlException("No cache server found");
    use_cache_server(std::move(server), 1);
  } else if (host == "~") {
    std::string server = playlistCacheMap->selectServer(target);
    if (server.empty()) throw new UCurlException("No playlist cache server found");
    use_cache_server(std::move(server), 2);
  }
}

void UCurl::use_cache_server(std::string server, std::uint32_t kind) {
  // Without a colon all of the text is both the host and where the port is read from.
  const size_t colon = server.find(':');
  host = server.substr(0, colon);
  port = parse_port(colon == std::string::npos ? server : server.substr(colon + 1));
  cache_kind = kind;
  cache_server = std::move(server);
}

}  // namespace weir
