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

void StatsHandler::run() const {
  ignore_sigpipe();
  ResponseHead(fd_, 200, "OK", "application/json").send();
  std::string body = "{";
  append_entry(body, "last_chunk_speed", stats_.last_chunk_speed);
  append_entry(body += ",", "avg_speed", stats_.avg_speed);
  append_entry(body += ",", "cbuff_size", stats_.cbuff_size);
  append_entry(body += ",", "selected_profile", stats_.selected_profile);
  body += "}\n";
  (void)!write(fd_, body.data(), body.size());
}

}  // namespace weir
