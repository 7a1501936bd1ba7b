// Reads the body of a response whose header block has been read. Opens no connection and
// makes no further attempt.
//
// Threads: one at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "upstream/outcome.h"

namespace weir {

class Connection;
class Response;
class SegmentSink;

// How the download of a segment ended.
struct Download {
  Outcome outcome = Outcome::kBroken;
  std::uint64_t received = 0;  // bytes of the body, before decryption
  std::uint64_t position = 0;  // offset reached in the resource: where to resume
  double speed_kbps = 0;       // units of 1024 bit/s, body only; may be infinite or NaN

  [[nodiscard]] bool done() const { return outcome == Outcome::kDone; }
};

// Reads a document into `out`. More than 16 MiB count as a failed receive; a growing document
// uses at most 24 MiB of memory. A server that closes early ends the document.
[[nodiscard]] Outcome download_document(Connection& connection, Response& response,
                                        std::string& out);

// Reads a segment into the sink; leaves the speed to the caller. The stop flag, checked before
// each receive, ends the download. A stop, lack of memory and a server that closes early count
// as done; the first two close the connection.
//
// Deliberate: an HTTP/1.0 response is read to the end of its connection, regardless of its
// length, the stop flag and the key, and `position` stays 0, because servers that speak it
// send clear media and close. Its size is not limited.
[[nodiscard]] Download download_segment(Connection& connection, Response& response,
                                        SegmentSink& sink, const std::atomic<bool>& stop_flag);

}  // namespace weir
