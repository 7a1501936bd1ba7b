// Whole conversations in simulated time: what clients ask, what origins do, and what must
// come of it, to the byte and to the millisecond. What is logged in the meantime stands in
// tests/transcripts/, line by line.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "support/world.h"

namespace weir::test {
namespace {

using End = Reply::End;

const std::string kKey = "0123456789abcdef";
const std::string kM = "/stream?url=http://o/m";

// The pages of a stream of one variant, the segments of which are named as they read.
Pages vod(const std::string& variant, Pages more = {}) {
  more.insert({{"/m", {ok(master({"1 http://o/v"}))}}, {"/v", {ok(variant)}}});
  for (const std::string path : {"/1", "/2", "/3", "/4", "/5", "/6", "/7", "/8", "/9"}) {
    more.insert({path, {ok(path)}});
  }
  return more;
}

// Everything that clients may ask without a stream.
TEST(Conversation, RequestsAreAnsweredExactly) {
  World world;
  world.converse({
      {0s, "/", 0},  // before anything else ignores SIGPIPE
      {500ms, "HEAD /stream?url=x HTTP/1.1\r\n\r\n"},
      {1s, "HEAD /stream.ts \r\nA: b\r\n\r\n"},
      {2s, "/stream.ts?startFrom=1"},
      {3s, "get /stats%2Ejson?x=1\n\n"},
      {4s, "HEAD /stats.json HTTP/1.0\r\n\r\n"},
      {5s, "HEAD /update-cache-map HTTP/1.1\r\n\r\n"},
      {6s, "HEAD /watchdog HTTP/1.1\r\n\r\n"},
      {7s, "/stream/"},
      {8s, "/Stream"},
      {9s, "/%0D%0Aa+b=c&d?e"},
      {10s, "GET  /stats.json\r\n\r\n"},
      {11s, "GET \r\n\r\n"},
      {12s, "/" + std::string(5000, 'a')},
      {13s, "/update-cache-map?chunk=a=b%2Cc+;&x&chunk=d&playlist=%zz%4"},
      {14s, "/update-cache-map?a&playlist=b&=c&pl+ylist=d&playlist=e%"},
      {15s, "/update-cache-map?playlist&chunk"},
      {16s, "/update-cache-map?playlist="},
      {17s, "POST /stats.json HTTP/1.1\r\n\r\n" + pattern(65536)},
      {17500ms, "POST /stats.json HTTP/1.1\r\n\r\n" + pattern(65537)},
      {19s, "/live%2Fa+b%2bc%00%7F%80%fF%2525%zzb%4zb%%41%-1"s + '\0' + "%41%"},
      {20s, "/%4?/%zz?a%20b"},
      {21s, "GET /a\tHTTP/1.1 \xA0\xFF \r\n\r\n"},
      {22s, " GET / \v\f\r\n\r\n"},
  });
}

// Nobody is kept waiting by somebody who says nothing, for 4095 times ten seconds.
TEST(Conversation, SilentClientIsCutOffAfterElevenHours) {
  World world;
  // The second one's line, and then its headers.
  world.converse({{0s, ""}, {5s, "HEAD /watchdog "}, {40900s, "/stats.json"}});
}

TEST(Conversation, SessionOfALiveChannel) {
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
                  {1s, "/watchdog"},
                  {2s, "/stream.ts?url=http://~/m"},
                  {8s, "/stats.json"}});
}

