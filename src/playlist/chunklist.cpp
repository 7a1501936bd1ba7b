#include "playlist/chunklist.h"

#include <memory>

#include "base/limits.h"
#include "base/log.h"
#include "base/text.h"
#include "playlist/playlist_reader.h"

namespace weir {

namespace {

constexpr std::string_view kSequenceTag = "#EXT-X-MEDIA-SEQUENCE:";
constexpr std::string_view kDurationTag = "#EXT-X-TARGETDURATION:";
constexpr std::string_view kKeyTag = "#EXT-X-KEY:";
constexpr std::string_view kEndTag = "#EXT-X-ENDLIST";

// What follows URI= and a quote, to the end of the line, without the last character,
// which should be the closing quote. Attributes after it stay in it. A line without URI=
// is taken from its fifth character on.
std::string_view key_url_of(std::string_view line) {
  constexpr std::string_view kAttribute = "URI=";
  size_t start = line.find(kAttribute);
  start = start == std::string_view::npos ? kAttribute.size() : start + kAttribute.size() + 1;
  if (start > line.size()) return "";
  std::string_view url = trim(line.substr(start));
  if (!url.empty()) url.remove_suffix(1);
  return url;
}

std::int64_t number_after(std::string_view tag, std::string_view line) {
  return leading_number(line.substr(tag.size()));
}

}  // namespace

// What the next segment gets.
struct Chunklist::Cursor {
  std::uint64_t sequence = 0;
  std::shared_ptr<const std::string> key_url;
};

void Chunklist::parse(std::string_view text) {
  chunks = {};
  PlaylistReader reader(text);
  if (!reader.read_header()) return;
  Cursor cursor;
  bool accepted = true;
  for (std::string_view line; accepted && reader.next(line);) accepted = parse_line(line, cursor);
  if (!accepted || reader.met_long_line()) chunks = {};
}

bool Chunklist::parse_line(std::string_view line, Cursor& cursor) {
  if (line.starts_with(kSequenceTag)) {
    cursor.sequence = static_cast<std::uint64_t>(number_after(kSequenceTag, line));
  } else if (line.starts_with(kDurationTag)) {
    target_duration = static_cast<std::uint32_t>(number_after(kDurationTag, line));
  } else if (line.starts_with(kKeyTag)) {
    const std::string_view key_url = key_url_of(line);
    cursor.key_url = key_url.empty() ? nullptr : std::make_shared<const std::string>(key_url);
    log_out("key url: ", key_url);
  } else if (line.starts_with(kEndTag)) {
    if (!chunks.empty()) chunks.back().last = true;
  } else if (!line.starts_with('#')) {
    return add(trim(line), cursor);
  }
  return true;
}

bool Chunklist::add(std::string_view location, Cursor& cursor) {
  if (chunks.size() == limits::kMaxChunks) {
    log_err("playlist refused: more than ", limits::kMaxChunks, " segments");
    return false;
  }
  chunks.push_back({cursor.sequence++, std::string(location), false, cursor.key_url});
  return true;
}

}  // namespace weir
