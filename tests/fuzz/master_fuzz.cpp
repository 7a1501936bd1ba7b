// A master playlist, and the selection among whatever variants come of it. The
// first byte is the speed.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "playlist/selection.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  auto variants = weir::parse_master({reinterpret_cast<const char*>(data) + 1, size - 1});
  const std::uint64_t speed = std::uint64_t{data[0]} << 4;
  const auto selection = weir::choose_variant(variants, speed);
  if (selection.has_value() == variants.empty()) std::abort();
  if (!selection) return 0;
  const std::uint64_t bandwidth = selection->variant->bandwidth;
  if (selection->band.low != 0 && selection->band.low != bandwidth) std::abort();
  for (const weir::Variant& variant : variants) {
    if (bandwidth >> 10 > speed && variant.bandwidth < bandwidth) std::abort();
  }
  return 0;
}
