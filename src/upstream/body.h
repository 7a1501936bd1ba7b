// Reads the body of a response whose head has been read. Nothing here opens a connection
// or decides on another try.
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

// The body was delivered, or part of it where the server closed early; an HTTP/1.1
// response without Content-Length; a receive failed.
enum class BodyResult { kDelivered, kLengthUnknown, kBroken };

// How far a download has come.
struct Progress {
  std::uint64_t received = 0;  // bytes of the body, before decryption
  std::uint64_t position = 0;  // offset in the upstream resource
};

// Reads a document into `out`. One beyond Document::kMaxSize fails like a receive.
[[nodiscard]] BodyResult download_document(Connection& connection, Response& response,
                                           std::string& out);

// Reads a segment into the sink. The stop flag ends that between two receives. This, and
// running out of memory, closes the connection and counts as delivered.
//
// Deliberate: an HTTP/1.0 response is read to the end of its connection without regard to
// its length, the stop flag or the key, and `position` stays 0, because servers that speak
// it send clear media and close. How much it may take is not bounded.
[[nodiscard]] BodyResult download_segment(Connection& connection, Response& response,
                                          SegmentSink& sink, const std::atomic<bool>& stop_flag,
                                          Progress& progress);

}  // namespace weir
