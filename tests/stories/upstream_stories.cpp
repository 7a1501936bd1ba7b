// What weir does when origins and caches fail: retries, other servers, resumed downloads.
#include <gtest/gtest.h>

#include "support/story.h"
#include "support/world.h"

namespace weir::test {
namespace {

using End = Reply::End;

// Each segment fails a number of times and is served when requested again. How heads that
// are usable are read is in unit/response_test.cpp.
TEST(Story, UnusableResponsesAreRequestedAgain) {
  const std::string ok11 = "HTTP/1.1 200 OK\r\n";
  const auto odd = [](const Reply& reply, size_t times = 1) {
    std::vector<Reply> replies(times, reply);
    replies.push_back(ok("+"));
    return replies;
  };
  const Reply no_line_end = raw("junk");
  World world;
  world.origin(
      "o",
      vod(list(1, {"/icy", "/blank", "/no-end", "/none", "/head", "/stall", "/302", "/503",
                   "/no-length", "/pieces", "/negative", "/http10", "/empty", kEnd}),
          {{"/m", {raw("ICY 200 OK\r\n"), ok(master({"1 http://o/v"}))}},
           {"/icy", odd(raw("ICY 200 OK\r\n"))},
           {"/blank", odd(raw("\r\n" + ok11))},
           {"/no-end", odd(no_line_end, 4)},
           {"/none", odd(raw("", End::kClose))},
           {"/head", odd(raw(ok11 + "Content-Le", End::kClose))},
           {"/stall", odd(raw(ok11 + "Content-Length: 1\r\n", End::kStall))},
           {"/302", odd(raw("HTTP/1.0 302 Found\r\n\r\nHTTP/1.1 junk"))},
           {"/503", odd(ok("", "503 No"), 7)},  // one more than there are tries
           {"/no-length", odd(raw(ok11 + "content-length: 2\r\n\r\nxx"))},
           {"/pieces",
            {{{{0s, ok11 + "A"},
               {1s, ": 1\r\nContent-Length: 3\r\n\r"},
               {1s, "\nab"},
               {1s, "c"}}}}},
           {"/negative", odd(raw(ok11 + "Content-Length: -1\r\n\r\nabc", End::kClose))},
           {"/http10", odd(raw("HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nten", End::kClose))},
           {"/empty", odd(ok(""))}}));
  // A document keeps what came before its status line, so that the whole of it fails.
  world.origin("junk", {{"/m", odd(no_line_end, 4)}});
  // The last speed was not a number, which counts as none.
  world.converse({{0s, kM}, {19s, "/stats.json"}, {20s, "/stream?url=http://junk/m"}});
}

// Each host fails, then recovers after a while.
TEST(Story, UnreachableHostsAreRetried) {
  World world;
  std::vector<Ask> asks;
  const auto ask = [&](int second, const std::string& host, Host::Kind kind, Time heals) -> Host& {
    Host& origin = world.origin(host, {{"/m", {ok("")}}});
    origin.kind = kind;
    const Time start = std::chrono::seconds(second);
    world.at(start + heals, [&origin] { origin.kind = Host::Kind::kServes; });
    asks.push_back({start, "/stream?url=http://" + host + "/m"});
    return origin;
  };
  world.origin("o", {{"/m", {ok("")}}});
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
  world.converse(asks);
}

TEST(Story, FailsOverToTheNextRing) {
  World world;
  for (const char* host : {"gone", "lost:81"}) {
    world.origin(host).kind = host[0] == 'g' ? Host::Kind::kRefuses : Host::Kind::kSilent;
  }
  world.origin("p", {{"/m", {ok(master({"1 http://~/v"}))}},
                     {"/v", {ok(list(1, {"http://@/1/1/1", "http://@/_live/1/1/2", kEnd}))}},
                     {"/1/1/1", {ok("1")}},
                     {"/_live/1/1/2", {ok("2")}},
                     {"/unknown", {raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\n")}}});
  world.origin("junk", {{"/m", {raw("junk\r\n")}}});
  world.converse(
      {{0s, "/update-cache-map?playlist=gone:80,lost:81;p:80&chunk=gone:80;;lost:81,p:80"},
       {1s, "/stream?url=http://~/m"},
       {30s, "/update-cache-map?playlist=junk:80;p:80&chunk=p:80"},
       {31s, "/stream?url=http://~/m"},
       {50s, "/stream?url=http://~/unknown"},
       {80s, "/update-cache-map?playlist=p"},  // no port
       {81s, "/stream?url=http://~/m"}});
}

// A resumed download delivers the same bytes as an uninterrupted one.
TEST(Story, ResumedDownloadsLoseNoByte) {
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

TEST(Story, ResumesAtTheOffsetOfContentRange) {
  const auto part = [](const std::string& range) {
    return raw(cut("abcdef", 2).pieces[0].bytes.insert(17, range), End::kStall);
  };
  World world;
  const std::vector<Reply> replies = {cut("abcdef", 2),
                                      part("Content-Range: bytes 4096-8191/8192\r\n"),
                                      part("content-range: bytes 4096-1/2\r\n"), ok("-")};
  world.origin("o",
               vod(list(1, {"/s", key("http://o/k"), "/x", "/y", key(""), "/1", kEnd}),
                   {{"/s", replies},
                    {"/k", {ok(kKey)}},
                    // The rest of a segment whose length was unknown isn't decrypted.
                    {"/x", {raw("HTTP/1.1 206 P\r\nContent-Range: bytes 9-\r\n\r\n"), ok("rest")}},
                    {"/y", {cut(encrypt(kKey, kKey), 20), ok("", "404 No")}}}));
  world.converse({{0s, kM}});
}

// Sizes around the limits of reads, of the buffer's blocks and of the cipher.
TEST(Story, SegmentsOfEverySizeArriveWhole) {
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
  // An incomplete last block, and wrong padding.
  const std::string secret = encrypt(pattern(4000), kKey);
  for (const std::string& odd : {secret.substr(0, 3999), secret + secret.substr(16, 16)}) {
    add(odd, decrypt(odd, kKey));
  }
  lines.push_back(kEnd);
  world.origin("o", vod(list(1, lines), pages));
  EXPECT_TRUE(world.get({0s, kM}) == stream(all));
  EXPECT_EQ(world.since_start(), 1002ms);
}

TEST(Story, OversizedDocumentsAreRejected) {
  const std::string endless(17 << 20, 'x');
  World world;
  world.origin("o", {{"/long", {ok(endless)}},
                     {"/http10", {raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n" + endless)}},
                     {"/head", {raw("HTTP/1.1 200 OK\r\nA: " + endless)}}});
  world.converse({{0s, "/stream?url=http://o/long"},
                  {1s, "/stream?url=http://o/http10"},
                  {2s, "/stream?url=http://o/head"}});
}

}  // namespace
}  // namespace weir::test
