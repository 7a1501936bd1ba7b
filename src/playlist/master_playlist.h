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

// The engine of one stream: loads the master playlist, selects a variant by download speed,
// reloads the variant's playlist and downloads its segments into the buffer.
//
// Threads:   the owner calls start_refreshing() and finish(). The refresh timer thread wakes
//            once a second; if a refresh is due and no fill pass is running, it selects a
//            variant, loads its playlist and starts a fill pass on another thread.
// Ownership: the caller owns the buffer and the shared state, which must outlive this object.
// Failure:   start_refreshing() returns false; later failures end the stream. The reason is on
//            the error stream.
class MasterPlaylist {
 public:
  // `start_from`: number of segments that the first pass skips; negative counts from the end.
  MasterPlaylist(std::string master_url, CBuff& buffer, Streams& streams, std::int32_t start_from);
  ~MasterPlaylist();
  MasterPlaylist(const MasterPlaylist&) = delete;
  MasterPlaylist& operator=(const MasterPlaylist&) = delete;

  // Loads the master playlist and starts the timer. Blocks for the download.
  [[nodiscard]] bool start_refreshing();

  // Tells the threads to stop and waits for them: for the timer's sleep and for running
  // downloads, at worst a key and then its segment, 60 s each if no packet comes back. A
  // trickling document and an HTTP/1.0 segment last as long as the server sends. Required
  // before destruction if start_refreshing() was called.
  void finish();

  // Whether the stream is over: nothing more will be added to the buffer. A thread that sees
  // true also sees the final fill count.
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

  // Constant after construction.
  const std::string master_url_;
  const CBuff& buffer_;
  const Streams& streams_;

  StreamControl control_;

  // The playback state is in `to_timer_` unless the timer or a fill pass holds it, or in
  // `to_pass_` until a new fill thread takes it.
  HandOver<Playing> to_timer_;
  HandOver<Playing> to_pass_;

  const std::unique_ptr<ChunkFetcher> fetcher_;  // used by the fill pass only

  // The owner joins the timer thread. The fill thread is joined by the timer or, after the timer
  // has ended, by the owner.
  WorkerThread timer_thread_;
  WorkerThread fill_thread_;
};

}  // namespace weir
