// Tables of playlists, of the choice of a variant, and of the average speed.
#include <gtest/gtest.h>

#include <sstream>

#include "playlist/chunklist.h"
#include "playlist/selection.h"
#include "support/bytes.h"

namespace weir::test {

constexpr auto kMost = ~std::uint64_t{0};

// What was logged to standard error while `act` ran.
template <class Act>
static std::string errors_of(Act act) {
  testing::internal::CaptureStderr();
  act();
  return testing::internal::GetCapturedStderr();
}

// "BANDWIDTH:URL" of each variant, or the reason why there is none. Each "|" is a line end.
static std::string shown_master(const std::string& text) {
  std::string shown;
  const std::string errors = errors_of([&] {
    for (const Variant& variant : parse_master(replaced(text, "|", "\n")))
      shown += std::to_string(variant.bandwidth) + ":" + variant.url + " ";
  });
  return shown + errors;
}

TEST(MasterPlaylist, LinesThatAreNoStreamTagAreVariants) {
  const std::string tag = "#EXTM3U|#EXT-X-STREAM-INF:";
  expect_rows(shown_master,
              {{"", ""},
               {"#EXTM3U", ""},
               {"\t#EXTM3U \r|a\r| b c\xA0 \v\f", "0:a 0:b c\xA0 "},
               {"#EXTM3U|#EXT-X-VERSION:3||a", "0:#EXT-X-VERSION:3 0: 0:a "},
               {tag + "BANDWIDTH=5|a|b", "5:a 5:b "},
               {tag + "A=1,AVERAGE-BANDWIDTH=5,BANDWIDTH=9|a", "5:a "},
               {tag + "BANDWIDTH=7,A|a|#EXT-X-STREAM-INF:BANDWIDTH=x|b", "7:a 0:b "},
               {tag + "BANDWIDTH=-7|a", std::to_string(kMost - 6) + ":a "},
               {"#EXTM3U|#ext-x-stream-inf:BANDWIDTH=1", "0:#ext-x-stream-inf:BANDWIDTH=1 "},
               {"#EXTM3U| #EXT-X-STREAM-INF:A", "0:#EXT-X-STREAM-INF:A "},
               {"#EXTM3U|a|#EXT-X-STREAM-INF:|b", "0:a Variant does not specify bandwidth!\n"}});
}

// "NUMBER:URL" of each segment, "@KEY" if it has one, "." if it is the last one. As above.
static std::string shown_variant(const std::string& text) {
  Chunklist list("");
  std::string shown;
  const std::string errors = errors_of([&] { list.parse(replaced(text, "|", "\n")); });
  for (const Chunk& chunk : list.chunks) {
    shown += std::to_string(chunk.sequence) + ":" + chunk.url;
    if (chunk.key_url) shown += "@" + *chunk.key_url;
    shown += chunk.last ? ". " : " ";
  }
  return shown + errors;
}

TEST(MediaPlaylist, LinesWithoutHashAreSegments) {
  const std::string number = "#EXTM3U|#EXT-X-MEDIA-SEQUENCE:", key = "#EXTM3U|#EXT-X-KEY:";
  expect_rows(shown_variant, {{"", ""},
                              {"#EXTM3U \r|#EXTINF:4,\r| a \v\f\r||b", "0:a 1: 2:b "},
                              {number + "7|a|b|#EXT-X-MEDIA-SEQUENCE:x|c", "7:a 8:b 0:c "},
                              {number + "-1|a|b", std::to_string(kMost) + ":a 0:b "},
                              {number + "4294967296|a", "4294967296:a "},
                              {"#EXTM3U|#EXT-X-ENDLIST|a|#EXT-X-ENDLIST|b", "0:a. 1:b "},
                              {"#EXTM3U| #EXT-X-ENDLIST|a", "0:#EXT-X-ENDLIST 1:a "},
                              {key + "METHOD=NONE,URI=\"k\"\r|a|b", "0:a@k 1:b@k "},
                              {key + "URI=\"k\",IV=0|a|#EXT-X-KEY:URI=|b", "0:a@k\",IV= 1:b "},
                              {key + "URI=\"|a|#EXT-X-KEY:URI=\"\"|b", "0:a 1:b "},
                              {key + "METHOD=NONE|a", "0:a@-X-KEY:METHOD=NON "}});
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
  for (const auto shown : {shown_master, shown_variant}) {
    expect_rows(shown, {{"#EXTM3U8|a", "This is not m3u playlist!\n"},
                        {"|#EXTM3U|a", "This is not m3u playlist!\n"},
                        {"#EXTM3U|" + longest, "0:" + longest + " "},
                        {"#EXTM3U|b|" + longest + "a|b",
                         "playlist refused: a line has more than 65536 bytes\n"}});
  }
  EXPECT_EQ(parse_master("#EXTM3U\n" + std::string(4096, '\n')).size(), 4096U);
  EXPECT_EQ(shown_master("#EXTM3U|" + std::string(4097, '|')),
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
  Chunklist list("");
  for (const auto& [segments, start_from, before] : rows) {
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

// The variant chosen at that speed and its band, "URL(LOW,HIGH)", "-" for no limit.
static std::string shown_choice(std::vector<Variant> variants, std::uint64_t average) {
  const std::optional<Selection> choice = choose_variant(variants, average);
  if (!choice) return "none";
  const auto limit = [](std::uint64_t value, std::uint64_t none) {
    return value == none ? "-" : std::to_string(value);
  };
  return choice->variant->url + "(" + limit(choice->band.low, 0) + "," +
         limit(choice->band.high, kMost) + ")";
}

TEST(Selection, HighestSustainableVariantIsChosen) {
  EXPECT_EQ(shown_choice({}, 0), "none");
  EXPECT_EQ(shown_choice({{1, "a", true}}, 0), "none");
  EXPECT_EQ(shown_choice({{5, "a"}}, 0), "a(-,-)");
  EXPECT_EQ(shown_choice({{2047, "a"}, {1, "b"}}, 1), "a(2047,-)");
  EXPECT_EQ(shown_choice({{kMost - 6, "a"}, {1, "b"}}, 1), "b(-,-)");
  const auto one_of_four = [](const std::string& average) {
    return shown_choice({{1024000, "low"}, {4096000, "top"}, {2048000, "mid"}, {2048000, "twin"}},
                        std::stoull(average));
  };
  expect_words(one_of_four,
               "0              1999           2000                  4000\n"
               "low(-,2457600) low(-,2457600) mid(2048000,4915200)  top(4096000,-)\n");
  const auto one_of_two = [](const std::string& average) {
    return shown_choice({{9, "x", true}, {4096000, "a"}, {1024000, "b", true}, {2048000, "c"}},
                        std::stoull(average));
  };
  expect_words(one_of_two,
               "1000         3999         4000\n"
               "c(-,4915200) c(-,4915200) a(4096000,-)\n");
}

TEST(Selection, SlowVariantStaysWhileTheBufferIsSixtyPercentFull) {
  const auto decided = [](const std::string& figures) {
    std::istringstream words(figures);
    std::uint64_t average = 0, held = 0, max_buffer = 0;
    words >> average >> held >> max_buffer;
    Variant playing{2048000, "a", figures.ends_with("invalid")};
    const Selection current{&playing, {2048000, 4096000}};  // 2000 to 4000 kbps
    const Decision decision = keep_or_change(current, average, held, max_buffer);
    return std::string(decision == Decision::kKeep ? "keep" : "change");
  };
  expect_rows(decided, {{"2000 0 1000", "keep"},
                        {"3999 0 1000", "keep"},
                        {"4000 1000 1000", "change"},
                        {"1999 599 1000", "change"},
                        {"1999 600 1000", "keep"},
                        {"0 601 1000", "keep"},
                        {"0 599999990 1000000000", "keep"},  // equal in single precision
                        {"0 0 0", "keep"},
                        {"1999 600 1000 invalid", "change"},
                        {"2000 600 1000 invalid", "change"}});
  EXPECT_EQ(keep_or_change({nullptr, {}}, 0, 1000, 1000), Decision::kChange);
  EXPECT_EQ(keep_or_change({nullptr, {0, kMost}}, 0, 1000, 1000), Decision::kFail);
}

}  // namespace weir::test
