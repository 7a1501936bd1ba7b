#include "playlist/selection.h"

#include <limits>

#include "base/log.h"

namespace weir {

namespace {

constexpr double kAdequateFill = 0.6;  // to keep a slow variant; fraction of the buffer
constexpr double kUpperBand = 1.2;     // upper limit of the band, times the next higher bandwidth
constexpr auto kNoLimit = std::numeric_limits<std::uint64_t>::max();

// A well-filled buffer bridges a slow period. The comparison uses single precision.
bool is_adequate(std::uint64_t held, std::uint64_t max_buffer) {
  const double adequate = kAdequateFill * static_cast<double>(max_buffer);
  if (static_cast<float>(held) < static_cast<float>(adequate)) return false;
  log_out("download is slow, but buffer is adequate -> select variant canceled (", held, " / ",
          max_buffer);
  return true;
}

// The highest variant that the average speed can sustain, or the lowest of all.
Variant* best_variant(std::vector<Variant>& variants, Variant* lowest, std::uint64_t average) {
  Variant* best = lowest;
  for (Variant& variant : variants) {
    if (variant.invalid) continue;
    log_out("SELECT BEST kbps: ", kbps(best->bandwidth), "CUR bps: ", average);
    if (variant.bandwidth > best->bandwidth && kbps(variant.bandwidth) <= average) {
      best = &variant;
      log_out("SELECT NEW BEST: ", best->bandwidth);
    }
  }
  return best;
}

// The next bandwidth above the best, or the highest of all.
const Variant* first_higher(const std::vector<Variant>& variants, const Variant* best,
                            const Variant* highest) {
  const Variant* higher = highest;
  for (const Variant& variant : variants) {
    if (variant.invalid) continue;
    log_out("SELECT BEST first higher bps: ", higher->bandwidth, "CUR BEST bps: ", best->bandwidth);
    if (variant.bandwidth > best->bandwidth && variant.bandwidth < higher->bandwidth) {
      higher = &variant;
      log_out("SELECT NEW BEST first higher: ", higher->bandwidth);
    }
  }
  return higher;
}

std::uint64_t upper_boundary(std::uint64_t bandwidth) {
  const double boundary = static_cast<double>(bandwidth) * kUpperBand;
  return boundary < 0x1p64 ? static_cast<std::uint64_t>(boundary) : kNoLimit;
}

}  // namespace

Decision keep_or_change(const Selection& current, std::uint64_t average, std::uint64_t held,
                        std::uint64_t max_buffer) {
  // If a full buffer could keep an invalid variant, it would be retried forever.
  const bool usable = current.variant != nullptr && !current.variant->invalid;
  if (current.band.begins_above(average)) {
    return usable && is_adequate(held, max_buffer) ? Decision::kKeep : Decision::kChange;
  }
  if (!current.band.contains(average)) return Decision::kChange;
  if (usable) return Decision::kKeep;
  if (current.variant != nullptr) return Decision::kChange;
  // Reached only with a band but no variant; the engine sets and clears both together.
  log_err("Unable no variant chosen!");
  return Decision::kFail;
}

std::optional<Selection> choose_variant(std::vector<Variant>& variants, std::uint64_t average) {
  Variant* min = nullptr;
  const Variant* max = nullptr;
  for (Variant& variant : variants) {
    if (variant.invalid) continue;
    if (min == nullptr || variant.bandwidth < min->bandwidth) min = &variant;
    if (max == nullptr || variant.bandwidth > max->bandwidth) max = &variant;
  }
  if (min == nullptr) return std::nullopt;
  log_out("SELECT: min: ", min->bandwidth, " max: ", max->bandwidth);
  Variant* const best = best_variant(variants, min, average);
  const Variant* const higher = first_higher(variants, best, max);
  Band band;
  band.low = best->bandwidth == min->bandwidth ? 0 : best->bandwidth;
  band.high = best->bandwidth == max->bandwidth ? kNoLimit : upper_boundary(higher->bandwidth);
  log_out("selected variant bitrate: ", best->bandwidth, "URL: ", best->url);
  log_out("boundary low: ", band.low, " high: ", band.high);
  return Selection{best, band};
}

}  // namespace weir
