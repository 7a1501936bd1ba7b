#include "support/client.h"

#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>
#include <utility>

namespace weir::test {

Client::Client(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(static_cast<uint16_t>(port));
  if (connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) close();
}

Client Client::of_socket(int fd) { return Client(Socket{fd}); }

Client::~Client() { close(); }

Client::Client(Client&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Client& Client::send(const std::string& text) {
  (void)::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
  return *this;
}

std::string Client::read(size_t most) {
  std::string text;
  char piece[65536];
  ssize_t count;
  while (text.size() < most &&
         (count = ::read(fd_, piece, std::min(sizeof piece, most - text.size()))) > 0) {
    text.append(piece, static_cast<size_t>(count));
  }
  return text;
}

void Client::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

std::string url_encode(const std::string& text) {
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    char escape[4];
    std::snprintf(escape, sizeof escape, "%%%02X", byte);
    encoded += std::isalnum(byte) != 0 ? std::string(1, c) : escape;
  }
  return encoded;
}

std::string pattern(size_t size, unsigned seed) {
  std::minstd_rand random(seed);
  std::string text(size, '\0');
  std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random() >> 8); });
  return text;
}

std::string encrypt(const std::string& plain, const std::string& key) {
  const auto bytes = [](const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
  };
  const unsigned char zero_iv[16] = {};
  std::string out(plain.size() + 16, '\0');
  auto* const target = reinterpret_cast<unsigned char*>(out.data());
  int first = 0;
  int last = 0;
  EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex(context, EVP_aes_128_cbc(), nullptr, bytes(key), zero_iv);
  EVP_EncryptUpdate(context, target, &first, bytes(plain), static_cast<int>(plain.size()));
  EVP_EncryptFinal_ex(context, target + first, &last);
  EVP_CIPHER_CTX_free(context);
  out.resize(static_cast<size_t>(first + last));
  return out;
}

namespace {
int entries(const char* folder) {
  const std::filesystem::directory_iterator begin(folder);
  return static_cast<int>(std::distance(begin, std::filesystem::directory_iterator()));
}
}  // namespace

int open_descriptors() { return entries("/proc/self/fd"); }
int threads() { return entries("/proc/self/task"); }

bool settles_at(int thread_count, int descriptor_count) {
  for (int turn = 0; turn < 500; ++turn) {
    if (threads() <= thread_count && open_descriptors() <= descriptor_count) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

}  // namespace weir::test
