#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/thread.h"
#include "playlist/playing.h"
#include "playlist/stream_control.h"

namespace weir {

class CBuff;
class ChunkFetcher;
struct Streams;

// The engine of one stream: loads a master playlist, selects a variant by the
// download speed, keeps the variant's playlist fresh and has its segments downloaded
// into the buffer.
//
// Threads:   start_refreshing() and finish() are its owner's. The refresh timer
//            thread turns once a second; when a refresh is due and no fill pass
//            runs it selects a variant, loads its playlist and starts a fill
//            pass on a thread of its own.
// Ownership: the buffer and the shared state are the caller's and live longer.
// Failure:   false from start_refreshing(), later should_finish(); the reason is
//            on the error stream.
class MasterPlaylist {
 public:
  // `start_from`: the segments that the first pass skips; negative counts from the end.
  MasterPlaylist(std::string master_url, CBuff& buffer, Streams& streams, std::int32_t start_from);
  ~MasterPlaylist();
  MasterPlaylist(const MasterPlaylist&) = delete;
  MasterPlaylist& operator=(const MasterPlaylist&) = delete;

  // Loads the master playlist and starts the timer. Blocks for the download.
  [[nodiscard]] bool start_refreshing();

  // Tells the threads to stop and waits for them: for the timer's sleep and for the
  // downloads under way, at worst a key and then its segment, 60 s each where nothing
  // comes back. A document that trickles, and an HTTP/1.0 segment, take as long as the
  // server likes. Must come before destruction where start_refreshing() was called.
  void finish();

  // The stream is over: once everything downloaded has been consumed, nothing more will
  // come. A reader that sees it also sees the last bytes in the buffer's fill count.
  [[nodiscard]] bool should_finish() const { return control_.is_over(); }

 private:
  [[nodiscard]] bool refresh_master();
  [[nodiscard]] bool select_variant(Playing& playing);
  [[nodiscard]] static bool refresh_variant(Playing& playing);
  [[nodiscard]] static bool refresh_variant_if_needed(Playing& playing);
  void start_fill(std::unique_ptr<Playing> playing);
  void refresh_timer();
  [[nodiscard]] bool refresh_now();

  static void* timer_thread_entry(void* self);
  static void* fill_thread_entry(void* self);

  // Set once.
  const std::string master_url_;
  const CBuff& buffer_;
  const Streams& streams_;

  StreamControl control_;

  // The timer finds what is being played in `to_timer_` unless a fill pass has it.
  HandOver<Playing> to_timer_;
  HandOver<Playing> to_pass_;

  const std::unique_ptr<ChunkFetcher> fetcher_;  // the fill pass's

  // The timer thread is the owner's. The fill thread is the timer's, and the owner's
  // once the timer has been joined.
  WorkerThread timer_thread_;
  WorkerThread fill_thread_;
};

}  // namespace weir
