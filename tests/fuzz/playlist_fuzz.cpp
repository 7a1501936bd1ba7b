// A playlist, read as a variant's and as a master with a selection among its variants. The
// first byte is the speed.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "playlist/chunklist.h"
#include "playlist/selection.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  weir::Chunklist chunklist("");
  chunklist.parse(text);
  for (const weir::Chunk& chunk : chunklist.chunks) {
    if (text.find(chunk.url) == text.npos) std::abort();
    if (chunk.key_url && text.find(*chunk.key_url) == text.npos) std::abort();
  }
  auto variants = weir::parse_master(text);
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
