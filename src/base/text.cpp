#include "base/text.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace weir {

namespace {

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

bool Pieces::next(std::string_view& piece) {
  if (rest_.empty()) return false;
  const size_t end = std::min(rest_.find(delimiter_), rest_.size());
  piece = rest_.substr(0, end);
  rest_.remove_prefix(std::min(end + 1, rest_.size()));
  return true;
}

std::vector<std::string_view> split(std::string_view text, char delimiter) {
  std::vector<std::string_view> all;
  Pieces pieces(text, delimiter);
  for (std::string_view piece; pieces.next(piece);) all.push_back(piece);
  return all;
}

std::string_view rtrim(std::string_view text) {
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view ltrim(std::string_view text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  return text;
}

std::string_view trim(std::string_view text) { return ltrim(rtrim(text)); }

void url_decode(std::string& text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      decoded += ' ';
    } else if (text[i] == '%') {
      const std::string digits = text.substr(i + 1, 2);
      decoded += static_cast<char>(std::strtol(digits.c_str(), nullptr, 16));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  text = std::move(decoded);
}

std::int64_t leading_number(std::string_view text) {
  return std::strtoll(std::string(text).c_str(), nullptr, 10);
}

}  // namespace weir
