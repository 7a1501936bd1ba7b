// Whole conversations in simulated time: what clients ask, what origins do, and what must
// come of it, to the byte and to the millisecond.
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/world.h"

namespace weir::sim {
namespace {

const std::string kA = pattern(600, 1);
const std::string kB = pattern(600, 2);

std::string master(const std::string& url) {
  return "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n" + url + "\n";
}

TEST(Conversation, First) {
  World world;
  world.origin("o", {{"/m", {ok(master("http://o/v"))}},
                     {"/v", {ok("#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\nhttp://o/a\nhttp://o/b\n#EXT-X-ENDLIST\n")}},
                     {"/a", {ok(kA)}},
                     {"/b", {ok(kB)}}});
  world.play({{0s, "/stream?url=http://o/m", stream(kA + kB), 1002ms}});
  if (std::getenv("SHOW") != nullptr) std::puts(world.transcript.c_str());
}

}  // namespace
}  // namespace weir::sim
