// Tables of playlists, of the choice of a variant, and of the average speed.
#include <gtest/gtest.h>

#include "playlist/chunklist.h"
#include "playlist/selection.h"
#include "playlist/stream_stats.h"

namespace weir::test {
namespace {

using std::string_literals::operator""s;

constexpr auto kMost = ~std::uint64_t{0};

// What was logged to standard error while `act` ran.
template <class Act>
std::string errors_of(Act act) {
  testing::internal::CaptureStderr();
  act();
  return testing::internal::GetCapturedStderr();
}

// "BANDWIDTH:URL" of each variant, or the reason why there is none.
std::string shown_master(const std::string& text) {
  std::string shown;
  const std::string errors = errors_of([&] {
    for (const Variant& variant : parse_master(text)) {
      shown += std::to_string(variant.bandwidth) + ":" + variant.url + " ";
    }
  });
  return shown + errors;
}

TEST(MasterPlaylist, LinesThatAreNoStreamTagAreVariants) {
  const std::string tag = "#EXT-X-STREAM-INF:";
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"#EXTM3U", ""},
      {"\t#EXTM3U \r\na\r\n b \v\f", "0:a 0:b "},
      {"#EXTM3U\n#EXT-X-VERSION:3\n\na", "0:#EXT-X-VERSION:3 0: 0:a "},
      {"#EXTM3U\n" + tag + "BANDWIDTH=5\na\nb", "5:a 5:b "},
      {"#EXTM3U\n" + tag + "A=1,AVERAGE-BANDWIDTH=5,BANDWIDTH=9\na", "5:a "},
      {"#EXTM3U\n" + tag + "BANDWIDTH=7,A\na\n" + tag + "BANDWIDTH=x\nb", "7:a 0:b "},
      {"#EXTM3U\n" + tag + "BANDWIDTH=-7\na", std::to_string(kMost - 6) + ":a "},
      {"#EXTM3U\n#ext-x-stream-inf:BANDWIDTH=1", "0:#ext-x-stream-inf:BANDWIDTH=1 "},
      {"#EXTM3U\n " + tag + "A", "0:" + tag + "A "},
      {"#EXTM3U\na\n" + tag + "A=1\nb", "0:a Variant does not specify bandwidth!\n"},
  };
  for (const auto& [text, shown] : rows) EXPECT_EQ(shown_master(text), shown);
}

// "NUMBER:URL" of each segment, "@KEY" if it has one, "." if it is the last one.
std::string shown_variant(const std::string& text) {
  Chunklist list("");
  std::string shown;
  const std::string errors = errors_of([&] { list.parse(text); });
  for (const Chunk& chunk : list.chunks) {
    shown += std::to_string(chunk.sequence) + ":" + chunk.url;
    if (chunk.key_url) shown += "@" + *chunk.key_url;
    shown += chunk.last ? ". " : " ";
  }
  return shown + errors;
}

TEST(MediaPlaylist, LinesWithoutHashAreSegments) {
  const std::string number = "#EXT-X-MEDIA-SEQUENCE:", key = "#EXT-X-KEY:", end = "#EXT-X-ENDLIST";
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"#EXTM3U \r\n#EXTINF:4,\r\n a \v\f\r\n\nb", "0:a 1: 2:b "},
      {"#EXTM3U\n" + number + "7\na\nb\n" + number + "x\nc", "7:a 8:b 0:c "},
      {"#EXTM3U\n" + number + "-1\na\nb", std::to_string(kMost) + ":a 0:b "},
      {"#EXTM3U\n" + number + "4294967296\na", "4294967296:a "},
      {"#EXTM3U\n" + end + "\na\n" + end + "\nb", "0:a. 1:b "},
      {"#EXTM3U\n " + end + "\na", "0:" + end + " 1:a "},
      {"#EXTM3U\n" + key + "METHOD=NONE,URI=\"k\"\r\na\nb", "0:a@k 1:b@k "},
      {"#EXTM3U\n" + key + "URI=\"k\",IV=0\na\n" + key + "URI=\nb", "0:a@k\",IV= 1:b "},
      {"#EXTM3U\n" + key + "URI=\"\na\n" + key + "URI=\"\"\nb", "0:a 1:b "},
      {"#EXTM3U\n" + key + "METHOD=NONE\na", "0:a@-X-KEY:METHOD=NON "},
  };
  for (const auto& [text, shown] : rows) EXPECT_EQ(shown_variant(text), shown);
}

TEST(MediaPlaylist, TargetDurationIsKeptUntilAnotherOneIsRead) {
  Chunklist list("");
  const std::pair<const char*, std::uint32_t> rows[] = {{"", 1},
                                                        {"#EXT-X-TARGETDURATION:6", 6},
                                                        {"a", 6},
                                                        {"#EXT-X-TARGETDURATION:x", 0},
                                                        {"#EXT-X-TARGETDURATION:-1", 4294967295}};
  for (const auto& [line, duration] : rows) {
    list.parse("#EXTM3U\n" + std::string(line));
    EXPECT_EQ(list.target_duration, duration) << line;
  }
}

