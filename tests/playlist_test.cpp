// What is read from playlists, and what is chosen among what was read.
#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "playlist/chunklist.h"
#include "playlist/selection.h"

namespace weir::test {
namespace {

constexpr auto kNone = std::numeric_limits<std::uint64_t>::max();

// As "bandwidth low high".
std::string shown(const std::optional<Selection>& selection) {
  if (!selection) return "none";
  return std::to_string(selection->variant->bandwidth) + " " + std::to_string(selection->band.low) +
         " " + std::to_string(selection->band.high);
}

std::vector<Variant> variants_of(const std::vector<std::uint64_t>& bandwidths) {
  std::vector<Variant> variants;
  for (const auto bandwidth : bandwidths) variants.push_back({bandwidth, "", false});
  return variants;
}

TEST(Playlist, EveryLineThatIsNoStreamTagIsAVariant) {
  const std::string inf = "#EXT-X-STREAM-INF:";
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"\n", ""},
      {"#EXTM3U8\n", ""},
      {" #EXTM3U \r\n" + inf + "BANDWIDTH=1280000\r\n u1 \r\n", "1280000 u1|"},
      {"#EXTM3U\n#EXT-X-VERSION:3\n" + inf + "BANDWIDTH=5,X=1\n\nu1",
       "0 #EXT-X-VERSION:3|5 |5 u1|"},
      {"#EXTM3U\n" + inf + "AVERAGE-BANDWIDTH=500000,BANDWIDTH=800000\nu1\nu2\n",
       "500000 u1|500000 u2|"},
      {"#EXTM3U\nu0\n" + inf + "RESOLUTION=1x1\nu1\n", "0 u0|"},
      {"#EXTM3U\n" + inf + "BANDWIDTH=x\nu1\n" + inf + "BANDWIDTH=-1\nu2",
       "0 u1|18446744073709551615 u2|"},
      {"#EXTM3U\n#ext-x-stream-inf:BANDWIDTH=1\n", "0 #ext-x-stream-inf:BANDWIDTH=1|"},
  };
  for (const auto& [text, variants] : cases) {
    std::string list;
    for (const Variant& v : parse_master(text))
      list += std::to_string(v.bandwidth) + " " + v.url + "|";
    EXPECT_EQ(list, variants) << text;
  }
}

TEST(Playlist, SegmentsAreNumberedAndKeyed) {
  // Segments as "sequence url key|", "." behind the last one of all.
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"#EXTM3U", ""},
      {"#EXTM3U8\nu", ""},
      {"#EXTM3U\n#EXTINF:4,\r\n u1 \r\n\nu2", "0 u1 |1  |2 u2 |"},
      {"#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:100\r\nu\n#EXT-X-MEDIA-SEQUENCE:7\nv\n", "100 u |7 v |"},
      {"#EXTM3U\n#EXT-X-ENDLIST\nu\n#EXT-X-ENDLIST\nv\n", "0 u |.1 v |"},
      {"#EXTM3U\n#EXT-X-KEY:METHOD=AES-128,URI=\"k.bin\"\nu\n", "0 u k.bin|"},
      {"#EXTM3U\n#EXT-X-KEY:METHOD=NONE,URI=\"k.bin\",IV=0x01\nu\n", "0 u k.bin\",IV=0x0|"},
      {"#EXTM3U\n#EXT-X-KEY:METHOD=NONE\nu\n", "0 u -X-KEY:METHOD=NON|"},
      {"#EXTM3U\n#EXT-X-KEY:URI=\nu\n#EXT-X-KEY:URI=\"\nv\n", "0 u |1 v |"},
      {"#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:-1\nu\nv\n", "18446744073709551615 u |0 v |"},
  };
  for (const auto& [text, segments] : cases) {
    Chunklist chunklist("url");
    chunklist.parse("#EXTM3U\n#EXT-X-TARGETDURATION:4294967306\nold\n");
    chunklist.parse(text);
    std::string list;
    for (const Chunk& chunk : chunklist.chunks) {
      list += std::to_string(chunk.sequence) + " " + chunk.url + " " +
              (chunk.key_url ? *chunk.key_url : "") + "|" + (chunk.last ? "." : "");
    }
    EXPECT_EQ(list, segments) << text;
    EXPECT_EQ(chunklist.target_duration, 10U);
  }
}

TEST(Playlist, SelectionFollowsTheSpeed) {
  const std::string all = std::to_string(kNone);
  const std::tuple<std::vector<std::uint64_t>, std::uint64_t, std::string> cases[] = {
      {{800000, 1600000, 3200000}, 2000, "1600000 1600000 3840000"},
      {{3200000, 800000, 1600000}, 500, "800000 0 1920000"},
      {{800000, 1600000, 3200000}, 4000, "3200000 3200000 " + all},
      {{800000}, 0, "800000 0 " + all},
      {{0, 800000, 800000}, 800, "800000 800000 " + all},
      {{5, kNone - 1, kNone}, 0, "5 0 " + all},
      {{}, 100, "none"},
  };
  for (const auto& [bandwidths, kbps, selected] : cases) {
    std::vector<Variant> variants = variants_of(bandwidths);
    EXPECT_EQ(shown(choose_variant(variants, kbps)), selected);
  }
}

// The conversations have the rest.
TEST(Playlist, CurrentVariantIsKeptInsideItsBandOrWithAnAdequateBuffer) {
  Variant variant{1600000, "", false};
  const std::tuple<Selection, std::uint64_t, std::uint64_t, Decision> cases[] = {
      {{&variant, {1600000, kNone}}, 1562, 0, Decision::kKeep},
      {{&variant, {1600000, kNone}}, 1561, 600, Decision::kKeep},
      {{&variant, {1600000, kNone}}, 1561, 599, Decision::kChange},
      {{&variant, {0, 1920000}}, 1874, 0, Decision::kKeep},
      {{&variant, {0, 1920000}}, 1875, 1000, Decision::kChange},
      {{nullptr, {0, 1920000}}, 1874, 1000, Decision::kFail},
      {{}, 1562, 0, Decision::kChange},
  };
  for (const auto& [current, kbps, held, decision] : cases) {
    EXPECT_EQ(keep_or_change(current, kbps, held, 1000), decision) << kbps << " " << held;
  }
}

}  // namespace
}  // namespace weir::test
