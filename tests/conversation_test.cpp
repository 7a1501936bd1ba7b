// Whole conversations in simulated time: what clients ask, what origins do, and what must
// come of it, to the byte and to the millisecond. What is logged in the meantime stands in
// tests/transcripts/, line by line.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>

#include "support/world.h"

namespace weir::test {
namespace {

using End = Reply::End;

const std::string kKey = "0123456789abcdef";
const std::string kM = "/stream?url=http://o/m";

// A master playlist of variants "BANDWIDTH URL"; any other line stands as it is.
std::string master(const std::vector<std::string>& variants) {
  std::string text = "#EXTM3U\n";
  for (const std::string& variant : variants) {
    const size_t space = variant.find(' ');
    if (space == std::string::npos) {
      text += variant + "\n";
    } else {
      text += "#EXT-X-STREAM-INF:BANDWIDTH=" + variant.substr(0, space) + "\n" +
              variant.substr(space + 1) + "\n";
    }
  }
  return text;
}

// A variant playlist whose first segment has that number.
std::string list(int first, const std::vector<std::string>& lines, int duration = 10) {
  std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:" + std::to_string(duration) +
                     "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(first) + "\n";
  for (const std::string& line : lines) {
    text += (line[0] == '/' ? "http://o" : "") + line + "\n";
  }
  return text;
}

const std::string kEnd = "#EXT-X-ENDLIST";

std::string key(const std::string& url) { return "#EXT-X-KEY:METHOD=AES-128,URI=\"" + url + "\""; }

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
  const std::string will_try = head("200 Will try to stream...", "application/octet-stream");
  const auto text = [](const std::string& status) { return head(status, "plain/text"); };
  const std::string longest = "/" + std::string(5000, 'a');
  World world;
  world.whole = true;
  world.play({
      {0s, "HEAD /stream?url=x HTTP/1.1\r\n\r\n", will_try, 0s},
      {1s, "HEAD /stream.ts \r\nA: b\r\n\r\n", will_try, 1s},
      {2s, "/stream.ts?startFrom=1", text("406 Missing url parameter"), 2s},
      {3s, "get /stats%2Ejson?x=1\n\n", stats(0, 0, 0, 0), 3s},
      {4s, "HEAD /stats.json HTTP/1.0\r\n\r\n", kOk, 4s},
      {5s, "HEAD /update-cache-map HTTP/1.1\r\n\r\n", kMapSet, 5s},
      {6s, "HEAD /watchdog HTTP/1.1\r\n\r\n", kOk, 6s},
      {7s, "/stream/", text("404 /stream/ Not Found"), 7s},
      {8s, "/Stream", text("404 /Stream Not Found"), 8s},
      {9s, "/%0D%0Aa+b=c&d?e", text("404 /\r\na b=c&d Not Found"), 9s},
      {10s, "GET  /stats.json\r\n\r\n", text("404  Not Found"), 10s},
      {11s, "GET \r\n\r\n", text("406 Invalid Request"), 11s},
      {12s, longest, text("404 " + longest.substr(0, 4095 - 4) + " Not Found"), 12s},
      {13s, "/update-cache-map?chunk=a=b%2Cc+;&x&chunk=d&playlist=%zz%4", kMapSet, 13s},
      {14s, "/update-cache-map?a&playlist=b&=c&pl+ylist=d&playlist=e%", kMapSet, 14s},
      {15s, "/update-cache-map?playlist&chunk", kMapSet, 15s},
      {16s, "/update-cache-map?playlist=", kMapSet, 16s},
      {17s, "POST /stats.json HTTP/1.1\r\n\r\n" + pattern(60000), stats(0, 0, 0, 0), 17s},
      {18s, "/", "", 18s, 0},
  });
  world.compare_transcript();
}

// Nobody is kept waiting by somebody who says nothing, for 4095 times ten seconds.
TEST(Conversation, SilentClientIsCutOffAfterElevenHours) {
  World world;
  world.play({{0s, "", head("406 Invalid Request", "plain/text"), 40950s},
              {5s, "HEAD /watchdog ", kOk, 81755s},  // its line, and then its headers
              {40900s, "/stats.json", stats(0, 0, 0, 0), 40900s}});
  world.compare_transcript();
}

TEST(Conversation, SessionOfALiveChannel) {
  const std::string one = pattern(1280, 1);
  const std::string two = pattern(1270, 2);
  World world;
  world.whole = true;
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
  world.play({{0s, "/update-cache-map?chunk=c:8080&playlist=p:80", kMapSet, 0s},
              {1s, "/watchdog", kOk, 1s},
              {2s, "/stream.ts?url=http://~/m", stream(one + two + "three"), 6003ms},
              {8s, "/stats.json", stats(1, 1, 0, 97), 8s}});
  world.compare_transcript();
}

// Each segment is answered oddly once, and well when it is asked for again.
TEST(Conversation, HeadsAreReadAsTheyCome) {
  const auto odd = [](Reply reply) { return std::vector{std::move(reply), ok("+")}; };
  const std::string ok11 = "HTTP/1.1 200 OK\r\n";
  std::vector<Reply> unavailable(7, ok("", "503 No"));  // one more than there are tries
  unavailable.push_back(ok("+"));
  World world;
  world.origin(
      "o", vod(list(1, {"/206", "/pieces", "/10", "/100", "/one", "/blank", "/302", "/icy",
                        "/empty", "/cut", "/none", "/head", "/stall", "/503", "/unknown",
                        "/negative", "/less", "/zero", kEnd}),
               {{"/206", odd(raw("HTTP/1.1 206 P\r\nContent-Length: 3\r\n\r\n206"))},
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
  world.play({{0s, kM, stream("206abcten++++++++++++abcabc"), 13002ms},
              {14s, "/stats.json", stats(0, 6004799503160661, 0, 0), 14s}});
  world.compare_transcript();
}

// To fail and be well again: each after a while.
TEST(Conversation, HostsThatCannotBeReachedAreTriedAgain) {
  World world;
  std::vector<Ask> asks;
  const std::string one = list(1, {"/1", kEnd});
  const auto ask = [&](int second, const std::string& host, Host::Kind kind, Time heals, Time ended,
                       const std::string& got = "/1") -> Host& {
    Host& origin = world.origin(host, vod(one));
    origin.kind = kind;
    const Time start = std::chrono::seconds(second);
    world.at(start + heals, [&origin] { origin.kind = Host::Kind::kServes; });
    asks.push_back({start, "/stream?url=http://" + host + "/m", stream(got), start + ended});
    return origin;
  };
  world.origin("o", vod(one));
  ask(0, "refuses:81", Host::Kind::kRefuses, 1500ms, 3005ms);
  ask(20, "silent", Host::Kind::kSilent, 10500ms, 13002ms);
  ask(40, "unreachable", Host::Kind::kUnreachable, 2500ms, 4002ms);
  ask(60, "deaf", Host::Kind::kDeaf, 5s, 6001ms, "");
  Host& full = ask(80, "full", Host::Kind::kDeaf, 3s, 6001ms);
  full.latency = 0s;
  full.capacity = 0;
  world.at(82500ms, [&full] { full.capacity = 9999; });
  world.at(99s, [] { refuse("socket", EMFILE); });
  world.at(101500ms, [] { refuse("socket", 0); });
  ask(100, "later", Host::Kind::kServes, 0s, 3002ms);
  world.at(99s, [] { names.erase("late"); });
  world.at(120500ms, [] { names["late"] = "10.0.0.1"; });
  ask(120, "late", Host::Kind::kServes, 0s, 2002ms);
  ask(140, "addressless", Host::Kind::kServes, 0s, 2004ms);
  world.at(139s, [] { names["addressless"] = ""; });
  world.at(140500ms, [] { names["addressless"] = "10.0.0.1"; });
  asks.push_back({160s, "/stream?url=http://10.0.0.1/m", stream("/1"), 161002ms});
  asks.push_back({180s, "/stream?url=ftp://o/m", stream(""), 192s});
  world.play(asks);
  world.compare_transcript();
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
                              "http://p/1", "http://@/x/y/z", "http://@", kEnd}))}},
                {"/1", {ok("5")}}});
  world.play({{0s, "/update-cache-map?chunk=c:8080", kMapSet, 0s},
              {1s, "/stream?url=http://p/m", stream("1234567"), 2002ms}});
  world.compare_transcript();
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
  world.play({{0s, kM, stream(all), 823002ms}});
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
  world.origin("o", vod(list(1, {"/s", "/s", "/s", kEnd}), {{"/s", replies}}));
  world.play({{0s, kM, stream("abababababababab-"), 23002ms}});
  world.compare_transcript();
}

