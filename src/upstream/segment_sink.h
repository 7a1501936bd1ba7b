#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "buffer/aligned.h"

namespace weir {

class CBuff;
class Connection;
class Decryptor;

// Stores the body of a media segment in a stream's buffer, decrypted if the decryptor is
// active.
//
// Threads:   only the buffer's producer.
// Ownership: the caller owns the buffer and the decryptor.
// Failure:   the buffer reports lack of memory; nothing more may be stored after that.
class SegmentSink {
 public:
  SegmentSink(CBuff& buffer, Decryptor& decryptor) : buffer_(buffer), decryptor_(decryptor) {}

  // The result of a receive.
  enum class Step {
    kTaken,     // bytes were received and stored
    kEnd,       // the server has closed the connection
    kBroken,    // the receive failed
    kNoMemory,  // there is no memory to store bytes
  };

  // Stores bytes already received. False if there is no memory.
  [[nodiscard]] bool write(std::string_view bytes);

  // The same without decrypting.
  [[nodiscard]] bool write_raw(std::string_view bytes);

  // Receives once, directly into the buffer or through the cipher, and adds the number of bytes
  // received to `received`.
  [[nodiscard]] Step receive(Connection& connection, std::uint64_t& received);

  // Stores the bytes that an active decryptor still holds. False if there is no memory.
  [[nodiscard]] bool finish();

 private:
  [[nodiscard]] Step receive_clear(Connection& connection, std::uint64_t& received);
  [[nodiscard]] Step receive_encrypted(Connection& connection, std::uint64_t& received);

  CBuff& buffer_;
  Decryptor& decryptor_;
  AlignedBytes input_;  // encrypted bytes; allocated by the first receive
};

}  // namespace weir
