#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "buffer/cbuff.h"
#include "playlist/chunk_fetcher.h"
#include "playlist/chunklist.h"
#include "playlist/master_playlist.h"
#include "playlist/selection.h"
#include "playlist/stream_control.h"
#include "playlist/stream_stats.h"
#include "support/captured_log.h"
#include "support/client.h"
#include "support/scripted_origin.h"

namespace weir::test {
namespace {

using namespace std::literals;
const std::string kKey = "0123456789abcdef";
constexpr auto kNone = std::numeric_limits<std::uint64_t>::max();

// Passes of one stream over texts of its variant's playlist, on the test's own thread.
class Passes {
 public:
  Passes(CBuff& buffer, StreamStats& stats, std::vector<std::uint64_t> bandwidths = {0},
         std::uint64_t max_buffer = 1 << 20, std::int32_t start_from = 0)
      : fetcher_(buffer, max_buffer, stats, control_, start_from) {
    for (const std::uint64_t bandwidth : bandwidths) variants_.push_back({bandwidth, "", false});
    playing_ = *choose_variant(variants_, stats.avg_speed.get());
  }

  // "countdown queued" after it.
  std::string pass(const std::string& text) {
    chunklist_.parse(text);
    fetcher_.fill_pass(chunklist_, playing_);
    return std::to_string(control_.refresh_countdown) + " " +
           std::to_string(chunklist_.chunks.size());
  }

  bool is_over() const { return control_.is_over(); }

 private:
  std::vector<Variant> variants_;
  Selection playing_;
  Chunklist chunklist_{""};
  StreamControl control_;
  ChunkFetcher fetcher_;
};

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

class PlaylistTest : public testing::Test {
 protected:
  // A line with the URL of a path, and what is behind it.
  std::string segment(const std::string& path, const std::string& more = "") {
    return origin_.url(path) + more + "\n";
  }

  // A playlist of these paths and tags; the first segment has the number 1.
  std::string segments(const std::vector<std::string>& lines, const std::string& duration = "10") {
    std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:" + duration + "\n#EXT-X-MEDIA-SEQUENCE:1\n";
    for (const std::string& line : lines) text += line[0] == '/' ? segment(line) : line;
    return text;
  }

  // A playlist of variants at these paths.
  std::string master(const std::vector<std::string>& paths) {
    std::string text = "#EXTM3U\n";
    for (const std::string& path : paths) {
      text += "#EXT-X-STREAM-INF:BANDWIDTH=1\n" + segment(path);
    }
    return text;
  }

