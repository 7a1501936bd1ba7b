#include "upstream/decryptor.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>

#include "base/log.h"

namespace weir {

void Decryptor::Free::operator()(evp_cipher_ctx_st* context) const { EVP_CIPHER_CTX_free(context); }

bool Decryptor::start(std::string_view key) {
  std::array<unsigned char, 16> bytes{};
  std::copy_n(key.begin(), std::min(key.size(), bytes.size()), bytes.begin());
  constexpr std::array<unsigned char, 16> kZeroIv{};
  stop();
  context_.reset(EVP_CIPHER_CTX_new());
  if (active() && EVP_DecryptInit_ex(context_.get(), EVP_aes_128_cbc(), nullptr, bytes.data(),
                                     kZeroIv.data()) == 1) {
    return true;
  }
  log_err("Unable to set up the cipher");
  stop();
  return false;
}

size_t Decryptor::update(unsigned char* output, std::span<const unsigned char> input) {
  int count = 0;
  (void)EVP_DecryptUpdate(context_.get(), output, &count, input.data(),
                          static_cast<int>(input.size()));
  return static_cast<size_t>(std::max(count, 0));
}

size_t Decryptor::finish(unsigned char* output) {
  int count = 0;
  (void)EVP_DecryptFinal_ex(context_.get(), output, &count);
  return static_cast<size_t>(std::max(count, 0));
}

}  // namespace weir
