// Text utilities shared by the request parser, the upstream client, the
// playlist parsers and the cache maps. Texts may hold any byte, NUL included.
//
// Threads: any; nothing is shared.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace weir {

// The pieces between delimiters, in order. Empty pieces inside and in front are
// kept; a delimiter at the end adds no last empty piece; "" has no pieces.
std::vector<std::string> split(const std::string& text, char delimiter);

// Remove white space (as isspace has it) in place, and return the same string.
std::string& rtrim(std::string& text);
std::string& ltrim(std::string& text);
std::string& trim(std::string& text);

// Percent-decoding in place; "+" is a space. Malformed escapes don't fail: what
// follows "%" is read as far as it is hexadecimal, and nothing readable is a NUL.
void url_decode(std::string& text);

// The decimal number at the start of the text, as strtoll reads it: leading
// white space and a sign are taken, no digits give 0, numbers too large are clamped.
// 64 bits on every processor: media sequence numbers and lengths need them.
std::int64_t leading_number(const std::string& text);

}  // namespace weir
