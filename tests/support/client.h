#pragma once

#include <cstddef>
#include <string>

namespace weir::test {

// A raw HTTP client: says what it is told and reads what comes.
class Client {
 public:
  // Connects to loopback, or takes over a socket.
  explicit Client(int port);
  static Client of_socket(int fd);
  ~Client();
  Client(Client&& other) noexcept;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  Client& send(const std::string& text);
  // Up to the end of the connection, or so many bytes if they come before.
  std::string read(size_t most = static_cast<size_t>(-1));
  void close();

 private:
  struct Socket {
    int fd;
  };
  explicit Client(Socket socket) : fd_(socket.fd) {}
  int fd_;
};

// Percent-encodes all but letters and digits.
std::string url_encode(const std::string& text);

// Bytes that differ at every place where a mistake would show.
std::string pattern(size_t size, unsigned seed = 1);

// AES-128-CBC with a zero initialisation vector and padding, as segments have it.
std::string encrypt(const std::string& plain, const std::string& key);

// Of this process: open descriptors, and threads.
int open_descriptors();
int threads();

// Waits until there are no more threads and descriptors than these: what ran
// beside the test has ended, the connections of the origin with it.
bool settles_at(int thread_count, int descriptor_count);

}  // namespace weir::test
