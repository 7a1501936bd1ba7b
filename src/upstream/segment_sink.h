#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "buffer/aligned.h"

namespace weir {

class CBuff;
class Connection;
class Decryptor;

// Takes the body of a media segment into a stream's buffer, decrypted on the way where
// the decryptor is active.
//
// Threads:   the buffer's producer.
// Ownership: the buffer and the decryptor stay the caller's.
// Failure:   where memory runs out the buffer says so, and nothing more can be taken.
class SegmentSink {
 public:
  SegmentSink(CBuff& buffer, Decryptor& decryptor) : buffer_(buffer), decryptor_(decryptor) {}

  // What came of a receive: bytes were taken; the connection has ended; it failed; there
  // is no memory.
  enum class Step { kTaken, kEnd, kBroken, kNoMemory };

  // Takes bytes already received. False when there is no memory.
  [[nodiscard]] bool write(std::string_view bytes);

  // The same without decrypting.
  [[nodiscard]] bool write_raw(std::string_view bytes);

  // Makes one receive, straight into the buffer or through the cipher, and adds the
  // number of bytes received to `received`.
  [[nodiscard]] Step receive(Connection& connection, std::uint64_t& received);

  // Takes what an active decryptor still holds. False when there is no memory.
  [[nodiscard]] bool finish();

 private:
  [[nodiscard]] Step receive_clear(Connection& connection, std::uint64_t& received);
  [[nodiscard]] Step receive_encrypted(Connection& connection, std::uint64_t& received);

  CBuff& buffer_;
  Decryptor& decryptor_;
  AlignedBytes input_;  // encrypted bytes, from the first receive on
};

}  // namespace weir