  CapturedLog log_;
  ScriptedOrigin origin_;
  CBuff buffer_;
  StreamStats stats_;
};

TEST_F(PlaylistTest, EveryLineThatIsNoStreamTagIsAVariant) {
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

TEST_F(PlaylistTest, SegmentsAreNumberedAndKeyed) {
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

TEST_F(PlaylistTest, SelectionFollowsTheSpeed) {
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

TEST_F(PlaylistTest, CurrentVariantIsKeptInsideItsBandOrWithAnAdequateBuffer) {
  std::vector<Variant> variants = variants_of({800000, 1600000});
  EXPECT_EQ(keep_or_change({}, 1562, 0, 1000), Decision::kChange);
  Selection current = *choose_variant(variants, 1562);
  EXPECT_EQ(shown(current), "1600000 1600000 " + std::to_string(kNone));
  EXPECT_EQ(log_.out(),
            "SELECT: min: 800000 max: 1600000\n"
            "SELECT BEST kbps: 781CUR bps: 1562\n"
            "SELECT BEST kbps: 781CUR bps: 1562\n"
            "SELECT NEW BEST: 1600000\n"
            "SELECT BEST first higher bps: 1600000CUR BEST bps: 1600000\n"
            "SELECT BEST first higher bps: 1600000CUR BEST bps: 1600000\n"
            "selected variant bitrate: 1600000URL: \n"
            "boundary low: 1600000 high: 18446744073709551615\n");
  EXPECT_EQ(keep_or_change(current, 1562, 0, 1000), Decision::kKeep);
  EXPECT_EQ(keep_or_change(current, 1561, 600, 1000), Decision::kKeep);
  EXPECT_EQ(count(log_.out(),
                  "download is slow, but buffer is adequate -> select variant canceled "
                  "(600 / 1000\n"),
            1);
  EXPECT_EQ(keep_or_change(current, 1561, 599, 1000), Decision::kChange);
  current = *choose_variant(variants, 1561);
  EXPECT_EQ(shown(current), "800000 0 1920000");
  EXPECT_EQ(keep_or_change(current, 1874, 0, 1000), Decision::kKeep);
  EXPECT_EQ(keep_or_change(current, 1875, 1000, 1000), Decision::kChange);
  // An invalid one is kept by neither its band nor the buffer.
  current.variant->invalid = true;
  EXPECT_EQ(keep_or_change(current, 1874, 1000, 1000), Decision::kChange);
  current.band.low = 1600000;
  EXPECT_EQ(keep_or_change(current, 1561, 1000, 1000), Decision::kChange);
  EXPECT_EQ(log_.err(), "");
  current.variant = nullptr;
  EXPECT_EQ(keep_or_change(current, 1874, 0, 1000), Decision::kFail);
  EXPECT_EQ(log_.err(), "Unable no variant chosen!\n");
}

TEST_F(PlaylistTest, FirstPassSkipsAndLaterPassesFetchOnlyWhatIsNew) {
  for (const char* path : {"/1", "/2", "/3", "/4"}) origin_.on(path, {ok(path)});
  const std::string text = segments({"/1", "/2", "/3"});
  Passes peer(buffer_, stats_, {0}, 1 << 20, -2);
  EXPECT_EQ(peer.pass(text), "6 0");
  EXPECT_EQ(drain(buffer_), "/2/3");
  EXPECT_EQ(count(log_.out(), "skipping chunk from " + segment("/1", " as required by startFrom")),
            1);
  EXPECT_EQ(peer.pass(text + segment("/4")), "6 0");
  EXPECT_EQ(drain(buffer_), "/4");
  EXPECT_EQ(origin_.connections(), 1);
  EXPECT_EQ(peer.pass(text), "2 0");
  EXPECT_FALSE(peer.is_over());
  for (int i = 0; i < 5; ++i) peer.pass(text);
  EXPECT_TRUE(peer.is_over());
  EXPECT_EQ(log_.err(), "no new chunks in many playlist reloads\n");
  EXPECT_EQ(count(log_.out(),
                  "fill buffer for0\nstart from: -2\nsearching for new chunks (last seq got 0)\n"),
            1);
}

TEST_F(PlaylistTest, SkipBeyondTheQueueAndHugeTargetDurationAreHarmless) {
  origin_.on("/1", {ok("one")});
  Passes peer(buffer_, stats_, {0}, 1 << 20, -9);
  EXPECT_EQ(
      peer.pass("#EXTM3U\n#EXT-X-TARGETDURATION:4294967295\n" + segment("/0") + segment("/1"))[0],
      '-');
  EXPECT_EQ(drain(buffer_), "one");  // number 0 is never fetched
  EXPECT_EQ(count(origin_.requests(), "GET /0 "), 0);
}

TEST_F(PlaylistTest, FullBufferEndsThePassAndKeepsTheSegment) {
  (void)buffer_.write(bytes_of("abc"s));
  EXPECT_EQ(Passes(buffer_, stats_, {0}, 3).pass(segments({"/1"})), "6 1");
  EXPECT_EQ(count(log_.out(), "buffer is full - not downloading more chunks ...\n"), 1);
}

TEST_F(PlaylistTest, KeyIsLoadedOnceAndForgottenByAClearSegment) {
  const std::string secret = encrypt("media", kKey);
  origin_.on("/key", {ok(kKey)});
  origin_.on("/s", {ok(secret), ok(secret), ok("clear"), ok(secret)});
  const std::string keyed = "#EXT-X-KEY:METHOD=AES-128,URI=\"" + segment("/key", "\"");
  // A key line of one character has an empty URL: what follows is clear.
  const std::string clear = "#EXT-X-KEY:URI=\"\"\n";
  Passes(buffer_, stats_).pass(segments({keyed, "/s", "/s", clear, "/s", keyed, "/s"}));
  EXPECT_EQ(drain(buffer_), "mediamediaclear" + secret);
  EXPECT_EQ(count(origin_.requests(), "GET /key "), 1);
  EXPECT_EQ(count(log_.out(), "getting new decryption key from: " + segment("/key")), 1);
}

TEST_F(PlaylistTest, FourthSegmentGivenUpInARowEndsTheStream) {
  origin_.on("/end", {ok("end")});
  Passes peer(buffer_, stats_);
  peer.pass(segments({"/gone", "/gone", "/gone", "/end", "#EXT-X-ENDLIST\n", "/gone"}));
  EXPECT_EQ(count(log_.err(), "too many"), 0);
  EXPECT_EQ(drain(buffer_), "end");
  EXPECT_TRUE(peer.is_over());
  EXPECT_EQ(count(log_.out(), "last chunk - setting should_finish\n"), 1);
  EXPECT_EQ(count(origin_.requests(), "GET /gone "), 3 * 4 * 6);
  const std::string chunk = "chunk get from " + origin_.url("/gone");
  EXPECT_EQ(count(log_.err(), chunk + " FAILED\n"), 3 * 4);
  EXPECT_EQ(count(log_.err(), "retry " + chunk + " starting from byte 0\n"), 3 * 3);
  EXPECT_EQ(Passes(buffer_, stats_).pass(segments(std::vector(5, "/gone"s))), "6 1");
  EXPECT_EQ(count(log_.err(), "too many failed subsequent chunks. Finishing stream.\n"), 1);
}

// A segment of half a kilobyte in half a second has about 8 kbps.
TEST_F(PlaylistTest, SuddenDropEndsThePassAndRewritesTheHistory) {
  origin_.on("/1", {slow(pattern(512), 512, 500ms)});
  stats_.avg_speed.set(9000);
  Passes peer(buffer_, stats_, {8000000});
  EXPECT_EQ(peer.pass(segments({"/1", "/2"})), "0 1");
  const std::uint64_t speed = stats_.last_chunk_speed.get();
  EXPECT_GT(speed, 0U);
  EXPECT_LT(speed, 9U);
  EXPECT_EQ(stats_.avg_speed.get(), speed);
  EXPECT_EQ(stats_.speed_history[4].get(), speed >> 1);
  EXPECT_EQ(stats_.selected_profile.get(), 8000000U >> 10);
  EXPECT_EQ(log_.err(), "sudden speed drop! falling down immediately!\n");
}

TEST_F(PlaylistTest, AverageIsWeightedAndLeavingTheBandEndsThePass) {
  origin_.on("/1", {slow(pattern(512), 512, 500ms)});
  for (size_t i = 0; i < 5; ++i) stats_.speed_history[i].set(900 * (i + 1));
  Passes peer(buffer_, stats_, {8000, 400000});
  EXPECT_EQ(peer.pass(segments({"/1", "/2"})), "0 1");
  const std::uint64_t newest = stats_.last_chunk_speed.get();
  const std::uint64_t avg = (3 * newest + 2 * 900 + 2 * 1800 + 2700 + 3600) / 9;
  EXPECT_EQ(stats_.avg_speed.get(), avg);
  EXPECT_EQ(stats_.speed_history[4].get(), 3600U);
  const std::string line = "avg_speed out of boundaries! (" + std::to_string(avg) + " 0 468)\n";
  EXPECT_EQ(count(log_.out(), line), 1);
}

TEST_F(PlaylistTest, SpeedWithoutAMeasurableTimeIsCapped) {
  for (StreamStats::Value& speed : stats_.speed_history) speed.set(std::uint64_t{1} << 53);
  origin_.on("/s", {ok("x")});
  Passes(buffer_, stats_).pass(segments({"/s", "/s", "/s"}));
  EXPECT_EQ(drain(buffer_), "xxx");
  EXPECT_LE(stats_.avg_speed.get(), std::uint64_t{1} << 53);
}

TEST_F(PlaylistTest, StreamMovesOnFromVariantsThatCantBeLoaded) {
  const std::vector<std::string> paths = {"/1", "/2", "/3", "/4", "/5", "/6"};
  for (const std::string& path : paths) origin_.on(path, {ok(path)});
  origin_.on("/media", {ok(segments(paths, "1"))});
  origin_.on("/master", {ok(master({"/gone", "/media", "/gone"}))});
  const Baseline before;
  {
    // One segment fills the buffer, so five stay queued and the playlist is not loaded again.
    MasterPlaylist playlist(origin_.url("/master"), buffer_, 1, stats_, 0);
    ASSERT_TRUE(playlist.start_refreshing());
    EXPECT_TRUE(log_.err.shows("Using cached playlist (still got 5 chunks in advance)\n"));
    std::string got;
    EXPECT_TRUE(eventually([&] { return (got += drain(buffer_)) == "/1/2/3/4/5/6"; })) << got;
    origin_.on("/media", {ok("")});
    EXPECT_TRUE(log_.err.shows("unable to select variand - should_finish\n"));
    EXPECT_TRUE(playlist.should_finish());
    playlist.finish();
  }
  EXPECT_TRUE(before.is_reached());
  EXPECT_EQ(
      count(log_.err(), "Unable to refresh variant of playlist\nmarking this variant as invalid\n"),
      3);
}

TEST_F(PlaylistTest, StreamThatCantStartSaysSo) {
  origin_.on("/empty", {ok("#EXTM3U\n")});
  for (const char* path : {"/gone", "/empty"}) {
    MasterPlaylist playlist(origin_.url(path), buffer_, 1, stats_, 0);
    EXPECT_FALSE(playlist.start_refreshing());
    playlist.finish();
  }
  EXPECT_EQ(count(log_.out(), "Refreshing ... \n"), 2);
  EXPECT_EQ(count(log_.out(), "failed to get master playlist\n"), 1);
  EXPECT_EQ(count(log_.out(), "MasterPlaylist::finish\n"), 2);
}

TEST_F(PlaylistTest, FinishStopsADownloadThatIsUnderWay) {
  origin_.on("/master", {ok(master({"/media"}))});
  origin_.on("/media", {ok(segments({"/1"}))});
  origin_.on("/1", {slow(pattern(1000), 5, 100ms)});
  MasterPlaylist playlist(origin_.url("/master"), buffer_, 1 << 20, stats_, 0);
  ASSERT_TRUE(playlist.start_refreshing());
  EXPECT_TRUE(log_.out.shows("getting chunk from "));
  playlist.finish();
  EXPECT_EQ(count(log_.out(), "forced stream break. should finish\n"), 1);
}

}  // namespace
}  // namespace weir::test