TEST(Conversation, VariantsFollowTheSpeed) {
  // 128 bytes in a millisecond are 1000 kbps.
  const auto at_kbps = [](size_t kbps) {
    Reply reply = slow(pattern(12800), kbps * 128 / 1000, 1ms);
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
    pages[lines.back()] = {at_kbps(kbps)};
  }
  lines.push_back(kEnd);
  pages["/low"] = pages["/middle"] = pages["/high"] = {ok(list(1, lines, 1))};
  std::string all;
  for (size_t i = 0; i < std::size(speeds); ++i) all += pattern(12800);
  World world({"20000"});
  world.origin("o", pages);
  world.play({{0s, kM, stream(all), 7007ms},
              {4500500us, "/stats.json", stats(694, 616, 0, 781), 4500500us}});
  world.compare_transcript();
}

// 600000 bytes are 14648 kbps in 320 ms, which is just not less than the half of what the
// better variant needs.
TEST(Conversation, FullBufferHoldsTheDownloadBackAndKeepsTheVariant) {
  const std::string media = pattern(600000);
  World world({" +1000000x"});
  const std::vector<std::string> lines = {"/a", "/a", "/a", "/a", "/a", "/a",
                                          "/b", "/b", "/b", "/b", kEnd};
  world.origin(
      "o", vod(list(1, lines, 4), {{"/m", {ok(master({"30000000 http://o/v", "1 http://o/v"}))}},
                                   {"/a", {slow(media, 60000, 10ms)}},
                                   {"/b", {slow(media, 60000, 32ms)}}}));
  std::string all;
  for (int i = 0; i < 10; ++i) all += media;
  world.play({{0s, kM, stream(all), 18600ms, std::string::npos, 200ms},
              {3s, "/stats.json", stats(46875, 36458, 605, 0), 3s}});
  world.compare_transcript();
}

