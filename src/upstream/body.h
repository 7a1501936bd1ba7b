// How the body of a response is read whose head has been read. Nothing here opens a
// connection or decides on another try.
//
// Threads: one at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace weir {

class Connection;
class Decryptor;
class Response;
class SegmentSink;

// The body was delivered, or a part of it where the server closed early; an HTTP/1.1
// response has no Content-Length; a receive failed.
enum class BodyResult { kDelivered, kLengthUnknown, kBroken };

// Where a download stands.
struct Progress {
  std::uint64_t received = 0;  // bytes of the body, before decryption
  std::uint64_t position = 0;  // offset in the upstream resource up to which bytes came
};

// Reads a document into `out`. More than it may hold fails like a receive.
[[nodiscard]] BodyResult download_document(Connection& connection, Response& response,
                                           std::string& out, std::uint64_t& received);

// Reads a segment into the sink. The stop flag ends it between two receives; that, and
// memory that runs out, closes the connection and counts as delivered.
//
// Deliberate: an HTTP/1.0 response is read to its end, without a look at its length, the
// stop flag or the key, and `position` doesn't move.
[[nodiscard]] BodyResult download_segment(Connection& connection, Response& response,
                                          SegmentSink& sink, const std::atomic<bool>& stop_flag,
                                          Progress& progress);

}  // namespace weir
