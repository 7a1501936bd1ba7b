#include "server/request_line.h"

#include <unistd.h>

#include <algorithm>

#include "base/limits.h"
#include "base/log.h"
#include "base/text.h"

namespace weir {

namespace {

// A key ends at "=" only, a value at "&" only: "a&b=1" has the key "a&b", "a=b=c" the value
// "b=c".
void parse_query(std::string_view query, RequestLine& request) {
  for (size_t start = 0; start < query.size();) {
    const size_t key_end = std::min(query.find('=', start), query.size());
    auto& [key, value] = request.params.emplace_back(query.substr(start, key_end - start), "");
    if (key_end + 1 >= query.size()) return;
    const size_t value_end = std::min(query.find('&', key_end + 1), query.size());
    value = query.substr(key_end + 1, value_end - key_end - 1);
    url_decode(value);
    start = value_end + 1;
  }
}

void split_resource(std::string_view resource, RequestLine& request) {
  const size_t mark = resource.find('?');
  request.path = resource.substr(0, mark);
  url_decode(request.path);
  if (mark != std::string_view::npos) parse_query(resource.substr(mark + 1), request);
}

}  // namespace

const std::string* RequestLine::get_param(std::string_view key) const {
  const auto found = std::find_if(params.begin(), params.end(),
                                  [key](const auto& param) { return param.first == key; });
  return found == params.end() ? nullptr : &found->second;
}

std::optional<RequestLine> parse_request_line(std::string_view line) {
  const std::vector<std::string_view> words = split(line, ' ');
  log_out("Request::parse_resource -- split");
  if (words.size() < 2) {
    log_out("Invald Request");
    return std::nullopt;
  }
  RequestLine request;
  if (words[0] == "GET") {
    log_out("it's GET");
    request.method = Method::kGet;
  } else if (words[0] == "HEAD") {
    request.method = Method::kHead;
  }
  log_out("parse url");
  split_resource(words[1], request);
  log_out("after parse url");
  return request;
}

// CR counts towards the limit but is not stored. A failed read counts as a byte, so that a silent
// client is dropped only at the limit.
std::string readline(int fd) {
  std::string line;
  for (int count = 0; count < limits::kRequestLine;) {
    char byte;
    const ssize_t result = read(fd, &byte, 1);
    if (result == 0 || (result > 0 && byte == '\n')) break;
    if (result > 0 && byte != '\r') line += byte;
    ++count;
  }
  return line;
}

void skip_headers(int fd) {
  while (!readline(fd).empty()) {
  }
}

}  // namespace weir
