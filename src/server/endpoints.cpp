#include "server/endpoints.h"

#include <unistd.h>

#include <string>

#include "cachemap/cache_map.h"
#include "server/request_line.h"
#include "server/response_head.h"
#include "server/service.h"

namespace weir {

namespace {

void append_entry(std::string& body, const char* name, const StreamStats::Value& value) {
  body.append("\"").append(name).append("\": ").append(std::to_string(value.get()));
}

}  // namespace

void answer_update(int fd, const RequestLine& request, Service& /*service*/) {
  const std::string* const chunk = request.get_param("chunk");
  const std::string* const playlist = request.get_param("playlist");
  if (chunk != nullptr) chunkCacheMap->setMap(*chunk);
  if (playlist != nullptr) playlistCacheMap->setMap(*playlist);
  send_head(fd, 200, "OK", kJsonType);
  constexpr std::string_view kBody = "\"OK\"\n";
  (void)!write(fd, kBody.data(), kBody.size());
}

void answer_stats(int fd, const RequestLine& request, Service& service) {
  send_head(fd, 200, "OK", kJsonType);
  if (request.method == Method::kHead) return;
  const StreamStats& stats = service.streams.stats;
  std::string body = "{";
  append_entry(body, "last_chunk_speed", stats.last_chunk_speed);
  append_entry(body += ",", "avg_speed", stats.avg_speed);
  append_entry(body += ",", "cbuff_size", stats.cbuff_size);
  append_entry(body += ",", "selected_profile", stats.selected_profile);
  body += "}\n";
  (void)!write(fd, body.data(), body.size());
}

void answer_watchdog(int fd, const RequestLine& request, Service& service) {
  if (request.method != Method::kHead) service.watchdog.ping();
  send_head(fd, 200, "OK", kJsonType);
}

}  // namespace weir
