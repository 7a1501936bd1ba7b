#include "playlist/chunklist.h"

#include <string_view>
#include <utility>

#include "base/log.h"
#include "base/text.h"
#include "playlist/playlist_text.h"

namespace weir {

namespace {

constexpr std::string_view kSequenceTag = "#EXT-X-MEDIA-SEQUENCE:";
constexpr std::string_view kDurationTag = "#EXT-X-TARGETDURATION:";
constexpr std::string_view kKeyTag = "#EXT-X-KEY:";
constexpr std::string_view kEndTag = "#EXT-X-ENDLIST";

// What stands behind URI= and a quote, to the end of the line, without the last
// character, which should be the other quote. Attributes after it stay in it. A
// line without URI= is taken from its fifth character on.
std::string key_url_of(const std::string& line) {
  constexpr std::string_view kAttribute = "URI=";
  size_t start = line.find(kAttribute);
  start = start == std::string::npos ? kAttribute.size() : start + kAttribute.size() + 1;
  if (start > line.size()) return "";
  std::string url = line.substr(start);
  trim(url);
  if (!url.empty()) url.pop_back();
  return url;
}

std::int64_t number_after(std::string_view tag, const std::string& line) {
  return leading_number(line.substr(tag.size()));
}

}  // namespace

// Where the parser stands: what the next segment gets.
struct Chunklist::Cursor {
  std::uint64_t sequence = 0;
  std::string key_url;
};

Chunklist::Chunklist(std::string url_) : url(std::move(url_)) {}

bool Chunklist::parse(const std::string& text) {
  chunks.clear();
  const std::vector<std::string> lines = split(text, '\n');
  if (!is_playlist(lines)) return false;
  Cursor cursor;
  for (size_t i = 1; i < lines.size(); ++i) parse_line(lines[i], cursor);
  return true;
}

void Chunklist::parse_line(const std::string& line, Cursor& cursor) {
  if (line.starts_with(kSequenceTag)) {
    cursor.sequence = static_cast<std::uint64_t>(number_after(kSequenceTag, line));
  } else if (line.starts_with(kDurationTag)) {
    target_duration = static_cast<std::uint32_t>(number_after(kDurationTag, line));
  } else if (line.starts_with(kKeyTag)) {
    cursor.key_url = key_url_of(line);
    log_out("key url: ", cursor.key_url);
  } else if (line.starts_with(kEndTag)) {
    if (!chunks.empty()) chunks.back().last = true;
  } else if (!line.starts_with('#')) {
    std::string location = line;
    chunks.push_back({cursor.sequence, std::move(trim(location)), false, cursor.key_url});
    ++cursor.sequence;
  }
}

}  // namespace weir
