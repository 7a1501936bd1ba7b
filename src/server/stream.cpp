// "/stream": sends the header block at once, starts the playlist engine, and writes the bytes
// in the buffer to the player.
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <span>

#include "base/clock.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/process.h"
#include "base/text.h"
#include "base/wait.h"
#include "buffer/cbuff.h"
#include "playlist/master_playlist.h"
#include "server/endpoints.h"
#include "server/request_line.h"
#include "server/response_head.h"
#include "server/service.h"

namespace weir {

namespace {

// Whole seconds of the monotonic clock.
time_t seconds_now() { return monotonic_now().tv_sec; }

void pump(int fd, CBuff& buffer, const MasterPlaylist& playlist, StreamStats& stats,
          time_t started) {
  time_t last_sent = started;
  for (;;) {
    // Check the flag first: once it is set, the fill count can only decrease.
    if (playlist.should_finish() && buffer.fill() == 0) return;
    const std::span<const unsigned char> readable = buffer.peek();
    stats.set_buffered(buffer.fill());
    if (!readable.empty()) {
      // Deliberate: consumes everything offered. After a short write (the player did not keep
      // up for 10 s) the rest is lost, so that a live stream is not delayed.
      const std::span<const unsigned char> offered =
          readable.first(std::min(readable.size(), limits::kMaxWrite));
      if (write(fd, offered.data(), offered.size()) < 0) return;
      last_sent = seconds_now();
      buffer.consume(offered.size());
    } else if (seconds_now() - last_sent > limits::kNoDataLimit.count()) {
      log_err("no data for long time, closing stream");
      return;
    } else {
      sleep_for(limits::kIdlePoll);
    }
  }
}

// Runs one stream. Ends its threads and frees its memory before it returns.
void stream(int fd, const std::string& url, std::int32_t start_from, Streams& streams) {
  const time_t started = seconds_now();
  send_head(fd, 200, "Streaming...", kStreamType);
  CBuff buffer;
  MasterPlaylist playlist(url, buffer, streams, start_from);
  if (playlist.start_refreshing()) {
    pump(fd, buffer, playlist, streams.stats, started);
  } else {
    log_err("start_refreshing failed!");
  }
  log_err("mpl finish and cleanup!");
  playlist.finish();
  buffer.clear();
}

}  // namespace

void answer_stream(int fd, const RequestLine& request, Service& service) {
  if (request.method == Method::kHead) {
    return send_head(fd, 200, "Will try to stream...", kStreamType);
  }
  const std::string* const from = request.get_param("startFrom");
  const auto start_from = static_cast<std::int32_t>(from == nullptr ? 0 : leading_number(*from));
  const std::string* const url = request.get_param("url");
  if (url == nullptr) return send_head(fd, 406, "Missing url parameter", kTextType);
  stream(fd, *url, start_from, service.streams);
  release_free_memory();
}

}  // namespace weir
