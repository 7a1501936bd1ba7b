// The life of a stream: loading its playlists and the refresh timer.
#include "playlist/master_playlist.h"

#include <utility>

#include "base/limits.h"
#include "base/log.h"
#include "base/wait.h"
#include "buffer/cbuff.h"
#include "playlist/chunk_fetcher.h"
#include "playlist/streams.h"
#include "upstream/ucurl.h"

namespace weir {

MasterPlaylist::MasterPlaylist(std::string master_url, CBuff& buffer, Streams& streams,
                               std::int32_t start_from)
    : master_url_(std::move(master_url)),
      buffer_(buffer),
      streams_(streams),
      fetcher_(std::make_unique<ChunkFetcher>(buffer, streams, control_)) {
  auto playing = std::make_unique<Playing>();
  playing->start_from = start_from;
  to_timer_.put(std::move(playing));
}

MasterPlaylist::~MasterPlaylist() = default;

bool MasterPlaylist::start_refreshing() {
  log_out("start_refreshing");
  if (!refresh_master()) return false;
  // Without the timer the stream delivers nothing and is closed after 15 s without data.
  (void)timer_thread_.start(timer_thread_entry, this);
  return true;
}

void MasterPlaylist::finish() {
  log_out("MasterPlaylist::finish");
  control_.end_stream();
  // Join the timer first, because it starts fill threads.
  timer_thread_.join();
  fill_thread_.join();
}

bool MasterPlaylist::refresh_master() {
  log_out("Refreshing ... ");
  std::string text;
  if (!UCurl().get(master_url_, text)) {
    log_out("failed to get master playlist");
    return false;
  }
  log_out("got master playlist");
  std::unique_ptr<Playing> playing = to_timer_.take();
  playing->variants = parse_master(text);
  const bool selected = select_variant(*playing);
  to_timer_.put(std::move(playing));
  return selected;
}

// Keeps or changes the current variant. False if there is none afterwards.
bool MasterPlaylist::select_variant(Playing& playing) {
  const std::uint64_t average = streams_.stats.avg_speed.get();
  log_out("select variant, curr avg in bps: ", average * 1024);
  const Decision decision =
      keep_or_change(playing.current, average, buffer_.fill(), streams_.max_buffer);
  if (decision != Decision::kChange) return decision == Decision::kKeep;
  playing.chunklist.reset();
  playing.current = choose_variant(playing.variants, average).value_or(Selection{});
  if (playing.current.variant == nullptr) return false;
  playing.chunklist.emplace(playing.current.variant->url);
  return true;
}

// False if the playlist cannot be loaded or has no segments. If the first segments of a long
// playlist were dropped, only a stream that has already begun accepts it; a new one needs the
// segment that it starts with.
bool MasterPlaylist::refresh_variant(Playing& playing) {
  log_out("Chunklist: refresh variant");
  std::string text;
  Chunklist& chunklist = *playing.chunklist;
  if (!UCurl().get(chunklist.url, text)) return false;
  chunklist.parse(text);
  if (!playing.started) chunklist.require(playing.start_from);
  return !chunklist.chunks.empty();
}

bool MasterPlaylist::refresh_variant_if_needed(Playing& playing) {
  const size_t queued = playing.chunklist->chunks.size();
  if (queued > limits::kEnoughChunks) {
    log_err("Chunklist: Using cached playlist (still got ", queued, " chunks in advance)");
    return true;
  }
  if (refresh_variant(playing)) return true;
  log_err("Unable to refresh variant of playlist");
  return false;
}

// If the system refuses a thread, the timer's next turn tries again.
void MasterPlaylist::start_fill(std::unique_ptr<Playing> playing) {
  to_pass_.put(std::move(playing));
  if (!fill_thread_.start(fill_thread_entry, this)) to_timer_.put(to_pass_.take());
}

void* MasterPlaylist::fill_thread_entry(void* self) {
  auto& playlist = *static_cast<MasterPlaylist*>(self);
  lower_priority();
  std::unique_ptr<Playing> playing = playlist.to_pass_.take();
  playlist.fetcher_->fill_pass(*playing);
  playlist.to_timer_.put(std::move(playing));
  return nullptr;
}

void* MasterPlaylist::timer_thread_entry(void* self) {
  lower_priority();
  static_cast<MasterPlaylist*>(self)->refresh_timer();
  return nullptr;
}

void MasterPlaylist::refresh_timer() {
  log_out("refresh timer called");
  std::atomic<std::int32_t>& countdown = control_.refresh_countdown;
  while (!should_finish()) {
    const std::int32_t left = countdown.load(std::memory_order_relaxed);
    if (left > 0) {
      log_out("not yet refresh time: ", left);
      countdown.fetch_sub(1, std::memory_order_relaxed);
    } else if (!refresh_now()) {
      return;
    }
    sleep_for(limits::kTimerTurn);
  }
}

// Selects variants until the playlist of one can be loaded. False if the stream ended
// meanwhile: the timer must not sleep again.
bool MasterPlaylist::refresh_now() {
  std::unique_ptr<Playing> playing = to_timer_.take();
  if (playing == nullptr) {
    log_out("refresh will not be done at this time - still running");
    return true;
  }
  for (;;) {
    log_out("refresh ...");
    if (!select_variant(*playing)) {
      log_err("unable to select variand - should_finish");
      control_.end_stream();
      return true;
    }
    fill_thread_.join();
    if (refresh_variant_if_needed(*playing)) {
      start_fill(std::move(playing));
      return true;
    }
    log_err("marking this variant as invalid");
    playing->current.variant->invalid = true;
    control_.refresh_countdown.store(0, std::memory_order_relaxed);
    if (should_finish()) return false;
  }
}

}  // namespace weir