TEST(Conversation, LivePlaylistIsLoadedAgainUntilNothingIsNew) {
  World world;
  world.origin(
      "o", vod("", {{"/v",
                     {ok(list(1, {"/1", "/2", "/3", "/4", "/5"}, 4)),
                      ok(list(4, {"/4", "/5", "/6", "/7"}, 4)), ok(list(6, {"/6", "/7"}, 8))}}}));
  world.play({{0s, kM + "&startFrom=-2", stream("/4/5/6/7"), 20008ms},
              {60s, kM + "&startFrom=4294967298", stream("/6/7"), 80007ms}});
  world.compare_transcript();
}

// The number 0 is never fetched.
TEST(Conversation, PlaylistsMayBeOdd) {
  Pages pages =
      vod("#EXTM3U \r\n#EXT-X-VERSION:3\r\n#EXT-X-ENDLIST\nhttp://o/1\n#EXTINF:4,\r\n"
          " http://o/2 \r\n#EXT-X-MEDIA-SEQUENCE:x\nhttp://o/3\nhttp://o/4\n"
          "#EXT-X-MEDIA-SEQUENCE:-1\nhttp://o/5\nhttp://o/6\n#EXT-X-ENDLIST",
          {{"/n", {ok("#EXTM3U\nhttp://o/none\n#EXT-X-STREAM-INF:RESOLUTION=1x1\nx")}},
           {"/x", {ok("#EXTM3U8\n1 http://o/v\n")}},
           {"/e", {ok("")}}});
  pages["/m"] = {
      ok("\t#EXTM3U \r\n#EXT-X-VERSION:3\n#EXT-X-STREAM-INF:A=1,"
         "AVERAGE-BANDWIDTH=5,BANDWIDTH=9\r\n http://o/v \r\n\n"
         "#EXT-X-STREAM-INF:BANDWIDTH=-7\nhttp://o/w\n#ext-x-stream-inf:BANDWIDTH=1")};
  World world;
  world.origin("o", pages);
  world.play({{0s, kM, stream("/2/5"), 7008ms},
              {30s, "/stream?url=http://o/n", stream(""), 31007ms},
              {60s, "/stream?url=http://o/x", stream(""), 60001ms},
              {61s, "/stream?url=http://o/e", stream(""), 61001ms}});
  world.compare_transcript();
}