// Each segment is answered oddly once, and well when it is asked for again.
TEST(Conversation, HeadsAreReadAsTheyCome) {
  const auto odd = [](Reply reply) { return std::vector{std::move(reply), ok("+")}; };
  const std::string ok11 = "HTTP/1.1 200 OK\r\n";
  std::vector<Reply> unavailable(7, ok("", "503 No"));  // one more than there are tries
  unavailable.push_back(ok("+"));
  World world;
  world.origin(
      "o", vod(list(1, {"/206",     "/pieces",   "/10",   "/100",    "/one",  "/blank", "/302",
                        "/icy",     "/empty",    "/cut",  "/none",   "/head", "/stall", "/503",
                        "/unknown", "/negative", "/less", "/blanks", "/zero", kEnd}),
               {{"/m", {raw("ICY 200 OK\r\n"), ok(master({"1 http://o/v"}))}},
                {"/206", odd(raw("HTTP/1.1 206 P\r\nContent-Length: 3\r\n\r\n206"))},
                {"/pieces", odd({{{0s, ok11 + "A"},
                                  {1s, ": 1\r\nno colon\r\n Content-Length: 9\r\nConte"},
                                  {1s, "nt-Length: \t 3 \r\nContent-Length: 5\r\n\r"},
                                  {1s, "\nab"},
                                  {1s, "c"}}})},
                {"/10", odd(raw("HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nten", End::kClose))},
                {"/100", odd(raw("HTTP/1.0 2\r\nA: 1\r\n\r\n+", End::kClose))},
                {"/one", odd(raw("HTTP/1.1\r\n\r\n"))},
                {"/blank", odd(raw("HTTP/1.1  200 OK\r\n\r\n"))},
                {"/302", odd(raw("HTTP/1.0 302 Found\r\n\r\nHTTP/1.1 junk"))},
                {"/icy", odd(raw("ICY 200 OK\r\n"))},
                {"/empty", odd(raw("\r\n" + ok11))},
                {"/blanks", odd(raw(ok11 + "\r\n\r\nabc"))},
                {"/cut", odd({{{0s, "HTTP/1.1 200 OK"}, {1s, "\r\n"}}})},
                {"/none", odd(raw("", End::kClose))},
                {"/head", odd(raw(ok11 + "Content-Le", End::kClose))},
                {"/stall", odd(raw(ok11 + "Content-Length: 1\r\n", End::kStall))},
                {"/503", unavailable},
                {"/unknown", odd(raw(ok11 + "content-length: 2\r\n\r\nxx"))},
                {"/negative", odd(raw(ok11 + "Content-Length: -1\r\n\r\nabc", End::kClose))},
                {"/less", odd(raw(ok11 + "Content-Length: 2\r\n\r\nabc"))},
                {"/zero", odd(ok(""))}}));
  // A speed that is no number, as that of the last one, is none.
  world.converse({{0s, kM}, {14s, "/stats.json"}});
}

// To fail and be well again: each after a while.
TEST(Conversation, HostsThatCannotBeReachedAreTriedAgain) {
  World world;
  std::vector<Ask> asks;
  const std::string one = list(1, {"/1", kEnd});
  const auto ask = [&](int second, const std::string& host, Host::Kind kind, Time heals) -> Host& {
    Host& origin = world.origin(host, vod(one));
    origin.kind = kind;
    const Time start = std::chrono::seconds(second);
    world.at(start + heals, [&origin] { origin.kind = Host::Kind::kServes; });
    asks.push_back({start, "/stream?url=http://" + host + "/m"});
    return origin;
  };
  world.origin("o", vod(one));
  ask(0, "refuses:81", Host::Kind::kRefuses, 1500ms);
  ask(20, "silent", Host::Kind::kSilent, 10500ms);
  ask(40, "unreachable", Host::Kind::kUnreachable, 2500ms);
  ask(60, "deaf", Host::Kind::kDeaf, 5s);
  Host& full = ask(80, "full", Host::Kind::kDeaf, 3s);
  full.latency = 0s;
  full.capacity = 0;
  world.at(82500ms, [&full] { full.capacity = 9999; });
  world.at(99s, [] { refuse("socket", EMFILE); });
  world.at(101500ms, [] { refuse("socket", 0); });
  ask(100, "later", Host::Kind::kServes, 0s);
  world.at(99s, [] { names.erase("late"); });
  world.at(120500ms, [] { names["late"] = "10.0.0.1"; });
  ask(120, "late", Host::Kind::kServes, 0s);
  ask(140, "addressless", Host::Kind::kServes, 0s);
  world.at(139s, [] { names["addressless"] = ""; });
  world.at(140500ms, [] { names["addressless"] = "10.0.0.1"; });
  asks.push_back({160s, "/stream?url=http://10.0.0.1/m"});
  asks.push_back({180s, "/stream?url=ftp://o/m"});
  world.converse(asks);
}

