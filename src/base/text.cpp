#include "base/text.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace weir {

namespace {

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> pieces;
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find(delimiter, start), text.size());
    pieces.emplace_back(text, start, end - start);
    start = end + 1;
  }
  return pieces;
}

std::string& rtrim(std::string& text) {
  const auto last = std::find_if_not(text.rbegin(), text.rend(), is_space);
  text.erase(last.base(), text.end());
  return text;
}

std::string& ltrim(std::string& text) {
  text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), is_space));
  return text;
}

std::string& trim(std::string& text) { return ltrim(rtrim(text)); }

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

std::int64_t leading_number(const std::string& text) {
  return std::strtoll(text.c_str(), nullptr, 10);
}

}  // namespace weir
