#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <thread>

#include "buffer/cbuff.h"
#include "playlist/chunklist.h"
#include "playlist/master_playlist.h"
#include "stats/stream_stats.h"
#include "support/captured_log.h"
#include "support/client.h"
#include "support/scripted_origin.h"

namespace weir {

// Single steps of the engine, on one thread.
class MasterPlaylistPeer {
 public:
  MasterPlaylistPeer(CBuff* buffer, StreamStats* stats, std::uint64_t max_buffer = 1 << 20,
                     std::int32_t start_from = 0)
      : playlist("", buffer, max_buffer, stats, start_from) {}

  // The variants of a text, as "bandwidth url|".
  std::string parse(const std::string& text) {
    const bool whole = playlist.parse_master(text);
    std::string list;
    for (const Variant& v : playlist.variants) {
      list += std::to_string(v.bandwidth) + " " + v.url + "|";
    }
    return list + (whole ? "" : "!");
  }

  // What is selected, as "bandwidth low high".
  std::string select() {
    if (!playlist.select_variant()) return "none";
    return std::to_string(playlist.current_variant->bandwidth) + " " +
           std::to_string(playlist.boundary_low) + " " + std::to_string(playlist.boundary_high);
  }

  void variants(const std::vector<std::uint64_t>& bandwidths) {
    playlist.variants.clear();
    playlist.current_variant = nullptr;
    playlist.boundary_low = playlist.boundary_high = 0;
    for (const auto bandwidth : bandwidths) playlist.variants.push_back({bandwidth, "", false});
  }
  void forget_current() { playlist.current_variant = nullptr; }
  void invalidate_current() { playlist.current_variant->invalid = true; }

  // A pass over the text of a variant playlist, with a variant of that bandwidth.
  void pass(const std::string& text, std::uint64_t bandwidth = 0) {
    if (playlist.variants.empty()) variants({bandwidth});
    if (playlist.current_variant == nullptr) (void)playlist.select_variant();
    playlist.chunklist->parse(text);
    playlist.fill_pass();
  }
  std::int32_t countdown() const { return playlist.refresh_countdown; }
  size_t queued() const { return playlist.chunklist->chunks.size(); }

  MasterPlaylist playlist;
};

namespace test {
namespace {

using End = Reply::End;
const std::string kKey = "0123456789abcdef";
constexpr auto kNone = std::numeric_limits<std::uint64_t>::max();

class PlaylistTest : public testing::Test {
 protected:
  std::string drain() {
    std::string text(buffer_.fill(), '\0');
    text.resize(text.empty() ? 0 : buffer_.read(text.data(), text.size()));
    return text;
  }

  std::string segment(const std::string& path) { return origin_.url(path) + "\n"; }

  ScriptedOrigin origin_;
  CBuff buffer_;
  StreamStats stats_;
};

TEST_F(PlaylistTest, EveryLineThatIsNoStreamTagIsAVariant) {
  const std::string inf = "#EXT-X-STREAM-INF:";
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"\n", "!"},
      {"#EXTM3U8\n", "!"},
      {" #EXTM3U \r\n" + inf + "BANDWIDTH=1280000\r\n u1 \r\n", "1280000 u1|"},
      {"#EXTM3U\n#EXT-X-VERSION:3\n" + inf + "BANDWIDTH=5,X=1\n\nu1",
       "0 #EXT-X-VERSION:3|5 |5 u1|"},
      {"#EXTM3U\n" + inf + "AVERAGE-BANDWIDTH=500000,BANDWIDTH=800000\nu1\nu2\n",
       "500000 u1|500000 u2|"},
      {"#EXTM3U\nu0\n" + inf + "RESOLUTION=1x1\nu1\n", "0 u0|!"},
      {"#EXTM3U\n" + inf + "BANDWIDTH=x\nu1\n" + inf + "BANDWIDTH=-1\nu2",
       "0 u1|18446744073709551615 u2|"},
      {"#EXTM3U\n#ext-x-stream-inf:BANDWIDTH=1\n", "0 #ext-x-stream-inf:BANDWIDTH=1|"},
  };
  MasterPlaylistPeer peer(&buffer_, &stats_);
  for (const auto& [text, variants] : cases) EXPECT_EQ(peer.parse(text), variants) << text;
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
      list += std::to_string(chunk.sequence) + " " + chunk.url + " " + chunk.key_url + "|" +
              (chunk.last ? "." : "");
    }
    EXPECT_EQ(list, segments) << text;
    EXPECT_EQ(chunklist.target_duration, 10U);
  }
}

