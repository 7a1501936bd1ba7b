#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

struct evp_cipher_ctx_st;

namespace weir {

// Decrypts one media segment: AES-128-CBC (RFC 8216, section 4.3.2.4), PKCS#7 padding.
// Deliberate: the initialisation vector is always zero, because streams for weir are
// encrypted that way.
//
// Threads: one at a time.
class Decryptor {
 public:
  // Bytes: an update writes at most kSlack more than its input, finish() at most kSlack.
  static constexpr size_t kSlack = 32;

  // Uses the first 16 bytes of the key; a shorter key is padded with zeros. False, with a line
  // on the error stream, if the library cannot set up the cipher.
  [[nodiscard]] bool start(std::string_view key);

  // False before start() and after stop(): media is then passed through unchanged.
  [[nodiscard]] bool active() const { return context_ != nullptr; }

  // Decrypts into `output`, which must be kSlack bytes larger than the input. Returns the number
  // of bytes written, 0 if the cipher fails.
  [[nodiscard]] size_t update(unsigned char* output, std::span<const unsigned char> input);

  // Writes the last block without its padding; returns 0 if the padding is invalid.
  [[nodiscard]] size_t finish(unsigned char* output);

  void stop() { context_.reset(); }

 private:
  struct Free {
    void operator()(evp_cipher_ctx_st* context) const;
  };

  std::unique_ptr<evp_cipher_ctx_st, Free> context_;
};

}  // namespace weir
