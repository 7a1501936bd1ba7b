// The adaptive choice of a variant.
#include <limits>

#include "base/log.h"
#include "buffer/cbuff.h"
#include "playlist/master_playlist.h"
#include "playlist/stream_stats.h"

namespace weir {

namespace {

constexpr double kAdequateFill = 0.6;  // of the maximal buffer
constexpr double kUpperBand = 1.2;     // times the next higher bandwidth
constexpr auto kNoLimit = std::numeric_limits<std::uint64_t>::max();

std::uint64_t upper_boundary(std::uint64_t bandwidth) {
  const double boundary = static_cast<double>(bandwidth) * kUpperBand;
  return boundary < 0x1p64 ? static_cast<std::uint64_t>(boundary) : kNoLimit;
}

}  // namespace

// True when there is a current variant afterwards, kept or chosen anew.
bool MasterPlaylist::select_variant() {
  const std::uint64_t avg = stats->avg_speed.get();
  log_out("select variant, curr avg in bps: ", avg * 1024);
  const bool usable = current_variant != nullptr && !current_variant->invalid;
  if (avg < boundary_low >> 10) {
    if (usable && keeps_slow_variant()) return true;
  } else if (avg < boundary_high >> 10) {
    if (usable) return true;
    if (current_variant == nullptr) {
      log_err("Unable no variant chosen!");
      return false;
    }
  }
  return choose_variant(avg);
}

// A full buffer bridges a slow time. The comparison is one of single precision.
bool MasterPlaylist::keeps_slow_variant() const {
  const std::uint64_t held = buffer->fill();
  const double adequate = kAdequateFill * static_cast<double>(max_buffer);
  if (static_cast<float>(held) < static_cast<float>(adequate)) return false;
  log_out("download is slow, but buffer is adequate -> select variant canceled (", held, " / ",
          max_buffer);
  return true;
}

bool MasterPlaylist::choose_variant(std::uint64_t avg) {
  current_variant = nullptr;
  chunklist.reset();
  Variant* min = nullptr;
  const Variant* max = nullptr;
  for (Variant& variant : variants) {
    if (variant.invalid) continue;
    if (min == nullptr || variant.bandwidth < min->bandwidth) min = &variant;
    if (max == nullptr || variant.bandwidth > max->bandwidth) max = &variant;
  }
  if (min == nullptr) return false;
  log_out("SELECT: min: ", min->bandwidth, " max: ", max->bandwidth);
  Variant* const best = best_variant(min, avg);
  adopt(best, min, max, first_higher(best, max));
  return true;
}

// The highest variant that the speed carries, or the lowest of all.
Variant* MasterPlaylist::best_variant(Variant* min, std::uint64_t avg) {
  Variant* best = min;
  for (Variant& variant : variants) {
    if (variant.invalid) continue;
    log_out("SELECT BEST kbps: ", best->bandwidth >> 10, "CUR bps: ", avg);
    if (variant.bandwidth > best->bandwidth && variant.bandwidth >> 10 <= avg) {
      best = &variant;
      log_out("SELECT NEW BEST: ", best->bandwidth);
    }
  }
  return best;
}

// The next bandwidth above the best, or the highest of all.
const Variant* MasterPlaylist::first_higher(const Variant* best, const Variant* max) {
  const Variant* higher = max;
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

// Makes it the current variant, with an empty playlist and its band of speeds.
void MasterPlaylist::adopt(Variant* best, const Variant* min, const Variant* max,
                           const Variant* higher) {
  current_variant = best;
  chunklist = std::make_unique<Chunklist>(best->url);
  boundary_low = best->bandwidth == min->bandwidth ? 0 : best->bandwidth;
  boundary_high = best->bandwidth == max->bandwidth ? kNoLimit : upper_boundary(higher->bandwidth);
  log_out("selected variant bitrate: ", best->bandwidth, "URL: ", best->url);
  log_out("boundary low: ", boundary_low, " high: ", boundary_high);
}

}  // namespace weir
