// Text utilities shared by the request parser, the upstream client, the
// playlist parsers and the cache maps. Texts may hold any byte, NUL included.
//
// Threads: any; nothing is shared. Views point into the text that was given.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace weir {

// The pieces of a text between delimiters, one after the other, without a list of them.
// Empty pieces inside and in front are kept; a delimiter at the end adds no last empty
// piece; "" has no pieces.
class Pieces {
 public:
  Pieces(std::string_view text, char delimiter) : rest_(text), delimiter_(delimiter) {}

  // Sets `piece` to the next one. False when there is none.
  [[nodiscard]] bool next(std::string_view& piece);

 private:
  std::string_view rest_;
  char delimiter_;
};

// All of them, in order.
[[nodiscard]] std::vector<std::string_view> split(std::string_view text, char delimiter);

// The text without white space (as isspace has it) at its end, its start, or both.
[[nodiscard]] std::string_view rtrim(std::string_view text);
[[nodiscard]] std::string_view ltrim(std::string_view text);
[[nodiscard]] std::string_view trim(std::string_view text);

// Percent-decoding in place; "+" is a space. Malformed escapes don't fail: what
// follows "%" is read as far as it is hexadecimal, and nothing readable is a NUL.
void url_decode(std::string& text);

// The decimal number at the start of the text, as strtoll reads it: leading
// white space and a sign are taken, no digits give 0, numbers too large are clamped.
// 64 bits on every processor: media sequence numbers and lengths need them.
[[nodiscard]] std::int64_t leading_number(std::string_view text);

}  // namespace weir
