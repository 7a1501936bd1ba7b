#include "upstream/body.h"

#include <chrono>
#include <limits>
#include <optional>

#include "base/limits.h"
#include "base/log.h"
#include "upstream/connection.h"
#include "upstream/response.h"
#include "upstream/segment_sink.h"

namespace weir {

namespace {

constexpr auto kToTheEnd = std::numeric_limits<std::uint64_t>::max();

// The length of the body. Nothing, and a log line, if an HTTP/1.1 response does not state it.
std::optional<std::uint64_t> body_length(const Response& response) {
  if (!response.http11()) return kToTheEnd;
  const std::optional<std::uint64_t> length = response.content_length();
  if (!length) log_err("Content-Length unknown");
  return length;
}

bool stopped(Connection& connection, const std::atomic<bool>& stop_flag) {
  // Relaxed: the flag publishes no other data, and may be noticed one read later.
  if (!stop_flag.load(std::memory_order_relaxed)) return false;
  log_out("forced stream break. should finish");
  connection.close_if_open();
  return true;
}

Outcome read_segment_to_end(Connection& connection, const Response& response, SegmentSink& sink,
                            std::uint64_t& received) {
  std::optional<std::string> piece = response.rest;
  do {
    received += piece->size();
    if (!sink.write_raw(*piece)) {
      connection.close_if_open();
      return Outcome::kDone;
    }
    piece = connection.recv_string(limits::kBodyRead, limits::kReadTimeout);
    if (!piece) return Outcome::kBroken;
  } while (!piece->empty());
  return Outcome::kDone;
}

// Reads the body up to its length. Every failure except a failed receive counts as the end.
Outcome read_segment(Connection& connection, const Response& response, SegmentSink& sink,
                     const std::atomic<bool>& stop_flag, std::uint64_t& received) {
  const std::optional<std::uint64_t> length = body_length(response);
  if (!length) return Outcome::kUnusable;
  received = response.rest.size();
  auto step = sink.write(response.rest) ? SegmentSink::Step::kTaken : SegmentSink::Step::kNoMemory;
  while (step == SegmentSink::Step::kTaken && received < *length &&
         !stopped(connection, stop_flag)) {
    step = sink.receive(connection, received);
  }
  if (step == SegmentSink::Step::kBroken) return Outcome::kBroken;
  // In the middle of a body the connection cannot be reused.
  if (step == SegmentSink::Step::kNoMemory) connection.close_if_open();
  if (!sink.finish()) connection.close_if_open();
  return Outcome::kDone;
}

// Appends nothing and returns false if the document would become too large. Up to a quarter of
// the limit the string grows by doubling; beyond, doubling would take too much memory.
bool append(std::string& document, std::string_view piece) {
  const size_t size = document.size() + piece.size();
  if (size > limits::kMaxDocument) return false;
  if (size > limits::kMaxDocument / 4) document.reserve(limits::kMaxDocument);
  document += piece;
  return true;
}

}  // namespace

Outcome download_document(Connection& connection, Response& response, std::string& out) {
  out.clear();
  const std::optional<std::uint64_t> length = body_length(response);
  if (!length) return Outcome::kUnusable;
  std::uint64_t received = 0;
  for (std::string piece = std::move(response.rest);;) {
    if (!append(out, piece)) {
      connection.fail_receive("recv error");
      return Outcome::kBroken;
    }
    received += piece.size();
    if (received >= *length) return Outcome::kDone;
    std::optional<std::string> next =
        connection.recv_string(limits::kBodyRead, limits::kReadTimeout);
    if (!next) return Outcome::kBroken;
    if (next->empty()) return Outcome::kDone;
    piece = std::move(*next);
  }
}

Download download_segment(Connection& connection, Response& response, SegmentSink& sink,
                          const std::atomic<bool>& stop_flag) {
  Download download;
  if (response.http11()) {
    download.outcome = read_segment(connection, response, sink, stop_flag, download.received);
    download.position = response.position() + download.received;
  } else {
    download.outcome = read_segment_to_end(connection, response, sink, download.received);
  }
  return download;
}

}  // namespace weir
