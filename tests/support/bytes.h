#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace weir::test {

// A text as a buffer takes it, and fills it.
inline std::span<unsigned char> bytes_of(std::string& text) {
  return {reinterpret_cast<unsigned char*>(text.data()), text.size()};
}
inline std::span<const unsigned char> bytes_of(const std::string& text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// Bytes that differ at every place where a mistake would show.
std::string pattern(std::size_t size, unsigned seed = 1);

// AES-128-CBC with a zero initialisation vector and padding, as segments have it.
std::string encrypt(const std::string& plain, const std::string& key);
// The reverse, for any text and any key. With `end`, the last block loses its
// padding, or is dropped when that is wrong; without it the cipher keeps the block.
std::string decrypt(const std::string& text, const std::string& key, bool end = true);

}  // namespace weir::test
