#include "server/stream_handler.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "base/log.h"
#include "base/process.h"
#include "base/response_head.h"
#include "base/wait.h"
#include "buffer/cbuff.h"
#include "playlist/master_playlist.h"
#include "playlist/stream_stats.h"

namespace weir {

namespace {

constexpr std::uint64_t kMaxWrite = 131071;  // bytes; a turn is short, the figures fresh
constexpr std::chrono::milliseconds kIdlePoll{50};
constexpr double kNoDataLimit = 15.0;  // seconds

// Whole seconds of the monotonic clock.
time_t seconds_now() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

}  // namespace

StreamHandler::StreamHandler(const std::string& url_, int fd_, std::int64_t maxBufferSize_,
                             StreamStats* stats_, std::int32_t startFrom_)
    : url(url_), fd(fd_), maxBufferSize(maxBufferSize_), stats(stats_), startFrom(startFrom_) {}

void StreamHandler::run() {
  stream();
  release_free_memory();
}

// All that the stream needs is freed when this returns.
void StreamHandler::stream() {
  ignore_sigpipe();
  const time_t started = seconds_now();
  ResponseHead(fd, 200, "Streaming...", "application/octet-stream").send();
  CBuff buffer;
  MasterPlaylist playlist(url, &buffer, static_cast<std::uint64_t>(maxBufferSize), stats,
                          startFrom);
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
  time_t lastSent = started;
  for (;;) {
    // In this order: after the flag is seen the fill count is final.
    if (playlist.should_finish() && buffer.fill() == 0) return;
    unsigned char* bytes = nullptr;
    const std::uint64_t readable = buffer.peek(&bytes);
    stats->cbuff_size.set(buffer.fill() >> 10);
    if (readable > 0) {
      // All that was offered is consumed: a short write loses its rest. That is meant.
      const std::uint64_t count = std::min(readable, kMaxWrite);
      if (write(fd, bytes, static_cast<std::size_t>(count)) < 0) return;
      lastSent = seconds_now();
      buffer.consume(count);
    } else if (static_cast<double>(seconds_now() - lastSent) > kNoDataLimit) {
      log_err("no data for long time, closing stream");
      return;
    } else {
      sleep_for(kIdlePoll);
    }
  }
}

}  // namespace weir
