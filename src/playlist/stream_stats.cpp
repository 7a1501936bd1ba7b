#include "playlist/stream_stats.h"

namespace weir {

void StreamStats::add_speed(std::uint64_t kbps) {
  auto& history = speed_history;
  for (size_t i = history.size() - 1; i > 0; --i) history[i].set(history[i - 1].get());
  history[0].set(kbps);
  avg_speed.set((3 * history[0].get() + 2 * history[1].get() + 2 * history[2].get() +
                 history[3].get() + history[4].get()) /
                9);
}

void StreamStats::fall_to_speed(std::uint64_t kbps) {
  for (Value& older : speed_history) older.set(kbps >> 1);
  speed_history[0].set(kbps);
  avg_speed.set(kbps);
}

}  // namespace weir
