// How a stream goes: playlists, the choice of variants, keys, and what ends it.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/story.h"
#include "support/world.h"

namespace weir::test {
namespace {

// This story is not shortened: it has the lines behind the phrases of the other stories.
TEST(Story, SessionOfALiveChannel) {
  const std::string one(1280, '1');
  const std::string two(1270, '2');
  World world;
  world.origin("c:8080", {{"/a/b/1", {slow(one, 128, 10ms)}},
                          {"/a/b/2", {slow(encrypt(two, kKey), 64, 5ms)}},
                          {"/a/b/3", {slow("three", 1, 5ms)}}});
  world.origin(
      "p",
      {{"/m", {ok(master({"100000 http://~/low", "300000 http://~/high"}))}},
       {"/k", {ok(kKey)}},
       {"/low",
        {ok(list(7, {"http://@/a/b/1", key("http://~/k"), "http://@/a/b/2"}, 4)),
         ok(list(8, {key("http://~/k"), "http://@/a/b/2", key(""), "http://@/a/b/3", kEnd}, 4))}}});
  world.converse({{0s, "/update-cache-map?chunk=c:8080&playlist=p:80"},
                  {1s, "/stream.ts?url=http://~/m"},
                  {7s, "/stats.json"}},
                 true);
}

TEST(Story, LivePlaylistIsReloadedUntilNothingIsNew) {
  World world;
  world.origin(
      "o", vod("", {{"/v",
                     {ok(list(1, {"/1", "/2", "/3", "/4", "/5"}, 4)), ok(list(1, {"/1"}, 4)),
                      ok(list(4, {"/4", "/5", "/6", "/7"}, 4)), ok(list(6, {"/6", "/7"}, 9))}}}));
  world.converse({{0s, kM + "&startFrom=-2"}, {60s, kM + "&startFrom=4294967298"}});
}

TEST(Story, VariantsFollowTheSpeed) {
  // 128 bytes in a millisecond are 1000 kbps.
  const auto at_kbps = [](size_t kbps, char media) {
    Reply reply = slow(std::string(12800, media), kbps * 128 / 1000, 1ms);
    if (kbps == 300) reply.pieces[1].pause = 500ms;  // the buffer is empty then
    return reply;
  };
  const size_t speeds[] = {6000, 6000, 6000, 1600, 1600, 1600, 1600, 700, 700, 700, 300, 300};
  std::vector<std::string> lines;
  Pages pages = {{"/m",
                  {ok(master({"800000 http://o/low", "3200000 http://o/high",
                              "1600000 http://o/middle", "1600000 http://o/other"}))}}};
  for (const size_t kbps : speeds) {
    lines.push_back("/" + std::to_string(lines.size()) + "at" + std::to_string(kbps));
    pages[lines.back()] = {at_kbps(kbps, "abcdefghijkl"[lines.size() - 1])};
  }
  pages["/low"] = pages["/middle"] = pages["/high"] = {ok(list(1, lines, 2))};
  World world({"20000"});
  world.origin("o", pages);
  world.converse({{0s, kM}, {4501ms, "/stats.json"}});
}

// 600,000 bytes in 320 ms is 14,648 kbps, just above half of what the better variant needs.
TEST(Story, FullBufferPausesDownloadsAndKeepsTheVariant) {
  const std::string media(600000, 'a');
  World world({" +1000000x"});
  std::vector<std::string> lines(14, "/a");
  std::fill_n(lines.begin() + 6, 4, "/b");
  lines[12] = "#EXT-X-MEDIA-SEQUENCE:1";
  // After one without a new segment.
  std::vector<Reply> lists(6, ok(list(1, lines, 4)));
  lists.push_back(ok(list(13, {"/b", "/b", "/b", lines[12], "/a"}, 4)));
  world.origin("o", vod("", {{"/v", lists},
                             {"/m", {ok(master({"30000000 http://o/v", "1 http://o/v"}))}},
                             {"/a", {slow(media, 60000, 10ms)}},
                             {"/b", {slow(media, 60000, 32ms)}}}));
  world.converse({{0s, kM, std::string::npos, 200ms}, {3s, "/stats.json"}});
}

TEST(Story, FourthFailedSegmentInARowEndsTheStream) {
  const std::vector<Reply> lengthless = {raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\nmedia")};
  World world;
  world.origin("o", vod(list(1, {"/a", "/a", "/a", "/1", "/a", "/a", "/a", "/a", "/2"}),
                        {{"/a", lengthless}}));
  world.converse({{0s, kM}});
}

TEST(Story, KeysAreLoadedOncePerUrl) {
  const std::string secret = encrypt("media", kKey);
  const std::string other = encrypt("other", "short");
  World world;
  world.origin("o", vod(list(1, {key("http://o/k"),
                                 "/s",
                                 "/s",
                                 key(""),
                                 "/1",
                                 key("http://o/k"),
                                 "/s",
                                 key("http://o/n"),
                                 "/s",
                                 "/s",
                                 key("http://o/short"),
                                 "/other",
                                 "#EXT-X-KEY:METHOD=NONE",
                                 "/s",
                                 "#EXT-X-KEY:URI=",
                                 "/1",
                                 "#EXT-X-KEY:URI=\"",
                                 "/1",
                                 "#EXT-X-KEY:URI=\"http://o/k\",IV=0",
                                 "/s",
                                 kEnd}),
                        {{"/s", {ok(secret)}},
                         {"/other", {ok(other), ok(other)}},
                         {"/k", {ok(kKey)}},
                         {"/short", {ok("short")}}}));
  world.converse({{0s, kM}});
}

TEST(Story, UnloadableVariantsAreNotSelectedAgain) {
  World world;
  world.origin("silent").kind = Host::Kind::kSilent;
  world.origin(
      "o", vod("", {{"/m", {ok(master({"5 http://o/gone", "7 http://o/empty", "6 http://o/v"}))}},
                    {"/v", {ok(list(1, {"/1"}, 1)), ok("")}},
                    {"/empty", {ok("#EXTM3U\n")}},
                    {"/n", {ok(master({"5 http://silent/v", "7 http://o/v"}))}}}));
  // The second client has left when its first variant fails; the other one isn't tried.
  world.converse({{0s, kM}, {10s, "/stream?url=http://o/n"}});
}

TEST(Story, StreamsEndWithoutDataAndWithoutAReader) {
  const std::string large(400000, 'a');
  const size_t nothing = stream("").size();
  World world;
  Host& deaf = world.origin("deaf");
  deaf.kind = Host::Kind::kDeaf;
  deaf.capacity = 10;
  const auto only = [](const std::string& variant) {
    return std::vector{ok(master({"1 " + variant}))};
  };
  world.origin("o",
               vod(list(1, {"/1"}, 60), {{"/idle", only("http://o/many")},
                                         {"/many", {ok(list(1, {"/a", "/a", "/c", "/a"}, 60))}},
                                         {"/c", {slow(large, 100000, 1s)}},
                                         {"/a", {ok(large)}},
                                         {"/leave", only("http://o/slow")},
                                         {"/slow", {ok(list(1, {"/b"}, 60))}},
                                         {"/b", {slow(large, 10000, 500ms)}},
                                         {"/late", only("http://o/trickle")},
                                         {"/trickle", {slow(list(1, {"/1"}, 60), 4, 1s)}},
                                         {"/deaf", only("http://o/d")},
                                         {"/d", {ok(list(1, {"http://deaf/longer/than/ten"}))}}}));
  world.converse({{0s, kM},
                  {20s, "/stream?url=http://o/idle", nothing, 40s},
                  {25s, "/stats.json"},  // the player has stopped reading
                  {70s, "/stream?url=http://o/leave", nothing + 30000},
                  {80s, "/stream?url=http://o/late"},
                  {120s, "/stream?url=http://o/deaf"}});
}

}  // namespace
}  // namespace weir::test
