#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/worker_thread.h"
#include "playlist/chunklist.h"
#include "playlist/variant.h"

namespace weir {

class CBuff;
class UCurl;
struct StreamStats;

// The engine of one stream: loads a master playlist, selects a variant by the
// download speed, keeps the variant's playlist fresh and downloads its segments
// into the buffer.
//
// Threads:   start_refreshing() and finish() are its owner's. The refresh timer
//            thread turns once a second; when a refresh is due and no fill pass
//            runs it selects a variant, loads its playlist and starts a fill
//            pass on a thread of its own.
// Ownership: the buffer and the statistics are the caller's and live longer.
// Failure:   false from start_refreshing(), later should_finish; the reason is
//            on the error stream.
class MasterPlaylist {
 public:
  // `max_buffer` in bytes: a fill pass that finds so much buffered ends.
  // `start_from`: segments that the first fill pass skips; negative counts from
  // the end of the playlist.
  MasterPlaylist(std::string master_url, CBuff* buffer, std::uint64_t max_buffer,
                 StreamStats* stats, std::int32_t start_from);

  // finish() must have been called if start_refreshing() was.
  ~MasterPlaylist();
  MasterPlaylist(const MasterPlaylist&) = delete;
  MasterPlaylist& operator=(const MasterPlaylist&) = delete;

  // Loads the master playlist and starts the timer. Blocks for the download.
  [[nodiscard]] bool start_refreshing();

  // Tells the threads to stop and waits for them: for the sleep of the timer and
  // for the waits of a download that is under way.
  void finish();

  // The stream is over: after all that was downloaded has been consumed nothing
  // more will come. Acquire, so that a reader that sees it also sees the last
  // bytes in the buffer's fill count.
  bool should_finish() const { return should_finish_.load(std::memory_order_acquire); }

 private:
  friend class MasterPlaylistPeer;  // tests of single steps

  struct Pass;

  // master_playlist.cpp
  bool parse_master(const std::string& text);
  [[nodiscard]] bool refresh_master();
  [[nodiscard]] bool refresh_variant();
  [[nodiscard]] bool refresh_variant_and_start_fill();
  void start_fill();
  void refresh_timer();
  [[nodiscard]] bool refresh_now();
  void end_stream();

  // select_variant.cpp
  [[nodiscard]] bool select_variant();
  [[nodiscard]] bool keeps_slow_variant() const;
  [[nodiscard]] bool choose_variant(std::uint64_t avg);
  [[nodiscard]] Variant* best_variant(Variant* min, std::uint64_t avg);
  [[nodiscard]] const Variant* first_higher(const Variant* best, const Variant* max);
  void adopt(Variant* best, const Variant* min, const Variant* max, const Variant* higher);

  // fill_pass.cpp
  void fill_pass();
  [[nodiscard]] std::int64_t begin_pass();
  [[nodiscard]] bool take_chunk(Pass& pass);
  void conclude_pass(bool attempted);
  [[nodiscard]] std::int64_t fetch_chunk(const Chunk& chunk, double& speed);
  void prepare_key(const Chunk& chunk);
  void note_failure();
  [[nodiscard]] bool note_success(const Chunk& chunk, std::int64_t bytes, double speed);
  [[nodiscard]] bool update_stats(double speed);
  [[nodiscard]] bool inside_band();
  void refresh_at_once();

  static void* timer_thread_entry(void* self);
  static void* fill_thread_entry(void* self);

  // Set once.
  const std::string master_url;
  CBuff* const buffer;
  StreamStats* const stats;
  const std::uint64_t max_buffer;

  // The timer's while no fill pass runs, the fill pass's else: whoever sets
  // fill_running hands them over, and joins before the next hand-over.
  std::vector<Variant> variants;
  Variant* current_variant = nullptr;
  std::unique_ptr<Chunklist> chunklist;
  std::uint64_t boundary_low = 0;   // bit/s; 0 is no lower limit
  std::uint64_t boundary_high = 0;  // bit/s; all ones is no upper limit

  // The fill pass's own.
  const std::unique_ptr<UCurl> client;
  std::uint64_t last_seq = 0;       // sequence number of the last segment delivered
  std::string key;                  // raw key, empty for clear media
  std::string key_url;              // where key was loaded from, or should have been
  std::uint32_t failed_chunks = 0;  // segments given up, in a row
  std::uint32_t empty_reloads = 0;  // passes without a new segment, in a row
  std::int32_t start_from;

  // Shared. fill_running is set by the timer and cleared by the last act of a
  // pass (release; the timer loads it with acquire and may then replace what the
  // pass worked on). refresh_countdown, in seconds, is set by the pass and
  // lowered by the timer in one step, so that a 0 from the pass is not lost;
  // relaxed, since it only says when. should_finish_ is stored with release
  // after the last commit to the buffer.
  std::atomic<bool> fill_running{false};
  std::atomic<std::int32_t> refresh_countdown{0};
  std::atomic<bool> should_finish_{false};

  // The timer thread is the owner's; the fill thread is the timer's, and after
  // the timer was joined the owner's.
  WorkerThread timer_thread;
  WorkerThread fill_thread;
};

}  // namespace weir
