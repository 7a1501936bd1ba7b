#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

struct evp_cipher_ctx_st;

namespace weir {

// AES-128-CBC of one media segment (RFC 8216, section 4.3.2.4), PKCS#7 padding removed.
// Deliberate: the initialisation vector is always zero; streams for weir are encrypted so.
//
// Threads: one at a time.
class Decryptor {
 public:
  // What an update may write beyond the size of its input, and finish() at most.
  static constexpr size_t kSlack = 32;

  // Begins with the first 16 bytes of the key; a shorter one is padded with zeros.
  // False, with the reason on the error stream, where the library can't.
  [[nodiscard]] bool start(std::string_view key);

  // False before start() and after stop(): bytes then stay as they are.
  [[nodiscard]] bool active() const { return context_ != nullptr; }

  // Decrypts into `output`, which is larger than the input by kSlack, and returns how
  // many bytes that gave. Where the cipher fails there are none.
  [[nodiscard]] size_t update(unsigned char* output, std::span<const unsigned char> input);

  // The last block, without its padding; nothing when the padding is wrong.
  [[nodiscard]] size_t finish(unsigned char* output);

  void stop() { context_.reset(); }

 private:
  struct Free {
    void operator()(evp_cipher_ctx_st* context) const;
  };

  std::unique_ptr<evp_cipher_ctx_st, Free> context_;
};

}  // namespace weir
