// Tables of playlists, of the choice of a variant, and of the average speed.
#include <gtest/gtest.h>

#include "playlist/chunklist.h"
#include "playlist/selection.h"
#include "playlist/stream_stats.h"
#include "support/bytes.h"

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
  expect_rows(shown_master,
              {
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
              });
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
  expect_rows(shown_variant,
              {
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
              });
}

TEST(MediaPlaylist, TargetDurationIsKeptUntilAnotherOneIsRead) {
  std::string shown;
  Chunklist list("");
  for (const char* line : {"", ":6", "", ":x", ":-1"}) {
    list.parse("#EXTM3U\n#EXT-X-TARGETDURATION" + std::string(line));
    shown += std::to_string(list.target_duration) + " ";
  }
  EXPECT_EQ(shown, "1 6 6 0 4294967295 ");
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
}

TEST(MediaPlaylist, NewestSegmentsAreKeptUnlessTheStreamStartsBeforeThem) {
  const struct {
    size_t segments;
    std::int32_t start_from;
    std::int64_t before;  // kept segments before the start; negative if it was dropped
  } rows[] = {
      {50000, 0, 0},      {50000, 60000, 60000}, {50000, -60000, -10000}, {50001, 0, -1},
      {50001, 1, 0},      {50003, 2, -1},        {50003, 3, 0},           {50003, 60000, 59997},
      {50003, -1, 49999}, {50003, -50000, 0},    {50003, -50001, -1},
  };
  for (const auto& [segments, start_from, before] : rows) {
    Chunklist list("");
    list.parse("#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:7\n" + std::string(segments, '\n'));
    ASSERT_EQ(list.chunks.size(), 50000U);
    EXPECT_EQ(list.chunks.front().sequence, 7 + segments - 50000);
    EXPECT_EQ(list.segments_before(start_from), before);
    const bool refused = segments > 50000 && before < 0;
    EXPECT_EQ(errors_of([&, from = start_from] { list.require(from); }),
              refused ? "playlist refused: more than 50000 segments\n" : "");
    EXPECT_EQ(list.chunks.empty(), refused);
  }
}

// The variant chosen at that speed and its band, "URL LOW HIGH", "-" for no limit.
std::string shown_choice(std::vector<Variant> variants, std::uint64_t average) {
  const std::optional<Selection> choice = choose_variant(variants, average);
  if (!choice) return "none";
  const auto [low, high] = choice->band;
  return choice->variant->url + " "s + (low == 0 ? "-" : std::to_string(low)) + " "s +
         (high == kMost ? "-" : std::to_string(high));
}

TEST(Selection, HighestSustainableVariantIsChosen) {
  const std::vector<Variant> three = {
      {1024000, "low"}, {4096000, "high"}, {2048000, "mid"}, {2048000, "twin"}};
  const std::vector<Variant> marked = {
      {9, "x", true}, {4096000, "a"}, {1024000, "b", true}, {2048000, "c"}};
  EXPECT_EQ(shown_choice({}, 0), "none");
  EXPECT_EQ(shown_choice({{1, "a", true}}, 0), "none");
  EXPECT_EQ(shown_choice({{5, "a"}}, 0), "a - -");
  EXPECT_EQ(shown_choice({{2047, "a"}, {1, "b"}}, 1), "a 2047 -");
  EXPECT_EQ(shown_choice({{kMost - 6, "a"}, {1, "b"}}, 1), "b - -");
  for (const std::uint64_t average : {0U, 1999U})
    EXPECT_EQ(shown_choice(three, average), "low - 2457600");
  for (const std::uint64_t average : {2000U, 3999U})
    EXPECT_EQ(shown_choice(three, average), "mid 2048000 4915200");
  EXPECT_EQ(shown_choice(three, 4000), "high 4096000 -");
  EXPECT_EQ(shown_choice(marked, 1000), "c - 4915200");
  EXPECT_EQ(shown_choice(marked, 4000), "a 4096000 -");
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
  std::string shown;
  const auto show = [&] { shown += std::to_string(stats.avg_speed.get()) + " "; };
  for (const std::uint64_t speed : {900U, 0U, 0U, 0U, 0U, 9U}) stats.add_speed(speed), show();
  stats.fall_to_speed(90), show();
  stats.add_speed(0), show();
  EXPECT_EQ(shown, "300 200 200 100 100 3 90 40 ");
}

}  // namespace
}  // namespace weir::test
