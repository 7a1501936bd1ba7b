#include "support/client.h"

#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <random>

#include "support/captured_log.h"

namespace weir::test {

sockaddr_in loopback(int port) {
  return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

int connect_to(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in to = loopback(port);
  (void)connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  return fd;
}

bool send_all(int fd, const std::string& text) {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

std::string read_and_close(int fd, size_t most) {
  std::string text;
  char piece[65536];
  ssize_t count;
  while ((count = read(fd, piece, std::min(sizeof piece, most - text.size()))) > 0) {
    text.append(piece, static_cast<size_t>(count));
  }
  close(fd);
  return text;
}

std::string pattern(size_t size, unsigned seed) {
  std::minstd_rand random(seed);
  std::string text(size, '\0');
  std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random() >> 8); });
  return text;
}

// One pass of the cipher, without looking at what it thinks of the last block.
static std::string cipher(std::string in, std::string key, int encrypting, bool end) {
  const auto bytes = [](auto& text) { return reinterpret_cast<unsigned char*>(text.data()); };
  key.resize(16);
  const unsigned char zero_iv[16] = {};
  std::string out(in.size() + 32, '\0');
  int size = 0;
  int last = 0;
  EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
  EVP_CipherInit_ex(context, EVP_aes_128_cbc(), nullptr, bytes(key), zero_iv, encrypting);
  EVP_CipherUpdate(context, bytes(out), &size, bytes(in), static_cast<int>(in.size()));
  if (!end || EVP_CipherFinal_ex(context, bytes(out) + size, &last) != 1) last = 0;
  EVP_CIPHER_CTX_free(context);
  out.resize(static_cast<size_t>(size + last));
  return out;
}

std::string encrypt(const std::string& plain, const std::string& key) {
  return cipher(plain, key, 1, true);
}

std::string decipher(const std::string& text, const std::string& key, bool end) {
  return cipher(text, key, 0, end);
}

long Baseline::entries(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder), {});
}

bool Baseline::is_reached() const {
  return eventually([this] {
    const Baseline now;
    return now.threads_ <= threads_ && now.descriptors_ <= descriptors_;
  });
}

}  // namespace weir::test