TEST_F(PlaylistTest, SelectionFollowsTheSpeed) {
  struct Case {
    std::vector<std::uint64_t> bandwidths;
    std::uint64_t kbps;
    std::string selected;
  };
  const std::string all = std::to_string(kNone);
  const Case cases[] = {
      {{800000, 1600000, 3200000}, 2000, "1600000 1600000 3840000"},
      {{3200000, 800000, 1600000}, 500, "800000 0 1920000"},
      {{800000, 1600000, 3200000}, 4000, "3200000 3200000 " + all},
      {{800000}, 0, "800000 0 " + all},
      {{0, 800000, 800000}, 800, "800000 800000 " + all},
      {{5, kNone - 1, kNone}, 0, "5 0 " + all},
      {{}, 100, "none"},
  };
  MasterPlaylistPeer peer(&buffer_, &stats_);
  for (const Case& c : cases) {
    peer.variants(c.bandwidths);
    stats_.avg_speed.set(c.kbps);
    EXPECT_EQ(peer.select(), c.selected);
  }
}

TEST_F(PlaylistTest, CurrentVariantIsKeptInsideItsBandOrWithAnAdequateBuffer) {
  MasterPlaylistPeer peer(&buffer_, &stats_, 1000);
  peer.variants({800000, 1600000});
  stats_.avg_speed.set(1562);
  const std::string high = "1600000 1600000 " + std::to_string(kNone);
  CapturedLog log;
  EXPECT_EQ(peer.select(), high);
  EXPECT_EQ(log.out(),
            "select variant, curr avg in bps: 1599488\n"
            "SELECT: min: 800000 max: 1600000\n"
            "SELECT BEST kbps: 781CUR bps: 1562\n"
            "SELECT BEST kbps: 781CUR bps: 1562\n"
            "SELECT NEW BEST: 1600000\n"
            "SELECT BEST first higher bps: 1600000CUR BEST bps: 1600000\n"
            "SELECT BEST first higher bps: 1600000CUR BEST bps: 1600000\n"
            "selected variant bitrate: 1600000URL: \n"
            "boundary low: 1600000 high: 18446744073709551615\n");
  stats_.avg_speed.set(1561);
  buffer_.write(std::string(600, 'x').data(), 600);
  EXPECT_EQ(peer.select(), high);
  EXPECT_EQ(count(log.out(),
                  "download is slow, but buffer is adequate -> select variant canceled "
                  "(600 / 1000\n"),
            1);
  buffer_.consume(1);
  EXPECT_EQ(peer.select(), "800000 0 1920000");
  // An invalid one is kept by neither its band nor the buffer.
  peer.invalidate_current();
  EXPECT_EQ(peer.select(), "1600000 0 " + std::to_string(kNone));
  peer.forget_current();
  EXPECT_EQ(peer.select(), "none");
  EXPECT_EQ(log.err(), "Unable no variant chosen!\n");
}

TEST_F(PlaylistTest, FirstPassSkipsAndLaterPassesFetchOnlyWhatIsNew) {
  for (const char* path : {"/1", "/2", "/3", "/4"}) origin_.on(path, {ok(path)});
  const std::string head = "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:1\n";
  const std::string text = head + segment("/1") + segment("/2") + segment("/3");
  MasterPlaylistPeer peer(&buffer_, &stats_, 1 << 20, -2);
  CapturedLog log;
  peer.pass(text);
  EXPECT_EQ(drain(), "/2/3");
  EXPECT_EQ(
      count(log.out(), "skipping chunk from " + origin_.url("/1") + " as required by startFrom\n"),
      1);
  EXPECT_EQ(peer.countdown(), 6);
  peer.pass(text + segment("/4"));
  EXPECT_EQ(drain(), "/4");
  EXPECT_EQ(origin_.connections(), 1);
  peer.pass(text);
  EXPECT_EQ(peer.countdown(), 2);
  EXPECT_FALSE(peer.playlist.should_finish());
  for (int i = 0; i < 5; ++i) peer.pass(text);
  EXPECT_TRUE(peer.playlist.should_finish());
  EXPECT_EQ(log.err(), "no new chunks in many playlist reloads\n");
  EXPECT_NE(log.out().find("fill buffer for0\nstart from: -2\n"
                           "searching for new chunks (last seq got 0)\n"),
            std::string::npos);
}

TEST_F(PlaylistTest, SkipBeyondTheQueueAndHugeTargetDurationAreHarmless) {
  origin_.on("/1", {ok("one")});
  MasterPlaylistPeer peer(&buffer_, &stats_, 1 << 20, -9);
  CapturedLog log;
  peer.pass("#EXTM3U\n#EXT-X-TARGETDURATION:4294967295\n" + segment("/0") + segment("/1"));
  EXPECT_EQ(drain(), "one");  // number 0 is never fetched
  EXPECT_EQ(origin_.requests_for("/0"), 0);
  EXPECT_LT(peer.countdown(), 0);
}

