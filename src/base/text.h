// Text utilities. Texts may contain any byte, NUL included.
//
// Threads:   any; nothing is shared.
// Ownership: views point into the argument.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace weir {

// Iterates over the pieces of a text between delimiters. Empty pieces at the start and in the
// middle are kept; a delimiter at the end adds no empty piece; "" has no pieces.
class Pieces {
 public:
  Pieces(std::string_view text, char delimiter) : rest_(text), delimiter_(delimiter) {}

  // Sets `piece` to the next one. False if there is none.
  [[nodiscard]] bool next(std::string_view& piece);

 private:
  std::string_view rest_;
  char delimiter_;
};

// All pieces, in order.
[[nodiscard]] std::vector<std::string_view> split(std::string_view text, char delimiter);

// The text without white space (as defined by isspace) at its end, its start, or both.
[[nodiscard]] std::string_view rtrim(std::string_view text);
[[nodiscard]] std::string_view ltrim(std::string_view text);
[[nodiscard]] std::string_view trim(std::string_view text);

// Percent-decoding in place; "+" becomes a space. A malformed escape does not fail: its value
// is the number that strtol reads from the two characters after "%" in base 16, 0 if none.
void url_decode(std::string& text);

// The decimal number at the start of the text, as strtoll reads it: leading white space and a
// sign are allowed, no digits give 0, numbers out of range are clamped. 64 bits on every
// processor, because media sequence numbers and lengths need them.
[[nodiscard]] std::int64_t leading_number(std::string_view text);

}  // namespace weir
