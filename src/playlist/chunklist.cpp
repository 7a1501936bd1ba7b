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

// The text after URI= and one more character (the opening quote), to the end of the line,
// without its last character (the closing quote). Later attributes remain part of it. A line
// without URI= is read from its fifth character.
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

// Applies to the next segment.
struct Chunklist::Cursor {
  std::uint64_t sequence = 0;
  std::shared_ptr<const std::string> key_url;
};

void Chunklist::parse(std::string_view text) {
  chunks = {};
  dropped_ = 0;
  PlaylistReader reader(text);
  if (!reader.read_header()) return;
  Cursor cursor;
  for (std::string_view line; reader.next(line);) parse_line(line, cursor);
  if (!reader.met_long_line()) return;
  chunks = {};
  dropped_ = 0;
}

void Chunklist::parse_line(std::string_view line, Cursor& cursor) {
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
    if (chunks.size() == limits::kMaxChunks) {
      chunks.pop_front();
      ++dropped_;
    }
    chunks.push_back({cursor.sequence++, std::string(trim(line)), false, cursor.key_url});
  }
}

std::int64_t Chunklist::segments_before(std::int32_t start_from) const {
  return start_from < 0 ? start_from + static_cast<std::int64_t>(chunks.size())
                        : start_from - dropped_;
}

void Chunklist::require(std::int32_t start_from) {
  if (dropped_ == 0 || segments_before(start_from) >= 0) return;
  log_err("playlist refused: more than ", limits::kMaxChunks, " segments");
  chunks = {};
}

}  // namespace weir
