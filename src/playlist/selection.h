// The adaptive choice of a variant. The functions depend on their arguments alone, and log
// each step.
//
// Bandwidths are in bit/s; speeds are in kbps of 1024 bit/s.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "base/units.h"
#include "playlist/variant.h"

namespace weir {

// The range of average speeds at which the current variant is kept.
struct Band {
  std::uint64_t low = 0;   // bit/s; 0: no lower limit
  std::uint64_t high = 0;  // bit/s; all ones: no upper limit

  [[nodiscard]] std::uint64_t low_kbps() const { return kbps(low); }
  [[nodiscard]] std::uint64_t high_kbps() const { return kbps(high); }
  [[nodiscard]] bool begins_above(std::uint64_t kbps) const { return kbps < low_kbps(); }
  [[nodiscard]] bool contains(std::uint64_t kbps) const {
    return !begins_above(kbps) && kbps < high_kbps();
  }
};

// The variant being played.
struct Selection {
  Variant* variant = nullptr;  // null before the first choice
  Band band;
};

enum class Decision {
  kKeep,    // keep the current variant
  kChange,  // choose a variant
  kFail,    // there is no current variant to keep: the stream cannot go on
};

// Decides by the average speed, in kbps. A variant that is too high is kept while the buffer is
// at least 60 % full; `held` and `max_buffer` in bytes.
[[nodiscard]] Decision keep_or_change(const Selection& current, std::uint64_t average,
                                      std::uint64_t held, std::uint64_t max_buffer);

// The highest variant that the average speed can sustain, or the lowest if it can sustain none,
// with its band. Nothing if all are invalid. The result points into `variants`.
[[nodiscard]] std::optional<Selection> choose_variant(std::vector<Variant>& variants,
                                                      std::uint64_t average);

}  // namespace weir
