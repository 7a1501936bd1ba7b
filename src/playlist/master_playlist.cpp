// The life of a stream: loading its playlists and the refresh timer.
#include "playlist/master_playlist.h"

#include <optional>
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
      fetcher_(std::make_unique<ChunkFetcher>(buffer, streams, control_, start_from)) {}

MasterPlaylist::~MasterPlaylist() = default;

bool MasterPlaylist::start_refreshing() {
  log_out("start_refreshing");
  if (!refresh_master()) return false;
  // A stream without its timer delivers nothing, and is closed after 15 s without data.
  (void)timer_thread_.start(timer_thread_entry, this);
  return true;
}

void MasterPlaylist::finish() {
  log_out("MasterPlaylist::finish");
  control_.end_stream();
  // The timer first: it starts fill threads, and after it there are no new ones.
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
  variants_ = parse_master(text);
  return select_variant();
}

// True when there is a current variant afterwards, kept or chosen anew.
bool MasterPlaylist::select_variant() {
  const std::uint64_t average = streams_.stats.avg_speed.get();
  log_out("select variant, curr avg in bps: ", average * 1024);
  const Decision decision = keep_or_change(current_, average, buffer_.fill(), streams_.max_buffer);
  if (decision != Decision::kChange) return decision == Decision::kKeep;
  chunklist_.reset();
  current_ = choose_variant(variants_, average).value_or(Selection{});
  if (current_.variant == nullptr) return false;
  chunklist_ = std::make_unique<Chunklist>(current_.variant->url);
  return true;
}

bool MasterPlaylist::refresh_variant() {
  log_out("Chunklist: refresh variant");
  std::string text;
  if (!UCurl().get(chunklist_->url, text)) return false;
  chunklist_->parse(text);
  return !chunklist_->chunks.empty();
}

bool MasterPlaylist::refresh_variant_and_start_fill() {
  control_.fill_running.store(true, std::memory_order_relaxed);
  fill_thread_.join();
  const size_t queued = chunklist_->chunks.size();
  if (queued > limits::kEnoughChunks) {
    log_err("Chunklist: Using cached playlist (still got ", queued, " chunks in advance)");
  } else if (!refresh_variant()) {
    control_.fill_running.store(false, std::memory_order_relaxed);
    log_err("Unable to refresh variant of playlist");
    return false;
  }
  start_fill();
  return true;
}

// Without a thread there is no pass, and the timer's next turn tries again.
void MasterPlaylist::start_fill() {
  if (fill_thread_.start(fill_thread_entry, this)) return;
  control_.fill_running.store(false, std::memory_order_relaxed);
}

void* MasterPlaylist::fill_thread_entry(void* self) {
  auto& playlist = *static_cast<MasterPlaylist*>(self);
  lower_priority();
  playlist.fetcher_->fill_pass(*playlist.chunklist_, playlist.current_);
  playlist.control_.fill_running.store(false, std::memory_order_release);
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

// Selects variants until the playlist of one can be loaded. False when the stream was
// told to end meanwhile, so that the timer must not sleep again.
bool MasterPlaylist::refresh_now() {
  for (;;) {
    if (control_.fill_running.load(std::memory_order_acquire)) {
      log_out("refresh will not be done at this time - still running");
      return true;
    }
    log_out("refresh ...");
    if (!select_variant()) {
      log_err("unable to select variand - should_finish");
      control_.end_stream();
      return true;
    }
    if (refresh_variant_and_start_fill()) return true;
    log_err("marking this variant as invalid");
    current_.variant->invalid = true;
    control_.refresh_countdown.store(0, std::memory_order_relaxed);
    if (should_finish()) return false;
  }
}

}  // namespace weir