TEST(Conversation, SegmentsThatCannotBeHadAreLeftOutUntilTheFourthInARow) {
  const std::vector<Reply> lengthless = {raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\nmedia")};
  World world;
  world.origin("o", vod(list(1, {"/a", "/a", "/a", "/1", "/a", "/a", "/a", "/a", "/2"}),
                        {{"/a", lengthless}}));
  world.play({{0s, kM, stream("/1"), 22002ms}});
  world.compare_transcript();
}

TEST(Conversation, KeysAreLoadedOnceAndForgottenByAClearSegment) {
  const std::string secret = encrypt("media", kKey);
  const std::string other = encrypt("other", "short");
  World world;
  world.origin("o", vod(list(1, {key("http://o/k"), "/s", "/s", key(""), "/1", key("http://o/k"),
                                 "/s", key("http://o/n"), "/s", "/s", key("http://o/short"),
                                 "/other", "#EXT-X-KEY:METHOD=NONE", "/s",
                                 "#EXT-X-KEY:URI=\"http://o/k\",IV=0", "/s", kEnd}),
                        {{"/s", {ok(secret)}},
                         {"/other", {ok(other), ok(other)}},
                         {"/k", {ok(kKey)}},
                         {"/short", {ok("short")}}}));
  world.play({{0s, kM,
               stream("mediamedia/1" + secret + secret + secret + "other" +
                      decrypt(secret, "short") + decrypt(secret, "short")),
               13002ms}});
  world.compare_transcript();
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
  world.play({{0s, "/update-cache-map?playlist=gone:80,lost:81;p:80&chunk=gone:80;;lost:81,p:80",
               kMapSet, 0s},
              {1s, "/stream?url=http://~/m", stream("12"), 8003ms},
              {30s, "/update-cache-map?playlist=gone:80;p:80,gone:80;,", kMapSet, 30s},
              {31s, "/stream?url=http://~/m", stream("12"), 32003ms},
              {50s, "/stream?url=http://~/unknown", stream(""), 50001ms},
              {80s, "/update-cache-map?playlist=p", kMapSet, 80s},
              {81s, "/stream?url=http://~/m", stream(""), 93001ms}});
  world.compare_transcript();
}

TEST(Conversation, VariantsThatCannotBeLoadedAreMarked) {
  World world;
  world.origin("silent").kind = Host::Kind::kSilent;
  world.origin(
      "o", vod("", {{"/m", {ok(master({"5 http://o/gone", "7 http://o/empty", "6 http://o/v"}))}},
                    {"/v", {ok(list(1, {"/1"}, 1)), ok("")}},
                    {"/empty", {ok("#EXTM3U\n")}},
                    {"/n", {ok(master({"5 http://silent/v", "7 http://o/v"}))}}}));
  world.play({{0s, kM, stream("/1"), 2010ms},
              // He is gone when the first one is given up; the other isn't tried.
              {10s, "/stream?url=http://o/n", stream(""), 70002ms}});
  world.compare_transcript();
}

TEST(Conversation, StreamsEndWithoutDataAndWithoutAReader) {
  const std::string large = pattern(400000);
  const std::string nothing = stream("");
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
  world.play({{0s, kM, stream("/1"), 17002ms},
              {20s, "/stream?url=http://o/idle", nothing, 60s, nothing.size(), 40s},
              // Nobody takes from the buffer now.
              {25s, "/stats.json", stats(9007199254740992, 7005599420354278, 1306, 0), 25s},
              {70s, "/stream?url=http://o/leave", stream(large.substr(0, 30000)), 71551ms,
               nothing.size() + 30000},
              {80s, "/stream?url=http://o/late", nothing, 98002ms},
              {120s, "/stream?url=http://o/deaf", nothing, 140005ms}});
  world.compare_transcript();
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
  world.play({{0s, kM, stream(all), 1002ms}});
}

TEST(Conversation, TextsWithoutAnEndAreGivenUp) {
  const std::string endless(17 << 20, 'x');
  World world;
  world.origin("o", {{"/long", {ok(endless)}},
                     {"/http10", {raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n" + endless)}},
                     {"/head", {raw("HTTP/1.1 200 OK\r\nA: " + endless)}}});
  world.play({{0s, "/stream?url=http://o/long", stream(""), 1ms},
              {1s, "/stream?url=http://o/http10", stream(""), 1001ms},
              {2s, "/stream?url=http://o/head", stream(""), 2001ms}});
  world.compare_transcript();
}

TEST(Conversation, DeviceIsRestartedWithoutPingsAndByItsMarker) {
  World world;
  const auto mark = [&world](Time from, Time to) {
    world.at(from, [&world] { world.marker = true; });
    world.at(to, [&world] { world.marker = false; });
  };
  mark(20500ms, 25500ms);
  // For once with the loop, which comes before.
  world.at(30500ms, [&world] { world.whole = true; });
  world.at(32500ms, [&world] { world.whole = false; });
  mark(28500ms, 31500ms);
  mark(699500ms, 702500ms);
  world.play({{10300ms, "POST /watchdog\r\n\r\n", kOk, 10300ms},
              {100900ms, "/watchdog", kOk, 100900ms},
              {500s, "/watchdog", kOk, 500s},
              {600s, "/watchdog", kOk, 600s},
              {700s, "/stats.json", stats(0, 0, 0, 0), 700s},
              {1500s, "/stats.json", stats(0, 0, 0, 0), 1500s}});
  world.compare_transcript();
}

// Nobody reads standard error: who has to write there waits, the rest goes on.
TEST(Conversation, StuckLogReaderStopsNeitherTheLoopNorTheWatchdog) {
  World world;
  world.at(1s, [] { set_log_stuck(2, true); });
  world.at(400s, [] { set_log_stuck(2, false); });
  world.play({{0s, "/watchdog", kOk, 0s},
              {2s, "/x", head("404 /x Not Found", "plain/text"), 400s},
              {3s, "/stats.json", stats(0, 0, 0, 0), 3s},
              {350s, "/watchdog", kOk, 350s}});
  world.compare_transcript();
}

TEST(Conversation, ThreadsAndMemoryThatCannotBeHad) {
  const auto refused = [](const char* call, Time from, Time to, World& world) {
    world.at(from, [call] { refuse(call, EAGAIN); });
    world.at(to, [call] { refuse(call, 0); });
  };
  World world;
  world.origin("o", vod(list(1, {"/a", key("http://o/k"), "/b", "/c", kEnd}),
                        {{"/k", {ok(kKey)}},
                         {"/a", {slow("0123456789", 1, 1s)}},
                         {"/b", {ok(encrypt("b", kKey))}},
                         {"/c", {ok(encrypt("c", kKey))}}}));
  refused("pthread_create", 0s, 500us, world);            // the request's
  refused("pthread_create", 20s, 20500us + 20s, world);   // the timer's
  refused("pthread_create", 50001500us, 52500ms, world);  // that of the first passes
  refused("malloc", 100s, 105500ms, world);
  world.play({{250us, "/stats.json", "", 250us},
              {19999500us, kM, stream(""), 35100500us},
              {50s, kM, stream("0123456789bc"), 64005ms},
              {100s, kM, stream(""), 101002ms}});
  world.compare_transcript();
}

// A stream of a clear segment and two encrypted ones.
const std::string kA = pattern(600, 1);
const std::string kB = pattern(600, 2);
const std::string kC = pattern(600, 3);
const std::string kSecretB = encrypt(kB, kKey);
const std::string kSecretC = encrypt(kC, kKey);
const std::string kAll = kA + kB + kC;
const std::string kAsTheyAre = kA + kSecretB + kSecretC;

std::string with_key(const std::string& other) {
  return kA + decrypt(kSecretB, other) + decrypt(kSecretC, other);
}

enum Place : size_t { kMaster, kVariant, kKeyFile, kClear, kEncrypted, kPlaces };

struct Fault {
  const char* name;
  // What is answered at that place, again and again ...
  std::function<Reply(const std::string& body, Place place)> reply;
  struct {
    std::string media;
    Time ended;
  } got[kPlaces];
  Host::Kind kind = Host::Kind::kServes;  // ... or else what the host is that is said to have it
};

Reply cut_at_100(const std::string& body, End end) {
  return cut(body, std::min<size_t>(body.size() - 5, 100), end);
}

// The times: 12 s until a refused download is given up, 60 s where nothing comes back, 16 s
// without data; 3 s between the four attempts at a segment.
const Fault kFaults[] = {
    {"ConnectionRefused",
     nullptr,
     {{"", 12024ms}, {"", 13025ms}, {kAsTheyAre, 13002ms}, {"", 25050ms}, {kA, 25052ms}},
     Host::Kind::kRefuses},
    {"BlackHole",
     nullptr,
     {{"", 60000ms}, {"", 60001ms}, {kA, 60003ms}, {"", 60002ms}, {kA, 60004ms}},
     Host::Kind::kSilent},
    {"SilentServer",
     [](auto&, Place) { return raw("", End::kStall); },
     {{"", 6001ms}, {"", 7002ms}, {kAsTheyAre, 7002ms}, {"", 20005ms}, {kA, 20006ms}}},
    {"ResetInsideTheBody",
     [](auto& body, Place) { return cut_at_100(body, End::kReset); },
     {{"", 1ms},
      {"", 1002ms},
      {with_key(kKey.substr(0, 11)), 1002ms},
      {kA.substr(0, 100) + kB + kC, 1002ms},
      {kA + kB.substr(0, 96) + kC, 1002ms}}},
    {"ShortBody",
     [](auto& body, Place) { return cut_at_100(body, End::kClose); },
     {{"", 1007ms},
      {kA, 7008ms},
      {with_key(kKey.substr(0, 11)), 1002ms},
      {kA.substr(0, 100) + kB + kC, 1002ms},
      {kA + kB.substr(0, 96) + kC, 1002ms}}},
    // The segment is asked for again, and comes whole again; that nobody can know.
    {"LengthTooLarge",
     [](auto& body, Place) { return cut(body + "more", body.size()); },
     {{"", 2001ms},
      {"", 3002ms},
      {kAll, 3002ms},
      {kA + kA + kA + kA + kB + kC, 12002ms},
      {kA + decrypt(kSecretB + kSecretB + kSecretB + kSecretB, kKey, false) + kC, 12002ms}}},
    {"LengthMissing",
     [](auto& body, Place) { return raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\n" + body); },
     {{"", 1ms}, {"", 1002ms}, {kAsTheyAre, 1002ms}, {kB + kC, 4002ms}, {kA + kC, 4002ms}}},
    {"NoSuccess",
     [](auto& body, Place place) {
       return ok(body, std::array{"403 No", "404 No", "503 No", "404 No", "403 No"}[place]);
     },
     {{"", 6ms}, {"", 1007ms}, {kAsTheyAre, 1002ms}, {kB + kC, 4002ms}, {kA + kC, 4002ms}}},
    {"ByteASecond",
     [](auto& body, Place) {
       Reply reply = slow(body.substr(body.size() - 3), 1, 1s);
       reply.pieces[0] = cut(body, body.size() - 3).pieces[0];
       return reply;
     },
     {{kAll, 4002ms}, {kAll, 4002ms}, {kAll, 4002ms}, {kAll, 4002ms}, {kAll, 4002ms}}},
    {"GarbageInsteadOfAHead",
     [](auto&, Place) { return raw("\x16\x03\x01\r\njunk"); },
     {{"", 12024ms}, {"", 13025ms}, {kAsTheyAre, 13002ms}, {"", 25050ms}, {kA, 25051ms}}},
    {"CloseInsideTheHead",
     [](auto&, Place) { return raw("HTTP/1.1 200 OK\r\nContent-Le", End::kClose); },
     {{"", 2001ms}, {"", 3002ms}, {kAsTheyAre, 3002ms}, {kB + kC, 12002ms}, {kA + kC, 12002ms}}},
    {"EmptyBody",
     [](auto&, Place) { return ok(""); },
     {{"", 1ms}, {"", 1002ms}, {kAsTheyAre, 1002ms}, {kB + kC, 1002ms}, {kA + kC, 1002ms}}},
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

class FaultTest : public testing::TestWithParam<Fault> {};

TEST_P(FaultTest, IsContained) {
  const Fault& fault = GetParam();
  World world;
  world.origin("faulty").kind = fault.kind;
  Pages pages;
  std::vector<Ask> asks;
  for (size_t place = kMaster; place < kPlaces; ++place) {
    const std::string prefix = "/" + std::to_string(place);
    const auto put = [&](size_t at, const std::string& path, const std::string& body) {
      const bool faulty = at == place && fault.reply;
      pages[prefix + path] = {faulty ? fault.reply(body, static_cast<Place>(at)) : ok(body)};
      return (at == place && !fault.reply ? "http://faulty" : "http://o") + prefix + path;
    };
    const std::string a = put(kClear, "/a", kA);
    const std::string b = put(kEncrypted, "/b", kSecretB);
    const std::string c = put(kPlaces, "/c", kSecretC);
    const std::string k = put(kKeyFile, "/k", kKey);
    const std::string v = put(kVariant, "/v", list(1, {a, key(k), b, c, kEnd}, 1));
    const std::string m = put(kMaster, "/m", master({"1 " + v}));
    const auto& [media, ended] = fault.got[place];
    asks.push_back({0s, "/stream?url=" + m, stream(media), ended});
  }
  // One beside them that doesn't notice.
  const std::string calm = pattern(120000);
  pages.merge(vod(list(1, {"/calm", kEnd}), {{"/calm", {slow(calm, 1000, 1s)}}}));
  asks.push_back({0s, kM, stream(calm), 121002ms});
  world.origin("o", pages);
  world.play(asks);
}

INSTANTIATE_TEST_SUITE_P(EverywhereIn, FaultTest, testing::ValuesIn(kFaults),
                         [](const auto& row) { return std::string(row.param.name); });

// What is refused, and what is said about it.
using Start = std::pair<std::string, std::string>;
class StartTest : public testing::TestWithParam<Start> {};

TEST_P(StartTest, SaysWhyItEnds) {
  const auto& [refused, said] = GetParam();
  const bool argument = refused != "argument";
  refuse(refused.c_str(), EMFILE);
  World world(argument ? std::vector{"1"s} : std::vector<std::string>());
  if (world.transcript.empty()) world.play({{2500ms, "/x", "", 2500ms}});
  refuse(refused.c_str(), 0);
  EXPECT_TRUE(
      world.transcript.ends_with("  ! " + said + "\n  ~ status " + (argument ? "0\n" : "2\n")))
      << world.transcript;
}

INSTANTIATE_TEST_SUITE_P(All, StartTest,
                         testing::Values(Start{"argument", "Specify maximal buffer size"},
                                         Start{"socket", "Couldn't create listening socket!"},
                                         Start{"bind", "Couldn't bind listening socket."},
                                         Start{"listen", "Call to listen failed."},
                                         Start{"accept", "Error calling accept()"},
                                         Start{"SO_RCVTIMEO", "setsockopt failed SO_RCVTIMEO"},
                                         Start{"SO_SNDTIMEO", "setsockopt failed SO_SNDTIMEO"}),
                         [](const auto& row) { return row.param.first; });

// Without a usable number there is no room for anything.
class ArgumentTest : public testing::TestWithParam<const char*> {};

TEST_P(ArgumentTest, IsReadAsFarAsItIsANumber) {
  World world({GetParam()});
  world.origin("o", vod(list(1, {"/1", kEnd}, 60)));
  refuse("select", EINTR);
  world.at(1s, [] { refuse("select", 0); });
  world.play({{1s, kM, stream(""), 17002ms}});
}

INSTANTIATE_TEST_SUITE_P(All, ArgumentTest, testing::Values("abc", "0x10", ""));

}  // namespace
}  // namespace weir::test