TEST_F(PlaylistTest, FullBufferEndsThePassAndKeepsTheSegment) {
  MasterPlaylistPeer peer(&buffer_, &stats_, 3);
  buffer_.write("abc", 3);
  CapturedLog log;
  peer.pass("#EXTM3U\n" + segment("/1"));
  EXPECT_EQ(peer.queued(), 1U);
  EXPECT_EQ(count(log.out(), "buffer is full - not downloading more chunks ...\n"), 1);
}

TEST_F(PlaylistTest, KeyIsLoadedOnceAndForgottenByAClearSegment) {
  const std::string secret = encrypt("media", kKey);
  origin_.on("/key", {ok(kKey)});
  origin_.on("/s", {ok(secret), ok(secret), ok("clear"), ok(secret)});
  const std::string keyed = "#EXT-X-KEY:METHOD=AES-128,URI=\"" + origin_.url("/key") + "\"\n";
  // A key line of one character has an empty URL: what follows is clear.
  const std::string clear = "#EXT-X-KEY:URI=\"\"\n";
  MasterPlaylistPeer peer(&buffer_, &stats_);
  CapturedLog log;
  peer.pass("#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n" + keyed + segment("/s") + segment("/s") + clear +
            segment("/s") + keyed + segment("/s"));
  EXPECT_EQ(drain(), "mediamediaclear" + secret);
  EXPECT_EQ(origin_.requests_for("/key"), 1);
  EXPECT_EQ(count(log.out(), "getting new decryption key from: " + origin_.url("/key") + "\n"), 1);
}

TEST_F(PlaylistTest, FourthSegmentGivenUpInARowEndsTheStream) {
  origin_.on("/end", {ok("end")});
  const std::string head = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n";
  const std::string gone = segment("/gone");
  MasterPlaylistPeer peer(&buffer_, &stats_);
  CapturedLog log;
  peer.pass(head + gone + gone + gone + segment("/end") + "#EXT-X-ENDLIST\n" + gone);
  EXPECT_EQ(log.out().find("too many"), std::string::npos);
  EXPECT_EQ(drain(), "end");
  EXPECT_TRUE(peer.playlist.should_finish());
  EXPECT_EQ(count(log.out(), "last chunk - setting should_finish\n"), 1);
  EXPECT_EQ(origin_.requests_for("/gone"), 3 * 4 * 6);
  EXPECT_EQ(count(log.err(), "chunk get from " + origin_.url("/gone") + " FAILED\n"), 3 * 4);
  EXPECT_EQ(
      count(log.err(), "retry chunk get from " + origin_.url("/gone") + " starting from byte 0\n"),
      3 * 3);
  MasterPlaylistPeer other(&buffer_, &stats_);
  other.pass(head + gone + gone + gone + gone + gone);
  EXPECT_EQ(other.queued(), 1U);
  EXPECT_EQ(count(log.err(), "too many failed subsequent chunks. Finishing stream.\n"), 1);
}

// A segment of half a kilobyte in half a second: about 8 kbps.
Reply slow(const std::string& body) {
  Reply reply = ok(body);
  std::string& text = reply.pieces[0];
  const std::string rest = text.substr(text.size() - body.size());
  text.resize(text.size() - body.size());
  reply.pieces.push_back(rest);
  reply.pause = std::chrono::milliseconds(500);
  return reply;
}

TEST_F(PlaylistTest, SuddenDropEndsThePassAndRewritesTheHistory) {
  origin_.on("/1", {slow(pattern(512))});
  stats_.avg_speed.set(9000);
  MasterPlaylistPeer peer(&buffer_, &stats_);
  CapturedLog log;
  peer.pass("#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:1\n" + segment("/1") +
                segment("/2"),
            8000000);
  const std::uint64_t speed = stats_.last_chunk_speed.get();
  EXPECT_GT(speed, 0U);
  EXPECT_LT(speed, 9U);
  EXPECT_EQ(stats_.avg_speed.get(), speed);
  EXPECT_EQ(stats_.speed_history[4].get(), speed >> 1);
  EXPECT_EQ(stats_.selected_profile.get(), 8000000U >> 10);
  EXPECT_EQ(peer.countdown(), 0);
  EXPECT_EQ(peer.queued(), 1U);
  EXPECT_EQ(log.err(), "sudden speed drop! falling down immediately!\n");
}

