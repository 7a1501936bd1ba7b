#include "upstream/response.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "base/limits.h"
#include "base/log.h"
#include "base/text.h"
#include "base/wait.h"
#include "upstream/connection.h"

namespace weir {

namespace {

// A server that closes inside its header block fails like a silent one. Deliberate: sleeps
// for the rest of the time-out, because callers rely on that time between attempts.
void fail_inside_head(Connection& connection, std::chrono::steady_clock::time_point since) {
  const auto left = since + limits::kReadTimeout - std::chrono::steady_clock::now();
  sleep_for(std::chrono::ceil<std::chrono::milliseconds>(left));
  connection.fail_receive("recv timeout1");
}

}  // namespace

Outcome Response::read_status(Connection& connection) {
  const std::optional<std::string> piece =
      connection.recv_string(limits::kHeadRead, limits::kStatusTimeout);
  if (!piece) return Outcome::kBroken;
  rest += *piece;
  if (rest.empty()) {
    log_out("socket is closed! no response!");
    return Outcome::kNoAnswer;
  }
  const size_t end = rest.find("\r\n");
  if (end == std::string::npos) {
    log_err("Where is http state?");
    log_out(rest, " len:", rest.size());
    return Outcome::kNoAnswer;
  }
  const std::string line = rest.substr(0, end);
  rest.erase(0, end + 2);
  if (line.empty()) {
    log_err("Empty http state?");
    return Outcome::kNoAnswer;
  }
  const std::vector<std::string_view> words = split(line, ' ');
  if (words[0] != "HTTP/1.1" && words[0] != "HTTP/1.0") {
    log_err("Not HTTP/1.x?");
    return Outcome::kNoAnswer;
  }
  http11_ = words[0] == "HTTP/1.1";
  if (words.size() > 1 && words[1].starts_with('2')) return Outcome::kDone;
  log_err("HTTP response first_line: ", line);
  return Outcome::kUnusable;
}

bool Response::read_headers(Connection& connection) {
  constexpr std::string_view kHeadEnd = "\r\n\r\n";
  size_t searched = 0;
  size_t end;
  while ((end = rest.find(kHeadEnd, searched)) == std::string::npos) {
    // The blank line may straddle two reads.
    searched = rest.size() - std::min(rest.size(), kHeadEnd.size() - 1);
    const auto since = std::chrono::steady_clock::now();
    const std::optional<std::string> piece =
        connection.recv_string(limits::kHeadRead, limits::kReadTimeout);
    if (!piece) return false;
    if (piece->empty()) {
      fail_inside_head(connection, since);
      return false;
    }
    if (rest.size() + piece->size() > limits::kMaxHead) {
      connection.fail_receive("recv error");
      return false;
    }
    rest += *piece;
  }
  headers_ = rest.substr(0, end);
  rest.erase(0, end + kHeadEnd.size());
  return true;
}

// Names are case-sensitive; the first field with the name counts.
std::optional<std::string_view> Response::find_header(std::string_view name) const {
  Pieces lines(headers_, '\n');
  for (std::string_view line; lines.next(line);) {
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos && line.substr(0, colon) == name) {
      return trim(line.substr(colon + 1));
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> Response::content_length() const {
  const std::optional<std::string_view> value = find_header("Content-Length");
  if (!value) return std::nullopt;
  return static_cast<std::uint64_t>(leading_number(*value));
}

std::uint64_t Response::position() const {
  constexpr std::string_view kUnit = "bytes ";
  const std::string_view value = find_header("Content-Range").value_or("");
  const size_t unit = value.find(kUnit);
  if (unit == std::string_view::npos) return 0;
  // The "-" may be missing, or precede the unit: the number then extends to the end.
  const size_t start = unit + kUnit.size();
  return static_cast<std::uint64_t>(leading_number(value.substr(start, value.find('-') - start)));
}

}  // namespace weir
