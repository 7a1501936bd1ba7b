// The baseline of the benchmarks: one thread reads segments over one keep-alive connection,
// decrypts them if it has a key, and writes them to its only player. It buffers, adapts and retries
// nothing.
//
// relay LISTEN_PORT ORIGIN_PORT PATH_PREFIX SEGMENTS [KEY_FILE [SECONDS]]
//
// SECONDS: the interval between segments, as in a live stream. An empty KEY_FILE means no key.
#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kRead = 128 << 10;

sockaddr_in loopback(const char* port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(port)));
  return address;
}

int player(const char* port) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = loopback(port);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) abort();
  listen(listener, 1);
  const int fd = accept(listener, nullptr, nullptr);
  char request[4096];
  if (read(fd, request, sizeof request) <= 0) abort();
  return fd;
}

int origin(const char* port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = loopback(port);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) abort();
  return fd;
}

void write_all(int fd, const unsigned char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t count = write(fd, bytes, size);
    if (count <= 0) std::exit(0);
    bytes += count;
    size -= static_cast<std::size_t>(count);
  }
}

class Relay {
 public:
  Relay(int from, int to, std::string key) : from_(from), to_(to), key_(std::move(key)) {}

  void segment(const std::string& path) {
    const std::string request = "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
    write_all(from_, reinterpret_cast<const unsigned char*>(request.data()), request.size());
    std::size_t got = read_some();
    const std::string head(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(got));
    const std::size_t body = head.find("\r\n\r\n") + 4;
    std::size_t left = std::stoul(head.substr(head.find("Content-Length: ") + 16));
    if (!key_.empty()) start();
    pass(in_.data() + body, got - body);
    left -= got - body;
    for (; left > 0; left -= got) {
      got = read_some();
      pass(in_.data(), got);
    }
    if (!key_.empty()) finish();
  }

 private:
  std::size_t read_some() {
    const ssize_t count = read(from_, in_.data(), in_.size());
    if (count <= 0) abort();
    return static_cast<std::size_t>(count);
  }

  void start() {
    const std::array<unsigned char, 16> iv{};
    EVP_DecryptInit_ex(cipher_, EVP_aes_128_cbc(), nullptr,
                       reinterpret_cast<const unsigned char*>(key_.data()), iv.data());
  }

  void pass(const unsigned char* bytes, std::size_t size) {
    if (key_.empty()) return write_all(to_, bytes, size);
    int count = 0;
    EVP_DecryptUpdate(cipher_, out_.data(), &count, bytes, static_cast<int>(size));
    write_all(to_, out_.data(), static_cast<std::size_t>(count));
  }

  void finish() {
    int count = 0;
    EVP_DecryptFinal_ex(cipher_, out_.data(), &count);
    write_all(to_, out_.data(), static_cast<std::size_t>(count));
  }

  int from_;
  int to_;
  std::string key_;
  std::vector<unsigned char> in_ = std::vector<unsigned char>(kRead);
  std::vector<unsigned char> out_ = std::vector<unsigned char>(kRead + 32);
  EVP_CIPHER_CTX* cipher_ = EVP_CIPHER_CTX_new();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  std::string key;
  if (argc > 5) {
    std::ifstream file(argv[5], std::ios::binary);
    key.assign(std::istreambuf_iterator<char>(file), {});
  }
  const std::chrono::seconds pace{argc > 6 ? std::atoi(argv[6]) : 0};
  Relay relay(origin(argv[2]), player(argv[1]), key);
  auto due = std::chrono::steady_clock::now();
  for (int i = 1; i <= std::atoi(argv[4]); ++i) {
    std::this_thread::sleep_until(due);
    relay.segment(argv[3] + std::to_string(i) + ".ts");
    due += pace;
  }
}
