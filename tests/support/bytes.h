#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace weir::test {

// A text as the buffer's interface has it.
inline std::span<unsigned char> bytes_of(std::string& text) {
  return {reinterpret_cast<unsigned char*>(text.data()), text.size()};
}
inline std::span<const unsigned char> bytes_of(const std::string& text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// Compares each second text with what the function makes of the first.
using Function = std::string(const std::string&);
void expect_rows(Function* function, const std::vector<std::pair<std::string, std::string>>& rows);
// The same for words: in every second line are the results of the words above them.
void expect_words(Function* function, const std::string& table);

// The descriptor of a connection on which that has arrived, and then its end.
int received(const std::string& text);

// The text with `by` in place of each `old`.
std::string replaced(std::string text, const std::string& old, const std::string& by);

// Pseudo-random bytes, so that displaced ones are noticed.
std::string pattern(std::size_t size, unsigned seed = 1);

// AES-128-CBC with a zero initialisation vector and padding.
std::string encrypt(const std::string& plain, const std::string& key);
// The reverse, for any text and any key. The last block loses its padding, or is dropped
// if the padding is wrong; without `end` it is dropped anyway.
std::string decrypt(const std::string& text, const std::string& key, bool end = true);

}  // namespace weir::test