TEST(Playlists, OtherTextsAndExcessAreRejected) {
  const std::string longest(65536, 'a');
  const std::string too_long = "playlist refused: a line has more than 65536 bytes\n";
  for (const auto shown : {shown_master, shown_variant}) {
    EXPECT_EQ(shown("#EXTM3U8\na"), "This is not m3u playlist!\n");
    EXPECT_EQ(shown("\n#EXTM3U\na"), "This is not m3u playlist!\n");
    EXPECT_EQ(shown("#EXTM3U\n" + longest), "0:" + longest + " ");
    EXPECT_EQ(shown("#EXTM3U\nb\n" + longest + "a\nb"), too_long);
  }
  EXPECT_EQ(parse_master("#EXTM3U\n" + std::string(4096, '\n')).size(), 4096U);
  EXPECT_EQ(shown_master("#EXTM3U\n" + std::string(4097, '\n')),
            "playlist refused: more than 4096 variants\n");
  EXPECT_EQ(shown_variant("#EXTM3U\n" + std::string(50001, '\n')),
            "playlist refused: more than 50000 segments\n");
}

// The variant chosen at that speed and its band, "URL LOW HIGH", "-" for no limit.
std::string shown_choice(std::vector<Variant> variants, std::uint64_t average) {
  const std::optional<Selection> choice = choose_variant(variants, average);
  if (!choice) return "none";
  const auto shown = [](std::uint64_t limit, std::uint64_t none) {
    return " "s + (limit == none ? "-" : std::to_string(limit));
  };
  return choice->variant->url + shown(choice->band.low, 0) + shown(choice->band.high, kMost);
}

TEST(Selection, HighestSustainableVariantIsChosen) {
  const std::vector<Variant> three = {
      {1024000, "low"}, {4096000, "high"}, {2048000, "mid"}, {2048000, "twin"}};
  const std::vector<Variant> marked = {
      {9, "x", true}, {4096000, "a"}, {1024000, "b", true}, {2048000, "c"}};
  const struct {
    std::vector<Variant> variants;
    std::uint64_t average;
    const char* choice;
  } rows[] = {
      {{}, 0, "none"},
      {{{1, "a", true}}, 0, "none"},
      {{{5, "a"}}, 0, "a - -"},
      {three, 0, "low - 2457600"},
      {three, 1999, "low - 2457600"},
      {three, 2000, "mid 2048000 4915200"},
      {three, 3999, "mid 2048000 4915200"},
      {three, 4000, "high 4096000 -"},
      {marked, 1000, "c - 4915200"},
      {marked, 4000, "a 4096000 -"},
      {{{2047, "a"}, {1, "b"}}, 1, "a 2047 -"},
      {{{kMost - 6, "a"}, {1, "b"}}, 1, "b - -"},
  };
  for (const auto& row : rows) EXPECT_EQ(shown_choice(row.variants, row.average), row.choice);
}

TEST(Selection, SlowVariantStaysWhileTheBufferIsSixtyPercentFull) {
  Variant playing{2048000, "a"};
  Variant invalid{2048000, "b", true};
  const Band band{2048000, 4096000};  // 2000 to 4000 kbps
  const struct {
    Variant* variant;
    Band band;
    std::uint64_t average, held, max_buffer;
    Decision decision;
  } rows[] = {
      {nullptr, {}, 0, 1000, 1000, Decision::kChange},
      {nullptr, {0, kMost}, 0, 1000, 1000, Decision::kFail},
      {&playing, band, 2000, 0, 1000, Decision::kKeep},
      {&playing, band, 3999, 0, 1000, Decision::kKeep},
      {&playing, band, 4000, 1000, 1000, Decision::kChange},
      {&playing, band, 1999, 599, 1000, Decision::kChange},
      {&playing, band, 1999, 600, 1000, Decision::kKeep},
      {&playing, band, 0, 601, 1000, Decision::kKeep},
      {&playing, band, 0, 0, 0, Decision::kKeep},
      {&invalid, band, 1999, 600, 1000, Decision::kChange},
      {&invalid, band, 2000, 600, 1000, Decision::kChange},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(keep_or_change({row.variant, row.band}, row.average, row.held, row.max_buffer),
              row.decision)
        << row.average << " " << row.held;
  }
}

TEST(StreamStats, AverageWeighsTheLastFiveSpeeds) {
  StreamStats stats;
  const std::pair<std::uint64_t, std::uint64_t> rows[] = {{900, 300}, {0, 200}, {0, 200},
                                                          {0, 100},   {0, 100}, {9, 3}};
  for (const auto& [speed, average] : rows) {
    stats.add_speed(speed);
    EXPECT_EQ(stats.avg_speed.get(), average);
  }
  stats.fall_to_speed(90);
  EXPECT_EQ(stats.avg_speed.get(), 90U);
  stats.add_speed(0);
  EXPECT_EQ(stats.avg_speed.get(), (2 * 90 + 4 * 45) / 9U);
}

}  // namespace
}  // namespace weir::test
