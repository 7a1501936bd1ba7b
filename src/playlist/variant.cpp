#include "playlist/variant.h"

#include <optional>

#include "base/limits.h"
#include "base/log.h"
#include "base/text.h"
#include "playlist/playlist_reader.h"

namespace weir {

namespace {

// The value after the first "BANDWIDTH=" in the line, even inside a longer attribute name.
std::optional<std::uint64_t> bandwidth_of(std::string_view line) {
  constexpr std::string_view kAttribute = "BANDWIDTH=";
  const size_t found = line.find(kAttribute);
  if (found == std::string_view::npos) return std::nullopt;
  const std::string_view value = line.substr(found + kAttribute.size());
  return static_cast<std::uint64_t>(leading_number(value.substr(0, value.find(','))));
}

// False if there are too many.
bool add(std::vector<Variant>& variants, std::uint64_t bandwidth, std::string_view line) {
  if (variants.size() == limits::kMaxVariants) {
    log_err("playlist refused: more than ", limits::kMaxVariants, " variants");
    return false;
  }
  variants.push_back({bandwidth, std::string(trim(line)), false});
  return true;
}

}  // namespace

std::vector<Variant> parse_master(std::string_view text) {
  PlaylistReader reader(text);
  if (!reader.read_header()) return {};
  std::vector<Variant> variants;
  std::uint64_t bandwidth = 0;
  for (std::string_view line; reader.next(line);) {
    if (!line.starts_with("#EXT-X-STREAM-INF:")) {
      if (!add(variants, bandwidth, line)) return {};
    } else if (const auto value = bandwidth_of(line)) {
      bandwidth = *value;
    } else {
      log_err("Variant does not specify bandwidth!");
      return variants;
    }
  }
  if (reader.met_long_line()) return {};
  return variants;
}

}  // namespace weir