TEST(Conversation, UrlsAreTakenApart) {
  World world;
  world.origin("o:81", {{"/", {ok("1")}}, {"/a:b?c=d:e", {ok("2")}}});
  world.origin("o", {{"/", {ok("3")}}, {"/a:b", {ok("4")}}});
  world.origin("c:8080", {{"/x/y/z", {ok("6")}}, {"/", {ok("7")}}});
  world.origin("p",
               {{"/m", {ok(master({"1 http://p/v"}))}},
                {"/v",
                 {ok(list(1, {"http://o:81", "http://o:81/a:b?c=d:e", "http://o", "https://o/a:b",
                              "http://p/1", "http://@/x/y/z", "http://@", "ftp://o", kEnd}))}},
                {"/1", {ok("5")}}});
  world.converse({{0s, "/update-cache-map?chunk=c:8080"}, {1s, "/stream?url=http://p/m"}});
}

// What is played after it was interrupted is what would have been played.
TEST(Conversation, ResumesExactlyWhereAStallBrokeOff) {
  const std::string plain = pattern(130);
  const std::string secret = encrypt(plain, kKey);
  Pages pages = {{"/k", {ok(kKey)}}};
  std::vector<std::string> lines;
  std::string all;
  const auto add = [&](const std::string& name, const std::string& media) {
    for (size_t at = 0; at < media.size(); ++at) {
      const std::string path = name + std::to_string(at);
      const std::string range = std::to_string(at) + "-" + std::to_string(media.size() - 1);
      pages[path] = {
          cut(media, at),
          at == 0 ? ok(media) : ok(media.substr(at), "206 P\r\nContent-Range: bytes " + range)};
      lines.push_back(path);
      all += plain;
    }
  };
  add("/clear", plain);
  lines.push_back(key("http://o/k"));
  add("/secret", secret);
  lines.push_back(kEnd);
  World world;
  world.origin("o", vod(list(1, lines), pages));
  EXPECT_TRUE(world.get({0s, kM}) == stream(all));
  EXPECT_EQ(world.since_start(), 823002ms);
}

TEST(Conversation, OffsetComesFromTheContentRange) {
  const auto part = [](const std::string& range) {
    return cut("abcdef", 2).pieces[0].bytes.insert(17, range);
  };
  World world;
  std::vector<Reply> replies = {cut("abcdef", 2)};
  for (const char* range :
       {"Content-Range: bytes 4096-8191/8192\r\n", "Content-Range: 7-8/9\r\n",
        "Content-Range: bytes 12\r\n", "Content-Range: bytes -5\r\n", "Content-Range: -bytes 5\r\n",
        "Content-Range: bytes\r\n", "content-range: bytes 4096-1/2\r\n"}) {
    replies.push_back(raw(part(range), End::kStall));
  }
  replies.push_back(ok("-"));
  world.origin("o",
               vod(list(1, {"/s", "/s", "/s", key("http://o/k"), "/x", "/y", key(""), "/1", kEnd}),
                   {{"/s", replies},
                    {"/k", {ok(kKey)}},
                    // Without its length a segment's rest isn't decrypted.
                    {"/x", {raw("HTTP/1.1 206 P\r\nContent-Range: bytes 9-\r\n\r\n"), ok("rest")}},
                    {"/y", {cut(encrypt(kKey, kKey), 20), ok("", "404 No")}}}));
  world.converse({{0s, kM}});
}

TEST(Conversation, VariantsFollowTheSpeed) {
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
  world.converse({{0s, kM}, {4500500us, "/stats.json"}});
}

