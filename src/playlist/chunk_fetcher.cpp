#include "playlist/chunk_fetcher.h"

#include <algorithm>
#include <utility>

#include "base/limits.h"
#include "base/log.h"
#include "base/units.h"
#include "base/wait.h"
#include "buffer/cbuff.h"
#include "playlist/playing.h"
#include "playlist/stream_control.h"
#include "playlist/streams.h"

namespace weir {

namespace {

// Converts a measured speed, which may be infinite or NaN, to whole kbps. The cap prevents an
// overflow of the weighted sum.
std::uint64_t whole_kbps(double speed) {
  constexpr double kMaxSpeed = 0x1p53;
  return speed > 0 ? static_cast<std::uint64_t>(std::min(speed, kMaxSpeed)) : 0;
}

}  // namespace

struct ChunkFetcher::Pass {
  Playing& playing;
  std::int64_t skip = 0;  // number of leading segments that startFrom excludes
  std::int64_t index = 0;
  bool attempted = false;  // a segment was new, even if its download failed
};

ChunkFetcher::ChunkFetcher(CBuff& buffer, Streams& streams, StreamControl& control)
    : buffer_(buffer), streams_(streams), control_(control) {}

void ChunkFetcher::fill_pass(Playing& playing) {
  Pass pass{playing};
  pass.skip = begin_pass(playing);
  while (!playing.chunklist->chunks.empty() && !control_.is_over()) {
    if (!take_chunk(pass)) return;
  }
  conclude_pass(pass);
}

// Returns the number of segments to skip.
std::int64_t ChunkFetcher::begin_pass(Playing& playing) {
  const Chunklist& chunklist = *playing.chunklist;
  log_out("fill buffer for", playing.current.variant->bandwidth);
  if (chunklist.chunks.empty()) log_out("playlist chunks empty");
  if (control_.is_over()) log_out("playlist chunks - should_finish");
  refresh_in(static_cast<std::int64_t>(chunklist.target_duration * limits::kRefreshAfter));
  const std::int32_t start_from = std::exchange(playing.start_from, 0);
  playing.started = true;
  log_out("start from: ", start_from);
  log_out("searching for new chunks (last seq got ", last_seq_, ")");
  return chunklist.segments_before(start_from);
}

// Skips or downloads the segment at the front. False if the pass must end.
bool ChunkFetcher::take_chunk(Pass& pass) {
  std::deque<Chunk>& chunks = pass.playing.chunklist->chunks;
  if (pass.index < pass.skip) {
    log_out("skipping chunk from ", chunks.front().url, " as required by startFrom");
    chunks.pop_front();
    ++pass.index;
    return true;
  }
  if (buffer_.fill() >= streams_.max_buffer) {
    log_out("buffer is full - not downloading more chunks ...");
    empty_reloads_ = 0;
    return false;
  }
  const Chunk chunk = std::move(chunks.front());
  chunks.pop_front();
  if (chunk.sequence > last_seq_) {
    const Download download = fetch_chunk(chunk);
    if (!download.done()) {
      note_failure();
    } else if (!note_success(chunk, download, pass.playing.current.variant->bandwidth)) {
      return false;
    }
    if (!stays_in(pass.playing.current.band)) return false;
    pass.attempted = true;
  }
  ++pass.index;
  return true;
}

void ChunkFetcher::conclude_pass(const Pass& pass) {
  if (pass.attempted) {
    empty_reloads_ = 0;
    return;
  }
  ++empty_reloads_;
  refresh_in(pass.playing.chunklist->target_duration / limits::kRefreshIdle);
  if (empty_reloads_ < limits::kMaxEmptyReloads) return;
  log_err("no new chunks in many playlist reloads");
  control_.end_stream();
}

// Returns the first successful download, or the last failed one.
Download ChunkFetcher::fetch_chunk(const Chunk& chunk) {
  std::uint64_t position = 0;
  for (int left = limits::kDownloads;;) {
    log_out("getting chunk from ", chunk.url);
    const Download download = client_.get_stream(chunk.url, buffer_, keys_.key_for(chunk),
                                                 control_.should_finish, position);
    if (download.done()) return download;
    log_err("chunk get from ", chunk.url, " FAILED");
    if (--left == 0 || control_.is_over()) return download;
    sleep_for(limits::kDownloadPause);
    position = download.position;
    log_err("retry chunk get from ", chunk.url, " starting from byte ", position);
  }
}

void ChunkFetcher::note_failure() {
  if (++failed_chunks_ <= limits::kMaxFailedChunks) return;
  log_err("too many failed subsequent chunks. Finishing stream.");
  control_.end_stream();
}

// False after a sudden drop of the speed: the pass must end. The next selection then takes a
// lower variant, unless the buffer is 60 % full or there is none.
bool ChunkFetcher::note_success(const Chunk& chunk, const Download& download,
                                std::uint64_t bandwidth) {
  failed_chunks_ = 0;
  log_out("got chunk (seq ", chunk.sequence, ") from ", chunk.url, " with size ", download.received,
          ", speed ", download.speed_kbps, " kbps");
  last_seq_ = chunk.sequence;
  if (chunk.last) {
    log_out("last chunk - setting should_finish");
    control_.end_stream();
  }
  const std::uint64_t speed = whole_kbps(download.speed_kbps);
  streams_.stats.last_chunk_speed.set(speed);
  streams_.stats.set_buffered(buffer_.fill());
  streams_.stats.selected_profile.set(kbps(bandwidth));
  if (speed < kbps(bandwidth) / 2) {
    log_err("sudden speed drop! falling down immediately!");
    streams_.stats.fall_to_speed(speed);
    refresh_at_once();
    return false;
  }
  streams_.stats.add_speed(speed);
  return true;
}

bool ChunkFetcher::stays_in(const Band& band) {
  const std::uint64_t average = streams_.stats.avg_speed.get();
  if (band.contains(average)) return true;
  log_out("avg_speed out of boundaries! (", average, " ", band.low_kbps(), " ", band.high_kbps(),
          ")");
  refresh_at_once();
  return false;
}

// Seconds beyond 32 signed bits wrap around; a negative result means at once.
void ChunkFetcher::refresh_in(std::int64_t seconds) {
  control_.refresh_countdown.store(static_cast<std::int32_t>(seconds), std::memory_order_relaxed);
}

void ChunkFetcher::refresh_at_once() {
  refresh_in(0);
  empty_reloads_ = 0;
}

}  // namespace weir
