#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <span>
#include <string>

namespace weir::test {

// A port of loopback, as the system calls take it.
sockaddr_in loopback(int port);

// A connection to a port of loopback; closed with read_and_close() only.
int connect_to(int port);

// False when the peer is gone.
bool send_all(int fd, const std::string& text);

// Up to the end of the connection, or so many bytes if they come before.
std::string read_and_close(int fd, size_t most = static_cast<size_t>(-1));

// A text as a buffer takes it, and fills it.
inline std::span<unsigned char> bytes_of(std::string& text) {
  return {reinterpret_cast<unsigned char*>(text.data()), text.size()};
}
inline std::span<const unsigned char> bytes_of(const std::string& text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// All that a buffer holds.
template <class Buffer>
std::string drain(Buffer& buffer) {
  std::string text(buffer.fill(), '\0');
  if (!text.empty()) text.resize(buffer.read(bytes_of(text)));
  return text;
}

// Bytes that differ at every place where a mistake would show.
std::string pattern(size_t size, unsigned seed = 1);

// AES-128-CBC with a zero initialisation vector and padding, as segments have it.
std::string encrypt(const std::string& plain, const std::string& key);
// The reverse, for any text and any key. With `end`, the last block loses its
// padding, or is dropped when that is wrong; without it the cipher keeps the block.
std::string decipher(const std::string& text, const std::string& key, bool end = true);

// What this process has while nothing is going on.
class Baseline {
 public:
  // Waits until there is no more than that: what ran beside the test has ended,
  // the connections of the origin with it.
  bool is_reached() const;

 private:
  static long entries(const char* folder);
  long threads_ = entries("/proc/self/task");
  long descriptors_ = entries("/proc/self/fd");
};

}  // namespace weir::test
