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

inline constexpr seconds kTurn{1};              // of the server loop without a connection
inline constexpr seconds kClientTimeout{10};    // of a read from or a write to a client, in all
inline constexpr int kRequestLine = 4095;       // bytes; the rest is read as the next line
inline constexpr size_t kMaxDiscarded = 65536;  // bytes of a request's body

// Bytes that the kernel accepts ahead of the network. Without a limit it accepts 4 MB and
// wakes the writer when a third of them have gone, which a player that reads at the pace of
// its video may not manage within kClientTimeout. The cost: a paused player loses its stream
// that much sooner, 8 s at 4 Mbit/s.
inline constexpr int kMaxUnsent = 256 * 1024;

// From the buffer to the player ---------------------------------------------

inline constexpr size_t kMaxWrite = 131071;     // bytes; keeps a turn short, the figures fresh
inline constexpr milliseconds kEmptyWait{100};  // for bytes in an empty buffer
inline constexpr milliseconds kIdlePoll{50};    // after that, before the next turn
inline constexpr seconds kNoDataLimit{15};      // longer without data ends the stream

// One attempt to download ---------------------------------------------------

inline constexpr seconds kConnectTimeout{2};
inline constexpr seconds kSendTimeout{2};
inline constexpr seconds kStatusTimeout{6};  // of the first read of a response
inline constexpr seconds kReadTimeout{2};    // of every other read

inline constexpr size_t kHeadRead = 4096;         // bytes of a header block in one read
inline constexpr size_t kBodyRead = 131071;       // bytes of a body in one read
inline constexpr size_t kMaxHead = 262144;        // bytes of a header block
inline constexpr size_t kMaxDocument = 16 << 20;  // bytes of a playlist or a key

// Retries. The worst case of one download is kTries * kAttempts attempts, and that of a
// segment kDownloads downloads.

inline constexpr int kAttempts = 4;          // to get a usable answer, in one try
inline constexpr seconds kAttemptPause{1};   // after the 2nd and 3rd attempt at a named host
inline constexpr int kTries = 6;             // in one download
inline constexpr int kDownloads = 4;         // of one segment, each resuming the one before
inline constexpr seconds kDownloadPause{1};  // between them

// Playlists -----------------------------------------------------------------

inline constexpr size_t kMaxVariants = 4096;
inline constexpr size_t kMaxChunks = 50000;  // segments kept of a media playlist
inline constexpr size_t kMaxLine = 65536;    // bytes
inline constexpr size_t kKeySize = 16;       // bytes of a key; any further ones are ignored

// Streams -------------------------------------------------------------------

inline constexpr seconds kTimerTurn{1};           // of the refresh timer
inline constexpr double kRefreshAfter = 0.65;     // of the target duration, from a pass's start
inline constexpr std::uint32_t kRefreshIdle = 4;  // part of it after a pass without a new segment
inline constexpr size_t kEnoughChunks = 4;        // more are downloaded before the next refresh
inline constexpr std::uint32_t kMaxFailedChunks = 3;  // in a row; one more ends the stream
inline constexpr std::uint32_t kMaxEmptyReloads = 6;  // in a row; they end the stream

// Watchdog and log ----------------------------------------------------------

inline constexpr seconds kMarkerGrace{10};  // from the marker's first sight to the restart
inline constexpr seconds kPingTimeout{300};
inline constexpr milliseconds kLastLine{100};     // that the line before a restart may wait
inline constexpr milliseconds kLastLineStep{10};  // between its attempts

}  // namespace weir::limits
