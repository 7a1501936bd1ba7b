// Parsing of the master playlist, the refresh timer and the life of a stream.
#include "playlist/master_playlist.h"

#include <chrono>
#include <utility>

#include "base/log.h"
#include "base/text.h"
#include "base/wait.h"
#include "buffer/cbuff.h"
#include "playlist/playlist_text.h"
#include "playlist/stream_stats.h"
#include "upstream/ucurl.h"

namespace weir {

namespace {

constexpr std::chrono::seconds kTimerTurn{1};
constexpr size_t kEnoughChunks = 4;  // more than these are worked off before a refresh

// The value of the first "BANDWIDTH=" in the line, even inside a longer name.
bool read_bandwidth(const std::string& line, std::uint64_t& bandwidth) {
  constexpr std::string_view kAttribute = "BANDWIDTH=";
  const size_t found = line.find(kAttribute);
  if (found == std::string::npos) return false;
  const size_t start = found + kAttribute.size();
  bandwidth =
      static_cast<std::uint64_t>(leading_number(line.substr(start, line.find(',', start) - start)));
  return true;
}

}  // namespace

MasterPlaylist::MasterPlaylist(std::string master_url_, CBuff* buffer_, std::uint64_t max_buffer_,
                               StreamStats* stats_, std::int32_t start_from_)
    : master_url(std::move(master_url_)),
      buffer(buffer_),
      stats(stats_),
      max_buffer(max_buffer_),
      client(std::make_unique<UCurl>()),
      start_from(start_from_) {}

MasterPlaylist::~MasterPlaylist() = default;

bool MasterPlaylist::start_refreshing() {
  log_out("start_refreshing");
  if (!refresh_master()) return false;
  last_seq = 0;
  key_url.clear();
  key.clear();
  refresh_countdown.store(0, std::memory_order_relaxed);
  // A stream without its timer delivers nothing and is closed for want of data.
  (void)timer_thread.start(timer_thread_entry, this);
  return true;
}

void MasterPlaylist::finish() {
  log_out("MasterPlaylist::finish");
  end_stream();
  // The timer first: it starts fill threads, and after it there are no new ones.
  timer_thread.join();
  fill_thread.join();
}

void MasterPlaylist::end_stream() { should_finish_.store(true, std::memory_order_release); }

bool MasterPlaylist::refresh_master() {
  log_out("Refreshing ... ");
  std::string text;
  if (!UCurl().get(master_url, text)) {
    log_out("failed to get master playlist");
    return false;
  }
  log_out("got master playlist");
  (void)parse_master(text);  // whatever was read up to an error is good enough
  current_variant = nullptr;
  boundary_low = 0;
  boundary_high = 0;
  return select_variant();
}

// Every line after the first that is no stream tag is a variant of the bandwidth
// seen last, comments and empty lines too; that is meant (cf. RFC 8216, 4.3.4.2).
bool MasterPlaylist::parse_master(const std::string& text) {
  variants.clear();
  const std::vector<std::string> lines = split(text, '\n');
  if (!is_playlist(lines)) return false;
  std::uint64_t bandwidth = 0;
  for (size_t i = 1; i < lines.size(); ++i) {
    if (!lines[i].starts_with("#EXT-X-STREAM-INF:")) {
      std::string url = lines[i];
      variants.push_back({bandwidth, std::move(trim(url)), false});
    } else if (!read_bandwidth(lines[i], bandwidth)) {
      log_err("Variant does not specify bandwidth!");
      return false;
    }
  }
  return true;
}

bool MasterPlaylist::refresh_variant() {
  log_out("Chunklist: refresh variant");
  std::string text;
  if (!UCurl().get(chunklist->url, text)) return false;
  (void)chunklist->parse(text);  // success is to have segments
  return !chunklist->chunks.empty();
}

bool MasterPlaylist::refresh_variant_and_start_fill() {
  fill_running.store(true, std::memory_order_relaxed);
  fill_thread.join();
  const size_t queued = chunklist->chunks.size();
  if (queued > kEnoughChunks) {
    log_err("Chunklist: Using cached playlist (still got ", queued, " chunks in advance)");
  } else if (!refresh_variant()) {
    fill_running.store(false, std::memory_order_relaxed);
    log_err("Unable to refresh variant of playlist");
    return false;
  }
  start_fill();
  return true;
}

// Without a thread there is no pass, and the timer tries again with its next turn.
void MasterPlaylist::start_fill() {
  if (fill_thread.start(fill_thread_entry, this)) return;
  fill_running.store(false, std::memory_order_relaxed);
}

void* MasterPlaylist::fill_thread_entry(void* self) {
  auto* const playlist = static_cast<MasterPlaylist*>(self);
  lower_priority();
  playlist->fill_pass();
  playlist->fill_running.store(false, std::memory_order_release);
  return nullptr;
}

void* MasterPlaylist::timer_thread_entry(void* self) {
  lower_priority();
  static_cast<MasterPlaylist*>(self)->refresh_timer();
  return nullptr;
}

void MasterPlaylist::refresh_timer() {
  log_out("refresh timer called");
  while (!should_finish()) {
    const std::int32_t countdown = refresh_countdown.load(std::memory_order_relaxed);
    if (countdown > 0) {
      log_out("not yet refresh time: ", countdown);
      refresh_countdown.fetch_sub(1, std::memory_order_relaxed);
    } else if (!refresh_now()) {
      return;
    }
    sleep_for(kTimerTurn);
  }
}

// Selects variants until the playlist of one can be loaded. False when the
// stream was told to end meanwhile and nothing is to be waited for.
bool MasterPlaylist::refresh_now() {
  for (;;) {
    if (fill_running.load(std::memory_order_acquire)) {
      log_out("refresh will not be done at this time - still running");
      return true;
    }
    log_out("refresh ...");
    if (!select_variant()) {
      log_err("unable to select variand - should_finish");
      end_stream();
      return true;
    }
    if (refresh_variant_and_start_fill()) return true;
    log_err("marking this variant as invalid");
    current_variant->invalid = true;
    refresh_countdown.store(0, std::memory_order_relaxed);
    if (should_finish()) return false;
  }
}

}  // namespace weir
