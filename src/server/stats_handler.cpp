#include "server/stats_handler.h"

#include <unistd.h>

#include <string>

#include "base/process.h"
#include "base/response_head.h"
#include "playlist/stream_stats.h"

namespace weir {

namespace {

void append_entry(std::string& body, const char* name, const StreamStats::Value& value) {
  body.append("\"").append(name).append("\": ").append(std::to_string(value.get()));
}

}  // namespace

StatsHandler::StatsHandler(int fd_, const StreamStats* stats_) : fd(fd_), stats(stats_) {}

void StatsHandler::run() const {
  ignore_sigpipe();
  ResponseHead(fd, 200, "OK", "application/json").send();
  std::string body = "{";
  append_entry(body, "last_chunk_speed", stats->last_chunk_speed);
  append_entry(body += ",", "avg_speed", stats->avg_speed);
  append_entry(body += ",", "cbuff_size", stats->cbuff_size);
  append_entry(body += ",", "selected_profile", stats->selected_profile);
  body += "}\n";
  (void)!write(fd, body.data(), body.size());
}

}  // namespace weir
