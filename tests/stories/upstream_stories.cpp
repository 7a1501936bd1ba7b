// What weir does when origins and caches fail: retries, other servers, resumed downloads.
#include <gtest/gtest.h>

#include "support/world.h"

namespace weir::test {

using End = Reply::End;

// Each segment fails a number of times and is served when requested again. How heads that
// are usable are read, and which are not, is in unit/upstream_test.cpp.
TEST(Story, UnusableResponsesAreRequestedAgain) {
  const std::string ok11 = "HTTP/1.1 200 OK\r\n";
  const auto odd = [](const Reply& reply, size_t times = 1) {
    std::vector<Reply> replies(times, reply);
    replies.push_back(ok("+"));
    return replies;
  };
  const Reply no_line_end = raw("junk");
  const Reply pieces = {
      {{0s, ok11 + "A"}, {1s, ": 1\r\nContent-Length: 3\r\n\r"}, {1s, "\nab"}, {1s, "c"}}};
  World world;
  // A document keeps what came before its status line, so that the whole of it fails.
  world.origin("junk", {{"/m", odd(no_line_end, 4)}});
  // The last speed was not a number, which counts as none.
  world.converse(
      {{0s, kM}, {19s, "/stats.json"}, {20s, "/stream?url=http://junk/m"}},
      vod(list(1, {"/no-end", "/none", "/reset", "/head", "/stall", "/302", "/503", "/no-length",
                   "/pieces", "/negative", "/http10", "/empty", kEnd}),
          {{"/no-end", odd(no_line_end, 4)},
           {"/none", odd(raw("", End::kClose))},
           {"/reset", odd(raw("", End::kReset))},
           {"/head", odd(raw(ok11 + "Content-Le", End::kClose))},
           {"/stall", odd(raw(ok11 + "Content-Length: 1\r\n", End::kStall))},
           {"/302", odd(raw("HTTP/1.0 302 Found\r\n\r\nHTTP/1.1 junk"))},
           {"/503", odd(ok("", "503 No"), 7)},  // one more than there are tries
           {"/no-length", odd(raw(ok11 + "content-length: 2\r\n\r\nxx"))},
           {"/pieces", {pieces}},
           {"/negative", odd(raw(ok11 + "Content-Length: -1\r\n\r\nabc", End::kClose))},
           {"/http10", odd(raw("HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nten", End::kClose))},
           {"/empty", odd(ok(""))}}));
}

// Each host fails, then recovers after a while.
TEST(Story, UnreachableHostsAreRetried) {
  using Kind = Host::Kind;
  World world;
  std::vector<Ask> asks;
  const auto ask = [&](Time start, const std::string& host, Kind kind, Time heals) -> Host& {
    Host& origin = world.origin(host, {{"/m", {ok("")}}});
    world.during(0s, start + heals,
                 [&origin, kind](bool ill) { origin.kind = ill ? kind : Kind::kServes; });
    asks.push_back({start, "/stream?url=http://" + host + "/m"});
    return origin;
  };
  const Reply endless = raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n" + std::string(17 << 20, 'x'));
  world.origin("o", {{"/m", {ok("")}}, {"/endless", {endless}}});
  ask(0s, "refuses:81", Kind::kRefuses, 1500ms);
  ask(20s, "silent", Kind::kSilent, 10500ms);
  ask(40s, "unreachable", Kind::kUnreachable, 2500ms);
  ask(60s, "deaf", Kind::kDeaf, 5s);
  Host& full = ask(80s, "full", Kind::kDeaf, 3s);
  full.latency = 0s;
  world.during(0s, 82500ms, [&full](bool ill) { full.capacity = ill ? 0 : 9999; });
  ask(100s, "later", Kind::kServes, 0s);
  world.during(99s, 101500ms, [](bool none) { refuse("socket", none ? EMFILE : 0); });
  ask(120s, "late", Kind::kServes, 0s);
  world.at(99s, [] { names.erase("late"); });
  world.at(120500ms, [] { names["late"] = "10.0.0.1"; });
  ask(140s, "addressless", Kind::kServes, 0s);
  world.during(139s, 140500ms, [](bool none) { names["addressless"] = none ? "" : "10.0.0.1"; });
  asks.push_back({160s, "/stream?url=http://10.0.0.1/endless"});
  world.converse(asks);
}

TEST(Story, FailsOverToTheNextRing) {
  World world;
  world.origin("gone").kind = Host::Kind::kRefuses;
  world.origin("lost:81").kind = Host::Kind::kSilent;
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

// Media of sizes around the limits of reads, of the buffer's blocks and of the cipher; and media
// whose download is interrupted after each byte and resumed.
TEST(Story, MediaArriveWhole) {
  World world({"-1"});  // no limit
  std::vector<std::string> lines;
  Pages pages = {{"/k", {ok(kKey)}}};
  std::string all;
  const auto add = [&](const std::string& media, const std::vector<Reply>& replies) {
    lines.push_back("/" + std::to_string(lines.size()));
    pages[lines.back()] = replies;
    all += media;
  };
  const size_t sizes[] = {1, 15, 16, 4096, 131071, 393217, 524287, 524288, 524289, 1500000};
  for (const bool keyed : {false, true}) {
    if (keyed) lines.push_back(key("http://o/k"));
    const auto sent = [keyed](const std::string& media) {
      return keyed ? encrypt(media, kKey) : media;
    };
    for (const size_t size : sizes) add(pattern(size), {slow(sent(pattern(size)), 100003, 1ms)});
    const std::string body = sent(pattern(130));
    for (size_t at = 0; at < body.size(); ++at) {
      const std::string status =
          at == 0 ? "200 OK" : "206 P\r\nContent-Range: bytes " + std::to_string(at) + "-143";
      add(pattern(130), {cut(body, at), ok(body.substr(at), status)});
    }
  }
  // An incomplete last block, and wrong padding.
  const std::string secret = encrypt(pattern(4000), kKey);
  for (const std::string& odd : {secret.substr(0, 3999), secret + secret.substr(16, 16)})
    add(decrypt(odd, kKey), {ok(odd)});
  lines.push_back(kEnd);
  world.origin("o", vod(list(1, lines), pages));
  EXPECT_TRUE(world.get({0s, kM}) == stream(all));
  EXPECT_EQ(world.since_start(), 823002ms);
}

TEST(Story, ResumesAtTheOffsetOfContentRange) {
  const auto part = [](const std::string& range) {
    return raw(cut("abcdef", 2).pieces[0].bytes.insert(17, range), End::kStall);
  };
  const std::vector<Reply> replies = {cut("abcdef", 2),
                                      part("Content-Range: bytes 4096-8191/8192\r\n"),
                                      part("content-range: bytes 4096-1/2\r\n"), ok("-")};
  // The rest of a segment whose length was unknown isn't decrypted.
  const Reply lengthless = raw("HTTP/1.1 206 P\r\nContent-Range: bytes 9-\r\n\r\n");
  // The range of an HTTP/1.0 response is ignored.
  const Reply old = raw("HTTP/1.0 200 OK\r\nContent-Range: bytes 9-\r\n\r\nold", End::kStall);
  const std::string lines =
      list(1, {"/s", "/old", key("http://o/k"), "/x", "/y", key(""), "/1", kEnd});
  World().converse({{0s, kM}},
                   vod(lines, {{"/s", replies},
                               {"/old", {old, ok("-")}},
                               {"/k", {ok(kKey)}},
                               {"/x", {lengthless, ok("rest")}},
                               {"/y", {cut(encrypt(kKey, kKey), 20), ok("", "404 No")}}}));
}

}  // namespace weir::test