TEST_F(PlaylistTest, AverageIsWeightedAndLeavingTheBandEndsThePass) {
  origin_.on("/1", {slow(pattern(512))});
  for (size_t i = 0; i < 5; ++i) stats_.speed_history[i].set(900 * (i + 1));
  MasterPlaylistPeer peer(&buffer_, &stats_);
  peer.variants({8000, 400000});
  CapturedLog log;
  peer.pass("#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:1\n" + segment("/1") +
            segment("/2"));
  const std::uint64_t newest = stats_.last_chunk_speed.get();
  const std::uint64_t avg = (3 * newest + 2 * 900 + 2 * 1800 + 2700 + 3600) / 9;
  EXPECT_EQ(stats_.avg_speed.get(), avg);
  EXPECT_EQ(stats_.speed_history[4].get(), 3600U);
  EXPECT_EQ(count(log.out(), "avg_speed out of boundaries! (" + std::to_string(avg) + " 0 468)\n"),
            1);
  EXPECT_EQ(peer.countdown(), 0);
  EXPECT_EQ(peer.queued(), 1U);
}

TEST_F(PlaylistTest, SpeedWithoutAMeasurableTimeIsCapped) {
  for (std::uint64_t i = 0; i < 5; ++i) stats_.speed_history[i].set(std::uint64_t{1} << 53);
  for (const char* path : {"/1", "/2", "/3"}) origin_.on(path, {ok("x")});
  MasterPlaylistPeer peer(&buffer_, &stats_);
  CapturedLog log;
  peer.pass("#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n" + segment("/1") + segment("/2") + segment("/3"));
  EXPECT_EQ(drain(), "xxx");
  EXPECT_LE(stats_.avg_speed.get(), std::uint64_t{1} << 53);
}

TEST_F(PlaylistTest, StreamMovesOnFromVariantsThatCantBeLoaded) {
  origin_.on("/master", {ok("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n" + segment("/gone") +
                            "#EXT-X-STREAM-INF:BANDWIDTH=2\n" + segment("/media"))});
  std::string chunks;
  for (const std::string path : {"/1", "/2", "/3", "/4", "/5", "/6"}) {
    origin_.on(path, {ok(path)});
    chunks += segment(path);
  }
  origin_.on("/media",
             {ok("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:1\n" + chunks)});
  CapturedLog log;
  const int running = threads();
  const int descriptors = open_descriptors();
  {
    // One segment fills the buffer, so five stay queued and the playlist is not loaded again.
    MasterPlaylist playlist(origin_.url("/master"), &buffer_, 1, &stats_, 0);
    ASSERT_TRUE(playlist.start_refreshing());
    EXPECT_TRUE(log.wait_for_err("Using cached playlist (still got 5 chunks in advance)\n"));
    std::string got;
    for (int turn = 0; turn < 300 && got.size() < 12; ++turn) {
      if (buffer_.fill() > 0) got += drain();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(got, "/1/2/3/4/5/6");
    origin_.on("/media", {ok("")});
    EXPECT_TRUE(log.wait_for_err("unable to select variand - should_finish\n"));
    EXPECT_TRUE(playlist.should_finish());
    playlist.finish();
  }
  EXPECT_TRUE(settles_at(running, descriptors));
  EXPECT_EQ(count(log.err(),
                  "Unable to refresh variant of playlist\n"
                  "marking this variant as invalid\n"),
            2);
}

TEST_F(PlaylistTest, StreamThatCantStartSaysSo) {
  origin_.on("/empty", {ok("#EXTM3U\n")});
  CapturedLog log;
  for (const char* path : {"/gone", "/empty"}) {
    MasterPlaylist playlist(origin_.url(path), &buffer_, 1, &stats_, 0);
    EXPECT_FALSE(playlist.start_refreshing());
    playlist.finish();
  }
  EXPECT_EQ(count(log.out(), "Refreshing ... \n"), 2);
  EXPECT_EQ(count(log.out(), "failed to get master playlist\n"), 1);
  EXPECT_EQ(count(log.out(), "MasterPlaylist::finish\n"), 2);
}

TEST_F(PlaylistTest, FinishStopsADownloadThatIsUnderWay) {
  origin_.on("/master", {ok("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n" + segment("/media"))});
  origin_.on("/media", {ok("#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n" + segment("/1"))});
  Reply trickle = cut(pattern(1000), 0, End::kStall);
  trickle.pieces.resize(200, "x");
  trickle.pause = std::chrono::milliseconds(100);
  origin_.on("/1", {trickle});
  CapturedLog log;
  MasterPlaylist playlist(origin_.url("/master"), &buffer_, 1 << 20, &stats_, 0);
  ASSERT_TRUE(playlist.start_refreshing());
  EXPECT_TRUE(log.wait_for_out("getting chunk from "));
  playlist.finish();
  EXPECT_EQ(count(log.out(), "forced stream break. should finish\n"), 1);
}

}  // namespace
}  // namespace test
}  // namespace weir
