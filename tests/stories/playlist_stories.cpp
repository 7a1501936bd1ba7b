// How a stream goes: playlists, the choice of variants, keys, and what ends it.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/world.h"

namespace weir::test {

// This story is not shortened: it has the lines behind the phrases of the other stories.
TEST(Story, SessionOfALiveChannel) {
  const std::string k = key("http://~/k"), two = encrypt(std::string(1270, '2'), kKey);
  World world;
  world.origin("c:8080", {{"/a/b/1", {slow(std::string(1280, '1'), 128, 10ms)}},
                          {"/a/b/2", {slow(two, 64, 5ms)}},
                          {"/a/b/3", {slow("three", 1, 5ms)}}});
  world.origin("p", {{"/m", {ok(master({"100000 http://~/low", "300000 http://~/high"}))}},
                     {"/k", {ok(kKey)}},
                     {"/low",
                      {ok(list(7, {"http://@/a/b/1", k, "http://@/a/b/2"}, 4)),
                       ok(list(8, {k, "http://@/a/b/2", key(""), "http://@/a/b/3", kEnd}, 4))}}});
  world.converse({{0s, "/update-cache-map?chunk=c:8080&playlist=p:80"},
                  {1s, "/stream.ts?url=http://~/m"},
                  {7s, "/stats.json"}},
                 {}, true);
}

TEST(Story, LivePlaylistIsReloadedUntilNothingIsNew) {
  const std::string last = list(6, {"/6", "/7"}, 9);
  const std::vector<Reply> lists = {
      ok(list(1, {"/1", "/2", "/3", "/4", "/5"}, 4)), ok(list(1, {"/1"}, 4)),
      ok(list(4, {"/4", "/5", "/6", "/7"}, 4)), cut(last + "more", last.size(), Reply::kClose)};
  World().converse({{0s, kM + "&startFrom=-2"}, {60s, kM + "&startFrom=4294967298"}},
                   vod("", {{"/v", lists}}));
}

// Three segments are new when the playlist has become longer than those that are kept.
TEST(Story, RunningStreamOutlivesTheLimitOfItsPlaylist) {
  const std::vector<std::string> lines(50001, "/1");
  World world;
  world.origin(
      "o", vod("", {{"/v",
                     {ok(list(1, {lines.begin(), lines.end() - 3})), ok(list(1, lines) + kEnd)}}}));
  EXPECT_EQ(world.get({0s, kM + "&startFrom=-1"}), stream("/1/1/1/1"));
}

TEST(Story, VariantsFollowTheSpeed) {
  const size_t speeds[] = {6000, 6000, 6000, 1600, 1600, 1600, 1600, 700, 700, 700, 300, 300};
  std::vector<std::string> lines;
  Pages pages = {{"/m",
                  {ok(master({"800000 http://o/low", "3200000 http://o/high",
                              "1600000 http://o/middle", "1600000 http://o/other"}))}}};
  for (const size_t kbps : speeds) {
    lines.push_back('/' + std::to_string(lines.size()) + "at" + std::to_string(kbps));
    // 128 bytes in a millisecond are 1000 kbps.
    const std::string media(12800, "abcdefghijkl"[lines.size() - 1]);
    Reply& reply = pages[lines.back()].emplace_back(slow(media, kbps * 128 / 1000, 1ms));
    if (kbps == 300) reply.pieces[1].pause = 500ms;  // the buffer is empty then
  }
  const Reply whole = ok(list(1, lines, 3));
  lines.pop_back();  // only the fourth time, "/low" has the last segment
  const Reply most = ok(list(1, lines, 20));
  pages["/middle"] = pages["/high"] = {whole};
  pages["/low"] = {most, most, most, whole};
  World world({"20000"});
  // A turn of the timer stops in its log while the speed drops.
  world.during(5100ms, 6100ms, [](bool stuck) { set_log_stuck(2, stuck); });
  world.during(5200ms, 6200ms, [](bool stuck) { set_log_stuck(1, stuck); });
  world.converse({{0s, kM}, {4501ms, "/stats.json"}}, pages);
}

// 600,000 bytes in 320 ms is 14,648 kbps, just above half of what the better variant needs.
TEST(Story, FullBufferPausesDownloadsAndKeepsTheVariant) {
  const std::string media(600000, 'a'), restart = "#EXT-X-MEDIA-SEQUENCE:1";
  std::vector<std::string> lines(14, "/a");
  std::fill_n(lines.begin() + 6, 4, "/b");
  lines[12] = restart;
  // After one without a new segment.
  std::vector<Reply> lists(6, ok(list(1, lines, 4)));
  lists.push_back(ok(list(13, {"/b", "/b", "/b", restart, "/a"}, 4)));
  World({" +1000000x"})
      .converse({{0s, kM, std::string::npos, 200ms}, {3s, "/stats.json"}},
                {{"/m", {ok(master({"30000000 http://o/v", "1 http://o/v"}))}},
                 {"/v", lists},
                 {"/a", {slow(media, 60000, 10ms)}},
                 {"/b", {slow(media, 60000, 32ms)}}});
}

TEST(Story, FourthFailedSegmentInARowEndsTheStream) {
  const Reply lengthless = raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\nmedia");
  // The second segment fails before and after the playlist is reloaded.
  const std::string more = list(2, {"/a", "/a", "/1", "/a", "/a", "/a", "/a", "/2"});
  World().converse({{0s, kM}},
                   vod("", {{"/v", {ok(list(1, {"/1", "/a"})), ok(more)}}, {"/a", {lengthless}}}));
}

// How the URL of a key is found is in unit/playlist_test.cpp.
TEST(Story, KeysAreLoadedOncePerUrl) {
  const std::string k = key("http://o/k"), missing = key("http://o/n"), x = "http://o:81/x";
  const std::string lines =
      list(1, {k, "/s", "/s", key(""), "/1", k, "/s", missing, "/s", "/s", key("http://o/short"),
               "/t", key("k"), "/s", k, "http://p/x", x, kEnd});
  World world;
  world.origin("o:81", {{"/x", {ok(encrypt("other port", kKey))}}});
  world.origin("p", {{"/x", {ok(encrypt("other host", kKey))}}});
  world.converse({{0s, kM}}, vod(lines, {{"/s", {ok(encrypt("media", kKey))}},
                                         {"/t", {ok(encrypt("other", "short"))}},
                                         {"/k", {ok(kKey)}},
                                         {"/short", {ok("short")}}}));
}

// The argument counts as 0, so that the buffer is full at once.
TEST(Story, UnloadableVariantsAreNotSelectedAgain) {
  World world({"0x10"});
  world.origin("silent").kind = Host::Kind::kSilent;
  // The second client has left when its first variant fails; the other one isn't tried.
  world.converse(
      {{0s, kM}, {10s, "/stream?url=http://o/n"}},
      vod("", {{"/m", {ok(master({"5 http://o/gone", "7 http://o/empty", "6 http://o/v"}))}},
               {"/v", {ok(list(1, {"/1"}, 1)), ok("")}},
               {"/empty", {ok("#EXTM3U\n")}},
               {"/n", {ok(master({"5 http://silent/v", "7 http://o/v"}))}}}));
}

TEST(Story, StreamsEndWithoutDataAndWithoutAReader) {
  const std::string large(400000, 'a');
  const size_t nothing = stream("").size();
  World world;
  Host& deaf = world.origin("deaf");
  deaf.kind = Host::Kind::kDeaf;
  deaf.capacity = 10;
  Pages pages = vod(list(1, {"/1"}, 100), {{"/a", {ok(large)}},
                                           {"/b", {slow(large, 10000, 500ms)}},
                                           {"/c", {slow(large, 100000, 1s)}}});
  const auto channel = [&](const std::string& path, const Reply& variant) {
    pages[path] = {ok(master({"1 http://o/v" + path}))};
    pages["/v" + path] = {variant};
  };
  channel("/idle", ok(list(1, {"/a", "/a", "/c", "/a"}, 60)));
  channel("/leave", ok(list(1, {"/b"}, 60)));
  channel("/late", slow(list(1, {"/1"}, 60), 4, 1s));
  channel("/slow", ok(list(1, {"/a", kEnd})));  // what a player does not take in 10 s is lost
  channel("/deaf", ok(list(1, {"http://deaf/longer/than/ten"})));
  world.converse({{0s, kM},
                  {20s, "/stream?url=http://o/idle", nothing, 40s},
                  {25s, "/stats.json"},  // the player has stopped reading
                  {70s, "/stream?url=http://o/leave", nothing + 30000},
                  {80s, "/stream?url=http://o/late"},
                  {120s, "/stream?url=http://o/deaf"},
                  {160s, "/stream?url=http://o/slow", std::string::npos, 12s}},
                 pages);
}

}  // namespace weir::test
