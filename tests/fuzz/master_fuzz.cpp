// A master playlist, and the selection among whatever variants come of it. The
// first byte is the speed.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "buffer/cbuff.h"
#include "playlist/master_playlist.h"
#include "playlist/stream_stats.h"

namespace weir {

class MasterPlaylistPeer {
 public:
  static void run(const std::string& text, std::uint64_t speed) {
    CBuff buffer;
    StreamStats stats;
    MasterPlaylist playlist("", &buffer, 0, &stats, 0);
    (void)playlist.parse_master(text);
    for (const std::uint64_t avg : {std::uint64_t{0}, speed}) {
      stats.avg_speed.set(avg);
      if (playlist.select_variant() == playlist.variants.empty()) std::abort();
    }
    if (playlist.variants.empty()) return;
    const std::uint64_t bandwidth = playlist.current_variant->bandwidth;
    if (playlist.boundary_low != 0 && playlist.boundary_low != bandwidth) std::abort();
    for (const Variant& variant : playlist.variants) {
      if (bandwidth >> 10 > speed && variant.bandwidth < bandwidth) std::abort();
    }
  }
};

}  // namespace weir

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  weir::MasterPlaylistPeer::run(text, std::uint64_t{data[0]} << 4);
  return 0;
}
