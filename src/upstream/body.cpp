// How the body of a response reaches a string or the buffer, deciphered on the way.
#include <openssl/evp.h>

#include <algorithm>
#include <array>

#include "base/log.h"
#include "base/text.h"
#include "buffer/aligned.h"
#include "buffer/cbuff.h"
#include "upstream/ucurl.h"

namespace weir {

namespace {

constexpr std::size_t kMaxRead = 131071;  // bytes in one read
constexpr std::size_t kCipherSlack = 32;  // what the cipher may add to its input
constexpr std::size_t kCipherRoom = kMaxRead + kCipherSlack;
constexpr std::size_t kKeySize = 16;
constexpr std::chrono::seconds kReadTimeout{2};

// Deciphers into `output`, which has room for the input and kCipherSlack more.
// A cipher step that fails gives no bytes.
std::size_t decipher(EVP_CIPHER_CTX* cipher, unsigned char* output, const void* input,
                     std::size_t length) {
  int count = 0;
  (void)EVP_DecryptUpdate(cipher, output, &count, static_cast<const unsigned char*>(input),
                          static_cast<int>(length));
  return static_cast<std::size_t>(std::max(count, 0));
}

// Storage for more than one full read, in a fresh block where the tail has too
// little. Less than that only when memory ran out.
std::uint64_t reserve_at_least(CBuff& cbuff, std::size_t wanted, unsigned char** out) {
  const std::uint64_t room = cbuff.reserve(out);
  return room >= wanted ? room : cbuff.sealAndReserve(out);
}

}  // namespace

void CipherFree::operator()(evp_cipher_ctx_st* context) const { EVP_CIPHER_CTX_free(context); }

bool UCurl::download_body(std::string& response, Body& body, const std::string& key, bool resume) {
  if (!prepare_cipher(key, resume)) return false;
  if (body.out != nullptr) body.out->clear();
  body.received = 0;
  if (http11 == 0) {
    // Neither a length nor the cipher means anything here; that is meant.
    read_to_end(response, body);
  } else {
    const std::optional<std::uint64_t> length = content_length();
    position = range_start();
    if (!length) {
      log_err("Content-Length unknown");
      cipher.reset();
      return false;
    }
    position += response.size();
    body.received = response.size();
    if (body.out != nullptr) {
      fill_string(response, body, *length);
    } else {
      fill_buffer(response, body, *length);
    }
  }
  cipher.reset();
  return true;
}

// The initialisation vector is always zero. A download that resumes goes on with
// the context that the one before left, in the middle of the chain. Without a
// cipher, or with half of one, there is nothing to decipher with: the download
// fails, to be tried again from its start.
bool UCurl::prepare_cipher(const std::string& key, bool resume) {
  if (key.empty()) cipher.reset();
  if (key.empty() || resume) return true;
  std::array<unsigned char, kKeySize> bytes{};  // a short key is padded with zeros
  std::copy_n(key.begin(), std::min(key.size(), bytes.size()), bytes.begin());
  constexpr std::array<unsigned char, 16> kZeroIv{};
  cipher.reset();
  cipher.reset(EVP_CIPHER_CTX_new());
  if (cipher != nullptr && EVP_DecryptInit_ex(cipher.get(), EVP_aes_128_cbc(), nullptr,
                                              bytes.data(), kZeroIv.data()) == 1) {
    return true;
  }
  log_err("Unable to set up the cipher");
  cipher.reset();
  close_if_open();  // in the middle of a response
  return false;
}

std::optional<std::uint64_t> UCurl::content_length() const {
  const std::string* const value = find_header("Content-Length");
  if (value == nullptr) return std::nullopt;
  return static_cast<std::uint64_t>(leading_number(*value));
}

// The first byte of a Content-Range (RFC 9110, section 14.4), 0 without one.
std::uint64_t UCurl::range_start() const {
  constexpr std::string_view kUnit = "bytes ";
  const std::string* const value = find_header("Content-Range");
  const size_t unit = value == nullptr ? std::string::npos : value->find(kUnit);
  if (unit == std::string::npos) return 0;
  // Without a "-" behind it the number may go on to the end.
  const size_t start = unit + kUnit.size();
  const size_t length = value->find('-') - start;
  return static_cast<std::uint64_t>(leading_number(value->substr(start, length)));
}

void UCurl::read_to_end(const std::string& first, Body& body) {
  std::string piece = first;
  do {
    body.received += piece.size();
    if (body.out != nullptr) {
      append_bounded(*body.out, piece);
    } else if (body.cbuff->write(piece.data(), piece.size()) < piece.size()) {
      return close_if_open();
    }
    piece = recv_string(kMaxRead, kReadTimeout);
  } while (!piece.empty());
}

bool UCurl::stopped(const Body& body) {
  // Relaxed: nothing is read because of it, and late by one read is soon enough.
  if (body.stop_flag == nullptr || !body.stop_flag->load(std::memory_order_relaxed)) return false;
  log_out("forced stream break. should finish");
  close_if_open();
  return true;
}

// The buffer refused a block and has said so. The connection is in the middle of
// a body and of no more use.
bool UCurl::out_of_memory() {
  close_if_open();
  return false;
}

void UCurl::fill_string(const std::string& first, Body& body, std::uint64_t length) {
  *body.out = first;
  while (body.received < length) {
    const std::string piece = recv_string(kMaxRead, kReadTimeout);
    if (piece.empty() || stopped(body)) return;
    append_bounded(*body.out, piece);
    body.received += piece.size();
  }
}

void UCurl::fill_buffer(const std::string& first, Body& body, std::uint64_t length) {
  bool more = deliver_first(first, *body.cbuff);
  AlignedBytes input;
  if (more && cipher != nullptr && body.received < length) {
    input = aligned_bytes(kMaxRead);
    if (input == nullptr) more = out_of_memory();
  }
  while (more && body.received < length && !stopped(body)) {
    more = cipher != nullptr ? receive_encrypted(body, input.get()) : receive_clear(body);
  }
  if (cipher != nullptr) finish_cipher(*body.cbuff);
}

// The bytes that came with the head.
bool UCurl::deliver_first(const std::string& first, CBuff& cbuff) {
  if (cipher == nullptr) {
    return cbuff.write(first.data(), first.size()) == first.size() || out_of_memory();
  }
  const AlignedBytes output = aligned_bytes(std::max(first.size() + kCipherSlack, kCipherRoom));
  if (output == nullptr) return out_of_memory();
  const std::size_t count = decipher(cipher.get(), output.get(), first.data(), first.size());
  return cbuff.write(output.get(), count) == count || out_of_memory();
}

// One read, right into the buffer. False at the end of the stream or on an error.
bool UCurl::receive_clear(Body& body) {
  unsigned char* output;
  const std::uint64_t room = body.cbuff->reserve(&output);
  if (room == 0) return out_of_memory();
  const std::int64_t count =
      recv_into(output, static_cast<std::size_t>(std::min<std::uint64_t>(room, kMaxRead)));
  if (count <= 0) return false;
  body.received += static_cast<std::uint64_t>(count);
  body.cbuff->commit(static_cast<std::uint64_t>(count));
  position += static_cast<std::uint64_t>(count);
  return true;
}

// One read, deciphered right into the buffer.
bool UCurl::receive_encrypted(Body& body, unsigned char* input) {
  const std::int64_t count = recv_into(input, kMaxRead);
  if (count <= 0) return false;
  unsigned char* output;
  if (reserve_at_least(*body.cbuff, kCipherRoom, &output) < kCipherRoom) return out_of_memory();
  const auto length = static_cast<std::size_t>(count);
  body.received += length;
  body.cbuff->commit(decipher(cipher.get(), output, input, length));
  position += length;
  return true;
}

// The last block, without its padding; nothing when the padding is wrong.
void UCurl::finish_cipher(CBuff& cbuff) {
  unsigned char* output;
  if (reserve_at_least(cbuff, kCipherSlack, &output) < kCipherSlack) {
    (void)out_of_memory();
    return;
  }
  int count = 0;
  (void)EVP_DecryptFinal_ex(cipher.get(), output, &count);
  cbuff.commit(static_cast<std::uint64_t>(std::max(count, 0)));
}

}  // namespace weir