// 600000 bytes are 14648 kbps in 320 ms, which is just not less than the half of what the
// better variant needs.
TEST(Conversation, FullBufferHoldsTheDownloadBackAndKeepsTheVariant) {
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

TEST(Conversation, LivePlaylistIsLoadedAgainUntilNothingIsNew) {
  World world;
  world.origin(
      "o", vod("", {{"/v",
                     {ok(list(1, {"/1", "/2", "/3", "/4", "/5"}, 4)), ok(list(1, {"/1"}, 4)),
                      ok(list(4, {"/4", "/5", "/6", "/7"}, 4)), ok(list(6, {"/6", "/7"}, 9))}}}));
  world.converse({{0s, kM + "&startFrom=-2"}, {60s, kM + "&startFrom=4294967298"}});
}

// The number 0 is never fetched.
TEST(Conversation, PlaylistsMayBeOdd) {
  Pages pages =
      vod("#EXTM3U \r\n#EXT-X-VERSION:3\r\n#EXT-X-ENDLIST\nhttp://o/1\n#EXTINF:4,\r\n"
          " http://o/2 \v\f\r\n#EXT-X-MEDIA-SEQUENCE:x\nhttp://o/3\nhttp://o/4\n"
          "#EXT-X-MEDIA-SEQUENCE:-1\nhttp://o/5\nhttp://o/6\n#EXT-X-ENDLIST",
          {{"/n", {ok("#EXTM3U\nhttp://o/none\n#EXT-X-STREAM-INF:RESOLUTION=1x1\nx")}},
           {"/x", {ok("#EXTM3U8\n1 http://o/v\n")}},
           {"/y", {ok(master({"9 http://o/none", "7 http://o/z", "7 http://o/none"}))}},
           {"/z", {ok("#EXTM3U8\nhttp://o/1\n")}},
           {"/e", {ok("")}}});
  pages["/m"] = {
      ok("\t#EXTM3U \r\n#EXT-X-VERSION:3\n#EXT-X-STREAM-INF:A=1,"
         "AVERAGE-BANDWIDTH=5,BANDWIDTH=9\r\n http://o/v \r\n\n"
         "#EXT-X-STREAM-INF:BANDWIDTH=-7\nhttp://o/w\n#ext-x-stream-inf:BANDWIDTH=1")};
  World world;
  world.origin("o", pages);
  world.converse({{0s, kM},
                  {30s, "/stream?url=http://o/n"},
                  {60s, "/stream?url=http://o/x"},
                  {61s, "/stream?url=http://o/e"},
                  {62s, "/stream?url=http://o/y"}});
}

TEST(Conversation, FailedSegmentsAreLeftOutUntilTheFourthInARow) {
  const std::vector<Reply> lengthless = {raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\nmedia")};
  World world;
  world.origin("o", vod(list(1, {"/a", "/a", "/a", "/1", "/a", "/a", "/a", "/a", "/2"}),
                        {{"/a", lengthless}}));
  world.converse({{0s, kM}});
}

TEST(Conversation, KeysAreLoadedOnceAndForgottenByAClearSegment) {
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

// By another CRC-32: bits 16 to 30 of that of the first two segments, modulo the living.
TEST(Conversation, PathsChooseTheirServers) {
  World world;
  Pages pages;
  std::vector<Ask> asks = {
      {0s, "/update-cache-map?playlist=s0:80,s1:80,s2:80,s3:80,s4:80,s5:80,s6:80;o:80"}};
  const auto ask = [&](const std::string& path) {
    pages["/" + path] = {ok("")};
    asks.push_back({1s * asks.size(), "/stream?url=http://~/" + path});
  };
  // Bits 16 to 31 of "ch286472/hd" are all ones.
  for (const char* path :
       {"abc/def/x.m3u8", "_live/abc/def/x.ts", "abc//def", "abc/", "abc", "vod/film?x=1",
        "vod?x=/a/b", "_live/ch1/720p/seg1.ts", "_live/ch1/720p/seg2.ts", "ch286472/hd/1.ts",
        "a/_live/b/c", "_lives/x/y", "_live//x/y", "_live/", "", "\xE9/x/y"}) {
    ask(path);
  }
  for (const char* name : {"s0", "s1", "s2", "s3", "s4", "s5", "s6", "o"})
    world.origin(name, pages);
  // Then they die, and one after the other is found out.
  world.at(1s * asks.size() - 1ms, [] {
    for (auto& [address, host] : hosts) host.kind = Host::Kind::kRefuses;
  });
  ask("abc");
  world.converse(asks);
}

TEST(Conversation, RingsGiveWayWhenTheirServersFail) {
  World world;
  for (const char* host : {"gone", "lost:81"}) {
    world.origin(host).kind = host[0] == 'g' ? Host::Kind::kRefuses : Host::Kind::kSilent;
  }
  world.origin("p", {{"/m", {ok(master({"1 http://~/v"}))}},
                     {"/v", {ok(list(1, {"http://@/1/1/1", "http://@/_live/1/1/2", kEnd}))}},
                     {"/1/1/1", {ok("1")}},
                     {"/_live/1/1/2", {ok("2")}},
                     {"/unknown", {raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\n")}}});
  world.converse(
      {{0s, "/update-cache-map?playlist=gone:80,lost:81;p:80&chunk=gone:80;;lost:81,p:80"},
       {1s, "/stream?url=http://~/m"},
       {30s, "/update-cache-map?playlist=gone:80;p:80,gone:80;,"},
       {31s, "/stream?url=http://~/m"},
       {50s, "/stream?url=http://~/unknown"},
       {80s, "/update-cache-map?playlist=p"},
       {81s, "/stream?url=http://~/m"}});
}

TEST(Conversation, VariantsThatCannotBeLoadedAreMarked) {
  World world;
  world.origin("silent").kind = Host::Kind::kSilent;
  world.origin(
      "o", vod("", {{"/m", {ok(master({"5 http://o/gone", "7 http://o/empty", "6 http://o/v"}))}},
                    {"/v", {ok(list(1, {"/1"}, 1)), ok("")}},
                    {"/empty", {ok("#EXTM3U\n")}},
                    {"/n", {ok(master({"5 http://silent/v", "7 http://o/v"}))}}}));
  // The second client is gone when the first variant is given up; the other isn't tried.
  world.converse({{0s, kM}, {10s, "/stream?url=http://o/n"}});
}

TEST(Conversation, StreamsEndWithoutDataAndWithoutAReader) {
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
                  {25s, "/stats.json"},  // Nobody takes from the buffer now.
                  {70s, "/stream?url=http://o/leave", nothing + 30000},
                  {80s, "/stream?url=http://o/late"},
                  {120s, "/stream?url=http://o/deaf"}});
}

// Across the borders of reads, of blocks of the buffer and of the cipher.
TEST(Conversation, SegmentsOfEverySizeArriveWhole) {
  World world({"100000000"});
  std::vector<std::string> lines;
  Pages pages = {{"/k", {ok(kKey)}}};
  std::string all;
  const auto add = [&](const std::string& sent, const std::string& received) {
    lines.push_back("/" + std::to_string(lines.size()));
    pages[lines.back()] = {slow(sent, 100003, 1ms)};
    all += received;
  };
  const size_t sizes[] = {1, 15, 16, 4096, 131071, 393217, 524287, 524288, 524289, 1500000};
  for (const size_t size : sizes) add(pattern(size), pattern(size));
  lines.push_back(key("http://o/k"));
  for (const size_t size : sizes) add(encrypt(pattern(size), kKey), pattern(size));
  // The last block is broken, or its padding is none.
  const std::string secret = encrypt(pattern(4000), kKey);
  for (const std::string& odd : {secret.substr(0, 3999), secret + secret.substr(16, 16)}) {
    add(odd, decrypt(odd, kKey));
  }
  lines.push_back(kEnd);
  world.origin("o", vod(list(1, lines), pages));
  EXPECT_TRUE(world.get({0s, kM}) == stream(all));
  EXPECT_EQ(world.since_start(), 1002ms);
}

TEST(Conversation, TextsWithoutAnEndAreGivenUp) {
  const std::string endless(17 << 20, 'x');
  World world;
  world.origin("o", {{"/long", {ok(endless)}},
                     {"/http10", {raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n" + endless)}},
                     {"/head", {raw("HTTP/1.1 200 OK\r\nA: " + endless)}}});
  world.converse({{0s, "/stream?url=http://o/long"},
                  {1s, "/stream?url=http://o/http10"},
                  {2s, "/stream?url=http://o/head"}});
}

TEST(Conversation, DeviceIsRestartedWithoutPingsAndByItsMarker) {
  World world;
  const auto mark = [&world](Time from, Time to) {
    world.at(from, [&world] { world.marker = true; });
    world.at(to, [&world] { world.marker = false; });
  };
  mark(20500ms, 25500ms);
  mark(28500ms, 31500ms);
  mark(699500ms, 702500ms);
  world.converse({{10300ms, "POST /watchdog\r\n\r\n"},
                  {100900ms, "/watchdog"},
                  {500s, "/watchdog"},
                  {600s, "/watchdog"},
                  {700s, "/stats.json"},
                  {1500s, "/stats.json"}});
}

// Nobody reads standard error: who has to write there waits, the rest goes on.
TEST(Conversation, StuckLogReaderStopsNeitherTheLoopNorTheWatchdog) {
  World world;
  world.at(1s, [] { set_log_stuck(2, true); });
  world.at(400s, [] { set_log_stuck(2, false); });
  world.converse({{0s, "/watchdog"},
                  {2s, "/x"},
                  {3s, "/stats.json"},
                  {4s, "/stream?url=http://x/"},
                  {350s, "/watchdog"}});
}

TEST(Conversation, RefusedThreadsAndMemoryAreSurvived) {
  World world;
  const auto refused = [&](const char* call, Time from, Time to, int what = EAGAIN) {
    world.at(from, [=] { refuse(call, what); });
    world.at(to, [=] { refuse(call, 0); });
  };
  // A playlist with one more segment each time.
  const auto live = [](int number) {
    return ok(
        list(number, {key(number < 3 ? "" : "http://o/k"), "/e", number == 6 ? kEnd : "#"}, 1));
  };
  const std::string secret = encrypt(kKey, kKey);
  const Reply paced = slow(secret, 16, 100ms);
  world.origin(
      "o",
      vod(list(1, {"/a", kEnd}),
          {{"/k", {ok(kKey)}},
           {"/a", {slow("0123456789", 1, 1s)}},
           {"/live", {ok(master({"1 http://o/l"}))}},
           {"/l", {live(1), live(2), live(3), live(4), live(5), live(6)}},
           {"/e", {raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n."), paced, paced, ok(secret), paced}}}));
  refused("pthread_create", 0s, 500us);            // the request's
  refused("pthread_create", 20s, 20500us + 20s);   // the timer's
  refused("pthread_create", 50001500us, 52500ms);  // that of the first passes
  Time start = 99500ms;
  // Everything, a block of the buffer, what is decrypted, what is to be decrypted.
  for (const int what : {EAGAIN, EAGAIN, 524288 + 23, 131103 + 23, 131071 + 23}) {
    refused("malloc", start, start + 900ms, what);
    start += 1s;
  }
  world.converse(
      {{250us, "/stats.json"}, {19999500us, kM}, {50s, kM}, {100s, "/stream?url=http://o/live"}});
}

// Of a stream of a clear segment and two encrypted ones, one answer fails again and again.
TEST(Conversation, FaultsAreContained) {
  enum Place : size_t { kMaster, kVariant, kKeyFile, kClear, kEncrypted, kPlaces };
  const auto cut_at_100 = [](const std::string& body, End end) {
    return cut(body, std::min<size_t>(body.size() - 5, 100), end);
  };
  const struct {
    std::string name;
    std::function<Reply(const std::string& body, size_t place)> reply;
  } faults[] = {
      {"refused", nullptr},
      {"black-hole", nullptr},
      {"silent", [](auto&, auto) { return raw("", End::kStall); }},
      {"reset", [&](auto& body, auto) { return cut_at_100(body, End::kReset); }},
      {"short", [&](auto& body, auto) { return cut_at_100(body, End::kClose); }},
      // The segment is asked for again, and comes whole again; that nobody can know.
      {"length-too-large", [](auto& body, auto) { return cut(body + "more", body.size()); }},
      {"no-length", [](auto& body, auto) { return raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\n" + body); }},
      {"no-success",
       [](auto& body, size_t place) {
         return ok(body, std::array{"403 No", "404 No", "503 No", "404 No", "403 No"}[place]);
       }},
      {"byte-a-second",
       [](auto& body, auto) {
         Reply reply = slow(body.substr(body.size() - 3), 1, 1s);
         reply.pieces[0] = cut(body, body.size() - 3).pieces[0];
         return reply;
       }},
      {"no-head", [](auto&, auto) { return raw("\x16\x03\x01\r\njunk"); }},
      {"short-head", [](auto&, auto) { return raw("HTTP/1.1 200 OK\r\nContent-Le", End::kClose); }},
      {"empty", [](auto&, auto) { return ok(""); }},
  };
  World world;
  world.only_answers = true;
  world.origin("refused").kind = Host::Kind::kRefuses;
  world.origin("black-hole").kind = Host::Kind::kSilent;
  // One beside them that doesn't notice.
  Pages pages = vod(list(1, {"/calm", kEnd}), {{"/calm", {slow(std::string(120, 'c'), 1, 1s)}}});
  std::vector<Ask> asks = {{0s, kM}};
  for (const auto& fault : faults) {
    for (size_t place = kMaster; place < kPlaces; ++place) {
      const std::string prefix = "/" + fault.name + "/" + std::to_string(place);
      const auto put = [&](size_t at, const std::string& path, const std::string& body) {
        const bool faulty = at == place;
        pages[prefix + path] = {faulty && fault.reply ? fault.reply(body, at) : ok(body)};
        return (faulty && !fault.reply ? "http://" + fault.name : "http://o") + prefix + path;
      };
      const std::string a = put(kClear, "/a", std::string(600, 'a'));
      const std::string b = put(kEncrypted, "/b", encrypt(std::string(600, 'b'), kKey));
      const std::string c = put(kPlaces, "/c", encrypt(std::string(600, 'c'), kKey));
      const std::string k = put(kKeyFile, "/k", kKey);
      const std::string v = put(kVariant, "/v", list(1, {a, key(k), b, c, kEnd}, 1));
      asks.push_back({0s, "/stream?url=" + put(kMaster, "/m", master({"1 " + v}))});
    }
  }
  world.origin("o", pages);
  world.converse(asks);
}

TEST(Conversation, StartsAreRefused) {
  std::string transcript;
  for (const std::string call :
       {"argument", "socket", "bind", "listen", "accept", "SO_RCVTIMEO", "SO_SNDTIMEO"}) {
    refuse(call.c_str(), EMFILE);
    World world(call == "argument" ? std::vector<std::string>() : std::vector{"1"s});
    if (is_listening()) world.play({{2500ms, ""}});
    refuse(call.c_str(), 0);
    transcript += call + "\n" + world.transcript;
  }
  compare(transcript);
}

// Without a usable number there is no room for anything.
TEST(Conversation, ArgumentIsReadAsFarAsItIsANumber) {
  for (const char* const argument : {"abc", "0x10", ""}) {
    World world({argument});
    world.origin("o", vod(list(1, {"/1", kEnd}, 60)));
    refuse("select", EINTR);
    world.at(1s, [] { refuse("select", 0); });
    sleep(1s);
    EXPECT_EQ(world.get({0s, kM}), stream(""));
    EXPECT_EQ(world.since_start(), 17002ms);
  }
}

}  // namespace
}  // namespace weir::test
