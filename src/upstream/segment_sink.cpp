#include "upstream/segment_sink.h"

#include <algorithm>
#include <optional>
#include <span>

#include "base/limits.h"
#include "buffer/cbuff.h"
#include "upstream/connection.h"
#include "upstream/decryptor.h"

namespace weir {

namespace {

constexpr size_t kDecryptedRead = limits::kBodyRead + Decryptor::kSlack;

std::span<const unsigned char> as_bytes(std::string_view text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// Storage of at least `wanted` bytes, in a new block if the tail block has less room. Smaller
// only if memory has run out.
std::span<unsigned char> reserve_at_least(CBuff& buffer, size_t wanted) {
  const std::span<unsigned char> storage = buffer.reserve();
  return storage.size() >= wanted ? storage : buffer.sealAndReserve();
}

}  // namespace

bool SegmentSink::write_raw(std::string_view bytes) { return buffer_.write(as_bytes(bytes)); }

bool SegmentSink::write(std::string_view bytes) {
  if (!decryptor_.active()) return write_raw(bytes);
  const AlignedBytes output =
      aligned_bytes(std::max(bytes.size() + Decryptor::kSlack, kDecryptedRead));
  if (output == nullptr) return false;
  const size_t count = decryptor_.update(output.get(), as_bytes(bytes));
  return buffer_.write({output.get(), count});
}

SegmentSink::Step SegmentSink::receive(Connection& connection, std::uint64_t& received) {
  return decryptor_.active() ? receive_encrypted(connection, received)
                             : receive_clear(connection, received);
}

SegmentSink::Step SegmentSink::receive_clear(Connection& connection, std::uint64_t& received) {
  const std::span<unsigned char> storage = buffer_.reserve();
  if (storage.empty()) return Step::kNoMemory;
  const std::optional<size_t> count =
      connection.recv_into(storage.first(std::min(storage.size(), limits::kBodyRead)));
  if (!count) return Step::kBroken;
  if (*count == 0) return Step::kEnd;
  received += *count;
  buffer_.commit(*count);
  return Step::kTaken;
}

SegmentSink::Step SegmentSink::receive_encrypted(Connection& connection, std::uint64_t& received) {
  if (input_ == nullptr) input_ = aligned_bytes(limits::kBodyRead);
  if (input_ == nullptr) return Step::kNoMemory;
  const std::optional<size_t> count = connection.recv_into({input_.get(), limits::kBodyRead});
  if (!count) return Step::kBroken;
  if (*count == 0) return Step::kEnd;
  const std::span<unsigned char> output = reserve_at_least(buffer_, kDecryptedRead);
  if (output.size() < kDecryptedRead) return Step::kNoMemory;
  received += *count;
  buffer_.commit(decryptor_.update(output.data(), {input_.get(), *count}));
  return Step::kTaken;
}

bool SegmentSink::finish() {
  if (!decryptor_.active()) return true;
  const std::span<unsigned char> output = reserve_at_least(buffer_, Decryptor::kSlack);
  if (output.size() < Decryptor::kSlack) return false;
  buffer_.commit(decryptor_.finish(output.data()));
  return true;
}

}  // namespace weir
