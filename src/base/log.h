// The program's log: free-form lines, progress on the standard output and
// problems on the standard error stream.
//
// Each line is written with one call under the lock of its stream, so that lines of
// different threads never mix. Only text passed to log_out_unflushed() is
// buffered; it is written with the next line.
//
// Threads: any. Calls block while the reader of their stream has stalled, except
//          log_err_at_once(). The other stream is not affected.
// Failure: not reported. Lines that cannot be written are lost.
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

// One line of progress: texts, integers and doubles, concatenated.
template <class... Pieces>
void log_out(const Pieces&... pieces) {
  log_detail::write_out(log_detail::compose(pieces...));
}

// One line about a problem. Unflushed progress is written first if that does not block.
template <class... Pieces>
void log_err(const Pieces&... pieces) {
  log_detail::write_err(log_detail::compose(pieces...));
}

// One line about a problem, written just before a restart: dropped if the stream does not
// accept it within 100 ms.
template <class... Pieces>
void log_err_at_once(const Pieces&... pieces) {
  log_detail::write_err_at_once(log_detail::compose(pieces...));
}

// Progress that may be buffered until the next line of either stream.
void log_out_unflushed(std::string_view text);

}  // namespace weir
