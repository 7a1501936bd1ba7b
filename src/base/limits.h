// Every wait, attempt and bound of the program, with its unit. The buffer's block size is in
// buffer/cbuff.h; the thresholds of the variant selection are in playlist/selection.cpp.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace weir::limits {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Clients -------------------------------------------------------------------

inline constexpr seconds kTurn{1};              // longest wait of the server loop for a connection
inline constexpr seconds kClientTimeout{10};    // of one read from or write to a client
inline constexpr int kRequestLine = 4095;       // bytes; a longer line continues as the next one
inline constexpr size_t kMaxDiscarded = 65536;  // bytes of a request's body, read before closing

// Unsent bytes that the kernel accepts for a client. Without a limit it accepts 4 MB and wakes
// the writer when a third of that has been sent, which may exceed kClientTimeout for a player
// that reads at the pace of its video. The cost: a paused player loses its stream sooner, by
// 8 s at 4 Mbit/s.
inline constexpr int kMaxUnsent = 256 * 1024;

// From the buffer to the player ---------------------------------------------

inline constexpr size_t kMaxWrite = 131071;     // bytes; keeps writes short and statistics current
inline constexpr milliseconds kEmptyWait{100};  // wait for data if the buffer is empty
inline constexpr milliseconds kIdlePoll{50};    // pause after an unsuccessful wait for data
inline constexpr seconds kNoDataLimit{15};      // a longer time without data ends the stream

// One attempt to download ---------------------------------------------------

inline constexpr seconds kConnectTimeout{2};
inline constexpr seconds kSendTimeout{2};
inline constexpr seconds kStatusTimeout{6};  // of the first read of a response
inline constexpr seconds kReadTimeout{2};    // of every other read

inline constexpr size_t kHeadRead = 4096;         // bytes per read of a header block
inline constexpr size_t kBodyRead = 131071;       // bytes per read of a body
inline constexpr size_t kMaxHead = 262144;        // bytes of a header block
inline constexpr size_t kMaxDocument = 16 << 20;  // bytes of a playlist or a key

// Retries. A download makes at most kTries * kAttempts attempts; a segment is downloaded at
// most kDownloads times.

inline constexpr int kAttempts = 4;          // to get a status line, per try
inline constexpr seconds kAttemptPause{1};   // after the 2nd and 3rd attempt at a named host
inline constexpr int kTries = 6;             // per download
inline constexpr int kDownloads = 4;         // per segment, each resuming the previous one
inline constexpr seconds kDownloadPause{1};  // between two downloads of a segment

// Playlists -----------------------------------------------------------------

inline constexpr size_t kMaxVariants = 4096;
inline constexpr size_t kMaxChunks = 50000;  // segments kept per media playlist
inline constexpr size_t kMaxLine = 65536;    // bytes
inline constexpr size_t kKeySize = 16;       // bytes of a key; the rest is ignored

// Streams -------------------------------------------------------------------

inline constexpr seconds kTimerTurn{1};           // pause of the refresh timer
inline constexpr double kRefreshAfter = 0.65;     // of the target duration, from a pass's start
inline constexpr std::uint32_t kRefreshIdle = 4;  // divisor of that after an idle pass
inline constexpr size_t kEnoughChunks = 4;        // with more left, the playlist is not reloaded
inline constexpr std::uint32_t kMaxFailedChunks = 3;  // in a row; one more ends the stream
inline constexpr std::uint32_t kMaxEmptyReloads = 6;  // in a row; the sixth ends the stream

// Watchdog and log ----------------------------------------------------------

inline constexpr seconds kMarkerGrace{10};  // from the marker's first sighting to the restart
inline constexpr seconds kPingTimeout{300};
inline constexpr milliseconds kLastLine{100};     // longest wait for the log line before a restart
inline constexpr milliseconds kLastLineStep{10};  // between attempts to write that line

}  // namespace weir::limits
