#include "server/stream_handler.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <span>

#include "base/clock.h"
#include "base/log.h"
#include "base/process.h"
#include "base/response_head.h"
#include "base/wait.h"
#include "buffer/cbuff.h"
#include "playlist/master_playlist.h"
#include "playlist/stream_stats.h"

namespace weir {

namespace {

constexpr size_t kMaxWrite = 131071;  // bytes; a turn is short, the figures fresh
constexpr std::chrono::milliseconds kIdlePoll{50};
constexpr double kNoDataLimit = 15.0;  // seconds

// Whole seconds of the monotonic clock.
time_t seconds_now() { return monotonic_now().tv_sec; }

}  // namespace

StreamHandler::StreamHandler(const std::string& url, int fd, std::uint64_t max_buffer,
                             StreamStats& stats, std::int32_t start_from)
    : url_(url), fd_(fd), max_buffer_(max_buffer), stats_(stats), start_from_(start_from) {}

void StreamHandler::run() {
  stream();
  release_free_memory();
}

// All that the stream needs is freed when this returns.
void StreamHandler::stream() {
  ignore_sigpipe();
  const time_t started = seconds_now();
  ResponseHead(fd_, 200, "Streaming...", "application/octet-stream").send();
  CBuff buffer;
  MasterPlaylist playlist(url_, buffer, max_buffer_, stats_, start_from_);
  if (playlist.start_refreshing()) {
    pump(buffer, playlist, started);
  } else {
    log_err("start_refreshing failed!");
  }
  log_err("mpl finish and cleanup!");
  playlist.finish();
  buffer.clear();
}

void StreamHandler::pump(CBuff& buffer, const MasterPlaylist& playlist, time_t started) {
  time_t last_sent = started;
  for (;;) {
    // In this order: after the flag is seen the fill count is final.
    if (playlist.should_finish() && buffer.fill() == 0) return;
    const std::span<const unsigned char> readable = buffer.peek();
    stats_.cbuff_size.set(buffer.fill() >> 10);
    if (!readable.empty()) {
      // Deliberate: all that was offered is consumed, so that a short write, after 10 s
      // of a player that doesn't read, loses its rest instead of delaying what is live.
      const std::span<const unsigned char> offered =
          readable.first(std::min(readable.size(), kMaxWrite));
      if (write(fd_, offered.data(), offered.size()) < 0) return;
      last_sent = seconds_now();
      buffer.consume(offered.size());
    } else if (static_cast<double>(seconds_now() - last_sent) > kNoDataLimit) {
      log_err("no data for long time, closing stream");
      return;
    } else {
      sleep_for(kIdlePoll);
    }
  }
}

}  // namespace weir
