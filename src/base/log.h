// The program's log: free-form lines, progress on the standard output and
// problems on the standard error stream.
//
// A line is composed whole and written with one call under the lock of its stream,
// so that lines of different threads never mix. Every line is written through
// at once, except for text given to log_out_unflushed(), which waits for the
// next line. A stream that can't be written to loses its lines and nothing else.
//
// Threads: any. A caller waits until the reader of that stream reads, except in
//          log_err_at_once(). The other stream is not affected.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdio>
#include <string>
#include <string_view>

namespace weir {

namespace log_detail {

inline void append(std::string& line, std::string_view piece) { line += piece; }

template <std::integral Number>
void append(std::string& line, Number piece) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, piece).ptr;
  line.append(digits, end);
}

// Six significant digits, as an output stream prints a double by default.
inline void append(std::string& line, double piece) {
  char digits[32];
  line.append(digits, static_cast<size_t>(std::snprintf(digits, sizeof digits, "%g", piece)));
}

template <class... Pieces>
std::string compose(const Pieces&... pieces) {
  std::string line;
  (append(line, pieces), ...);
  line += '\n';
  return line;
}

void write_out(std::string_view line);
void write_err(std::string_view line);
void write_err_at_once(std::string_view line);

}  // namespace log_detail

// One line of progress. Pieces are texts, integers and doubles, joined as they are.
template <class... Pieces>
void log_out(const Pieces&... pieces) {
  log_detail::write_out(log_detail::compose(pieces...));
}

// One line about a problem. Progress still waiting is written first if that can be
// done without waiting.
template <class... Pieces>
void log_err(const Pieces&... pieces) {
  log_detail::write_err(log_detail::compose(pieces...));
}

// One line about a problem that must not hold up what follows: it is dropped when the
// stream doesn't accept it within 100 ms.
template <class... Pieces>
void log_err_at_once(const Pieces&... pieces) {
  log_detail::write_err_at_once(log_detail::compose(pieces...));
}

// Progress that may wait until the next line of either kind.
void log_out_unflushed(std::string_view text);

}  // namespace weir
