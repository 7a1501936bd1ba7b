// One fill pass: the new segments of the variant, one after another.
#include <algorithm>
#include <chrono>

#include "base/log.h"
#include "base/wait.h"
#include "buffer/cbuff.h"
#include "playlist/master_playlist.h"
#include "playlist/stream_stats.h"
#include "upstream/ucurl.h"

namespace weir {

namespace {

constexpr int kAttempts = 4;                    // to download one segment
constexpr std::chrono::seconds kRetryPause{1};  // between them
constexpr std::uint32_t kMaxFailedChunks = 3;   // in a row; one more ends the stream
constexpr std::uint32_t kMaxEmptyReloads = 6;   // in a row
constexpr double kRefreshAfter = 0.65;          // of the target duration

// A speed as the statistics hold it, kbps. The measured one may be infinite or
// no number at all; the cap keeps the weighted sum from overflowing.
std::uint64_t whole_kbps(double speed) {
  constexpr double kMaxSpeed = 0x1p53;
  return speed > 0 ? static_cast<std::uint64_t>(std::min(speed, kMaxSpeed)) : 0;
}

// Seconds until the next refresh. A target duration beyond 32 bits of signed
// seconds wraps to the past: refresh at once.
std::int32_t countdown_after_start(std::uint32_t target_duration) {
  return static_cast<std::int32_t>(static_cast<std::int64_t>(target_duration * kRefreshAfter));
}

}  // namespace

struct MasterPlaylist::Pass {
  std::int64_t skip = 0;
  std::int64_t index = 0;
  bool attempted = false;  // a segment was new, whether it could be had or not
};

void MasterPlaylist::fill_pass() {
  Pass pass;
  pass.skip = begin_pass();
  while (!chunklist->chunks.empty() && !should_finish()) {
    if (!take_chunk(pass)) return;
  }
  conclude_pass(pass.attempted);
}

// Returns how many segments to skip.
std::int64_t MasterPlaylist::begin_pass() {
  log_out("fill buffer for", current_variant->bandwidth);
  const auto queued = static_cast<std::int64_t>(chunklist->chunks.size());
  if (queued == 0) log_out("playlist chunks empty");
  if (should_finish()) log_out("playlist chunks - should_finish");
  refresh_countdown.store(countdown_after_start(chunklist->target_duration),
                          std::memory_order_relaxed);
  log_out("start from: ", start_from);
  const std::int64_t skip = start_from < 0 ? start_from + queued : start_from;
  start_from = 0;
  log_out("searching for new chunks (last seq got ", last_seq, ")");
  return skip;
}

// Deals with the segment at the front. False when the pass is to end.
bool MasterPlaylist::take_chunk(Pass& pass) {
  std::deque<Chunk>& chunks = chunklist->chunks;
  if (pass.index < pass.skip) {
    log_out("skipping chunk from ", chunks.front().url, " as required by startFrom");
    chunks.pop_front();
    ++pass.index;
    return true;
  }
  if (buffer->fill() >= max_buffer) {
    log_out("buffer is full - not downloading more chunks ...");
    empty_reloads = 0;
    return false;
  }
  const Chunk chunk = std::move(chunks.front());
  chunks.pop_front();
  if (chunk.sequence > last_seq) {
    double speed = 0;
    const std::int64_t bytes = fetch_chunk(chunk, speed);
    if (bytes < 0) {
      note_failure();
    } else if (!note_success(chunk, bytes, speed)) {
      return false;
    }
    if (!inside_band()) return false;
    pass.attempted = true;
  }
  ++pass.index;
  return true;
}

void MasterPlaylist::conclude_pass(bool attempted) {
  if (attempted) {
    empty_reloads = 0;
    return;
  }
  ++empty_reloads;
  refresh_countdown.store(static_cast<std::int32_t>(chunklist->target_duration / 4),
                          std::memory_order_relaxed);
  if (empty_reloads < kMaxEmptyReloads) return;
  log_err("no new chunks in many playlist reloads");
  end_stream();
}

// Body bytes of the attempt that succeeded, or -1 after the last one.
std::int64_t MasterPlaylist::fetch_chunk(const Chunk& chunk, double& speed) {
  std::uint64_t offset = 0;
  for (int left = kAttempts;;) {
    log_out("getting chunk from ", chunk.url);
    prepare_key(chunk);
    const std::int64_t bytes =
        client->get_stream(chunk.url, *buffer, false, speed, key, &should_finish_, offset);
    if (bytes >= 0) return bytes;
    log_err("chunk get from ", chunk.url, " FAILED");
    if (--left == 0 || should_finish()) return -1;
    sleep_for(kRetryPause);
    offset = client->position;
    log_err("retry chunk get from ", chunk.url, " starting from byte ", offset);
  }
}

// The URL is stored before the key is there, so a key that can't be had is not
// asked for again, and a clear segment forgets the key but not its URL. Both are meant.
void MasterPlaylist::prepare_key(const Chunk& chunk) {
  if (chunk.key_url.empty()) {
    key.clear();
  } else if (chunk.key_url != key_url) {
    log_out("getting new decryption key from: ", chunk.key_url);
    key_url = chunk.key_url;
    (void)UCurl().get(key_url, key);
  }
}

void MasterPlaylist::note_failure() {
  if (++failed_chunks <= kMaxFailedChunks) return;
  log_err("too many failed subsequent chunks. Finishing stream.");
  end_stream();
}

// False when the speed dropped so far that the pass is to end.
bool MasterPlaylist::note_success(const Chunk& chunk, std::int64_t bytes, double speed) {
  failed_chunks = 0;
  log_out("got chunk (seq ", chunk.sequence, ") from ", chunk.url, " with size ", bytes, ", speed ",
          speed, " kbps");
  last_seq = chunk.sequence;
  if (chunk.last) {
    log_out("last chunk - setting should_finish");
    end_stream();
  }
  return update_stats(speed);
}

bool MasterPlaylist::update_stats(double speed) {
  const std::uint64_t kbps = whole_kbps(speed);
  stats->last_chunk_speed.set(kbps);
  stats->cbuff_size.set(buffer->fill() >> 10);
  stats->selected_profile.set(current_variant->bandwidth >> 10);

  auto& history = stats->speed_history;
  if (kbps < current_variant->bandwidth >> 11) {
    log_err("sudden speed drop! falling down immediately!");
    for (StreamStats::Value& older : history) older.set(kbps >> 1);
    history[0].set(kbps);
    stats->avg_speed.set(kbps);
    refresh_at_once();
    return false;
  }
  for (size_t i = history.size() - 1; i > 0; --i) history[i].set(history[i - 1].get());
  history[0].set(kbps);
  stats->avg_speed.set((3 * history[0].get() + 2 * history[1].get() + 2 * history[2].get() +
                        history[3].get() + history[4].get()) /
                       9);
  return true;
}

bool MasterPlaylist::inside_band() {
  const std::uint64_t avg = stats->avg_speed.get();
  const std::uint64_t low = boundary_low >> 10;
  const std::uint64_t high = boundary_high >> 10;
  if (low <= avg && avg < high) return true;
  log_out("avg_speed out of boundaries! (", avg, " ", low, " ", high, ")");
  refresh_at_once();
  return false;
}

void MasterPlaylist::refresh_at_once() {
  refresh_countdown.store(0, std::memory_order_relaxed);
  empty_reloads = 0;
}

}  // namespace weir
