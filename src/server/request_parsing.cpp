// How the request line is read and taken apart.
#include <unistd.h>

#include <algorithm>

#include "base/log.h"
#include "base/text.h"
#include "server/request.h"

namespace weir {

namespace {
constexpr int kMaxLine = 4096;  // one more than the bytes that a line may have
}  // namespace

// The counter starts at 1; CR advances it but isn't stored, LF doesn't, and a
// read error does, so that a silent client is given up only when it reaches the
// limit. That is meant. The rest of a longer line is what the next call reads.
int Request::readline(std::string& line, int maxLength) {
  line.clear();
  int count = 1;
  while (count < maxLength) {
    char byte;
    const ssize_t result = read(fd, &byte, 1);
    if (result == 0) return count == 1 ? 0 : count;
    if (result > 0 && byte == '\n') break;
    if (result > 0 && byte != '\r') line += byte;
    ++count;
  }
  return count;
}

void Request::skip_headers() {
  std::string line;
  do {
    (void)readline(line, kMaxLine);
  } while (!line.empty());
}

void Request::parse_resource() {
  log_out("Request::parse_resource");
  std::string line;
  (void)readline(line, kMaxLine);
  log_out("Request::parse_resource -- readline: ", line);
  const std::vector<std::string> words = split(line, ' ');
  log_out("Request::parse_resource -- split");
  if (words.size() < 2) {
    log_out("Invald Request");
    reject("Invalid Request");
  }
  if (words[0] == "GET") {
    log_out("it's GET");
    method = 0;
  } else {
    method = words[0] == "HEAD" ? 1 : 2;
  }
  log_out("parse url");
  parse_url(words[1]);
  log_out("after parse url");
  version = words.size() > 2 && words[2] == "HTTP/1.1" ? 0 : 1;
}

void Request::parse_url(const std::string& resource) {
  const size_t mark = resource.find('?');
  path = resource.substr(0, mark);
  url_decode(path);
  if (mark != std::string::npos) parse_query(resource.substr(mark + 1));
}

// A key ends at "=", a value at "&", and neither means anything in the other:
// "a&b=1" has the key "a&b", "a=b=c" the value "b=c".
void Request::parse_query(const std::string& query) {
  for (size_t start = 0; start < query.size();) {
    const size_t key_end = std::min(query.find('=', start), query.size());
    auto& [key, value] = params.emplace_back(query.substr(start, key_end - start), "");
    if (key_end + 1 >= query.size()) return;
    const size_t value_end = std::min(query.find('&', key_end + 1), query.size());
    value = query.substr(key_end + 1, value_end - key_end - 1);
    url_decode(value);
    start = value_end + 1;
  }
}

const std::string* Request::get_param(const std::string& name) const {
  for (const auto& [key, value] : params) {
    if (key == name) return &value;
  }
  return nullptr;
}

}  // namespace weir
