#include "upstream/body.h"

#include <chrono>
#include <limits>
#include <optional>

#include "base/log.h"
#include "upstream/connection.h"
#include "upstream/document.h"
#include "upstream/response.h"
#include "upstream/segment_sink.h"

namespace weir {

namespace {

constexpr auto kToTheEnd = std::numeric_limits<std::uint64_t>::max();

// Nothing, which is logged, where an HTTP/1.1 response doesn't state the length.
std::optional<std::uint64_t> body_length(const Response& response) {
  if (!response.http11()) return kToTheEnd;
  const std::optional<std::uint64_t> length = response.content_length();
  if (!length) log_err("Content-Length unknown");
  return length;
}

bool stopped(Connection& connection, const std::atomic<bool>& stop_flag) {
  // Relaxed: it publishes nothing else, and one read later is soon enough.
  if (!stop_flag.load(std::memory_order_relaxed)) return false;
  log_out("forced stream break. should finish");
  connection.close_if_open();
  return true;
}

BodyResult read_segment_to_end(Connection& connection, const Response& response, SegmentSink& sink,
                               std::uint64_t& received) {
  std::optional<std::string> piece = response.rest;
  do {
    received += piece->size();
    if (!sink.write_raw(*piece)) {
      connection.close_if_open();
      return BodyResult::kDelivered;
    }
    piece = connection.recv_string(Connection::kMaxRead, Connection::kReadTimeout);
    if (!piece) return BodyResult::kBroken;
  } while (!piece->empty());
  return BodyResult::kDelivered;
}

}  // namespace

BodyResult download_document(Connection& connection, Response& response, std::string& out) {
  Document document(out);
  const std::optional<std::uint64_t> length = body_length(response);
  if (!length) return BodyResult::kLengthUnknown;
  std::uint64_t received = 0;
  for (std::string piece = std::move(response.rest);;) {
    if (!document.append(piece)) {
      connection.fail_receive("recv error");
      return BodyResult::kBroken;
    }
    received += piece.size();
    if (received >= *length) return BodyResult::kDelivered;
    std::optional<std::string> next =
        connection.recv_string(Connection::kMaxRead, Connection::kReadTimeout);
    if (!next) return BodyResult::kBroken;
    if (next->empty()) return BodyResult::kDelivered;
    piece = std::move(*next);
  }
}

BodyResult download_segment(Connection& connection, Response& response, SegmentSink& sink,
                            const std::atomic<bool>& stop_flag, Progress& progress) {
  progress.received = 0;
  if (!response.http11()) {
    return read_segment_to_end(connection, response, sink, progress.received);
  }
  const std::uint64_t start = response.range_start();
  progress.position = start;
  const std::optional<std::uint64_t> length = body_length(response);
  if (!length) return BodyResult::kLengthUnknown;
  progress.received = response.rest.size();
  auto step = sink.write(response.rest) ? SegmentSink::Step::kTaken : SegmentSink::Step::kNoMemory;
  progress.position = start + progress.received;
  while (step == SegmentSink::Step::kTaken && progress.received < *length &&
         !stopped(connection, stop_flag)) {
    step = sink.receive(connection, progress.received);
    progress.position = start + progress.received;
  }
  if (step == SegmentSink::Step::kBroken) return BodyResult::kBroken;
  // In the middle of a body the connection can't be reused.
  if (step == SegmentSink::Step::kNoMemory) connection.close_if_open();
  if (!sink.finish()) connection.close_if_open();
  return BodyResult::kDelivered;
}

}  // namespace weir
