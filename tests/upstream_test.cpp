#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>

#include "buffer/cbuff.h"
#include "cachemap/cache_map.h"
#include "support/captured_log.h"
#include "support/client.h"
#include "support/scripted_origin.h"
#include "upstream/ucurl.h"
#include "upstream/ucurl_exception.h"

namespace weir {

// Single steps of a UCurl, over a socket of the test's own.
class UCurlPeer {
 public:
  UCurlPeer() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    curl.sock = ends[0];
    server = ends[1];
  }
  ~UCurlPeer() { close(server); }

  void answer(const std::string& text) {
    EXPECT_EQ(write(server, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  // "host port path kind server", or what was thrown.
  std::string parse(const std::string& url) {
    try {
      curl.parse_url(url);
    } catch (UCurlException* exception) {
      const std::unique_ptr<UCurlException> owned(exception);
      return std::string("! ") + owned->what() + " " + std::to_string(curl.cache_kind);
    }
    return curl.host + " " + std::to_string(curl.port) + " " + curl.path + " " +
           std::to_string(curl.cache_kind) + (curl.cache_kind == 0 ? "" : " " + curl.cache_server);
  }

  // 0, -1 or -2, as the status line is good, missing or of no success.
  int read_status(std::string& response) { return -static_cast<int>(curl.read_status(response)); }

  std::string read_headers(std::string& response) {
    curl.read_headers(response);
    std::string text;
    for (const auto& [name, value] : curl.headers) text += "[" + name + "=" + value + "]";
    return text;
  }

  bool get_common(const std::string& url) {
    std::string response;
    return curl.get_common(url, response, false, 0);
  }

  std::uint32_t http11() const { return curl.http11; }

  UCurl curl;
  int server = -1;
};

namespace test {
namespace {

using End = Reply::End;
const std::string kKey = "0123456789abcdef";

class UpstreamTest : public testing::Test {
 protected:
  UpstreamTest() {
    chunkCacheMap = &chunk_map_;
    playlistCacheMap = &playlist_map_;
  }

  // All that the buffer holds.
  std::string drain() {
    std::string text(buffer_.fill(), '\0');
    text.resize(text.empty() ? 0 : buffer_.read(text.data(), text.size()));
    return text;
  }

  std::int64_t stream(const std::string& path, const std::string& key = "",
                      std::uint64_t from = 0) {
    return curl_.get_stream(origin_.url(path), buffer_, false, speed_, key, &stop_, from);
  }

  // A segment fetched to its end as the playlist engine does: resumed where it broke off.
  std::string stream_resuming(const std::string& path, const std::string& key) {
    std::uint64_t from = 0;
    for (int attempt = 0; attempt < 4 && stream(path, key, from) < 0; ++attempt) {
      from = curl_.position;
    }
    return drain();
  }

  CacheMap chunk_map_;
  CacheMap playlist_map_;
  ScriptedOrigin origin_;
  CBuff buffer_;
  UCurl curl_;
  std::atomic<bool> stop_{false};
  double speed_ = -1;
};

TEST_F(UpstreamTest, UrlsAreTakenApart) {
  chunk_map_.setMap("c:8081");
  playlist_map_.setMap("nocolon");
  const std::pair<const char*, const char*> cases[] = {
      {"http://10.0.0.5:8080/live/a/b/c.ts?q=1:2", "10.0.0.5 8080 /live/a/b/c.ts?q=1:2 0"},
      {"https://h/x", "h 80 /x 0"},
      {"http://h:81", "h 81 / 0"},
      {"http://h", "h 80 / 0"},
      {"http://h/a:b", "h 80 /a:b 0"},
      {"http://h:abc/x", "h 0 /x 0"},
      {"http:///x", " 80 /x 0"},
      {"http://@:8080/x", "@ 8080 /x 0"},
      {"http://@/abc/def/x.ts", "c 8081 /abc/def/x.ts 1 c:8081"},
      {"http://~/abc", "nocolon 0 /abc 2 nocolon"},
      {"ftp://h/x", "! ftp 0"},
      {"HTTP://h/x", "! HTTP 0"},
      {"chunk.ts", "! chunk.ts 0"},
      {"http", "! http 0"},
      {"", "!  0"},
  };
  UCurlPeer peer;
  for (const auto& [url, parts] : cases) EXPECT_EQ(peer.parse(url), parts) << url;
  chunk_map_.setMap("");
  playlist_map_.setMap(",");
  EXPECT_EQ(peer.parse("http://@/x"), "! No cache server found 0");
  EXPECT_EQ(peer.parse("http://~"), "! No playlist cache server found 0");
}

TEST_F(UpstreamTest, StatusLineIsTakenFromOneRead) {
  struct Case {
    const char* sent;
    int result;
    const char* out;
    const char* err;
    const char* left;
  };
  const Case cases[] = {
      {"HTTP/1.1 206 Partial Content\r\nA: 1\r\n", 0, "", "", "A: 1\r\n"},
      {"HTTP/1.0 2\r\n", 0, "", "", ""},
      {"HTTP/1.0 302 Found\r\nx", -2, "", "HTTP response first_line: HTTP/1.0 302 Found\n", "x"},
      {"HTTP/1.1  200 OK\r\n", -2, "", "HTTP response first_line: HTTP/1.1  200 OK\n", ""},
      {"HTTP/1.1\r\n", -2, "", "HTTP response first_line: HTTP/1.1\n", ""},
      {"ICY 200 OK\r\n", -1, "", "Not HTTP/1.x?\n", ""},
      {"\r\nx", -1, "", "Empty http state?\n", "x"},
      {"HTTP/1.1 200 OK", -1, "HTTP/1.1 200 OK len:15\n", "Where is http state?\n",
       "HTTP/1.1 200 OK"},
  };
  for (const Case& c : cases) {
    UCurlPeer peer;
    peer.answer(c.sent);
    std::string response;
    CapturedLog log;
    EXPECT_EQ(peer.read_status(response), c.result) << c.sent;
    EXPECT_EQ(log.out(), c.out);
    EXPECT_EQ(log.err(), c.err);
    EXPECT_EQ(response, c.left);
    if (c.result == -1) continue;
    EXPECT_EQ(peer.http11(), c.sent[7] == '1' ? 1U : 0U) << c.sent;
  }
}

TEST_F(UpstreamTest, HeadIsReadThroughEverySplit) {
  const std::string head = "A: 1\r\nno colon\r\n b :  v a l  \r\nA:2:3\r\n\r\n";
  for (size_t split = 0; split < head.size(); ++split) {
    UCurlPeer peer;
    std::string response = head.substr(0, split);
    peer.answer(head.substr(split) + "BODY");
    EXPECT_EQ(peer.read_headers(response), "[A=1][ b =v a l][A=2:3]") << split;
    EXPECT_EQ(response, "BODY");
  }
}

TEST_F(UpstreamTest, ServerThatClosesInsideItsHeadFailsAfterTheTimeOfTheRead) {
  origin_.on("/a", {raw("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n", End::kClose)});
  std::string text;
  CapturedLog log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(curl_.get(origin_.url("/a"), text));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1990));
  EXPECT_LT(std::clock(), 5 * CLOCKS_PER_SEC);  // slept, not spun
  EXPECT_EQ(log.err(), "Excep: recv timeout1\n");
}

TEST_F(UpstreamTest, DocumentIsRequestedAndLoggedExactly) {
  origin_.on("/a/b?c", {ok("text")});
  std::string text = "old";
  CapturedLog log;
  ASSERT_TRUE(curl_.get(origin_.url("/a/b?c"), text));
  EXPECT_EQ(text, "text");
  const std::string address = origin_.address();
  EXPECT_EQ(origin_.requests(), std::vector<std::string>{"GET /a/b?c HTTP/1.1\r\nHost: " + address +
                                                         "\r\nConnection: close\r\n\r\n"});
  const std::string port = address.substr(address.find(':') + 1);
  EXPECT_EQ(log.out(), "parse URL: http://" + address +
                           "/a/b?c\n"
                           "old address does not match\n"
                           "old port does not match: -1->" +
                           port +
                           "\nSocket created\n"
                           "EINPROGRESS in connect() - selecting\n"
                           "old:  port: " +
                           port + "\nnew: 127.0.0.1 port: " + port +
                           "\nConnected: 127.0.0.1\n"
                           "disconnect: 127.0.0.1\n");
  EXPECT_EQ(log.err(), "");
}

TEST_F(UpstreamTest, ConnectionIsReusedUntilThePortChanges) {
  ScriptedOrigin other;
  origin_.on("/s", {ok("one"), ok("two")});
  other.on("/s", {ok("three")});
  CapturedLog log;
  EXPECT_EQ(stream("/s"), 3);
  EXPECT_EQ(stream("/s"), 3);
  EXPECT_EQ(curl_.get_stream(other.url("/s"), buffer_, true, speed_, 0), 5);
  EXPECT_EQ(drain(), "onetwothree");
  EXPECT_EQ(origin_.connections(), 1);
  EXPECT_EQ(count(log.out(), "reusing existing connection\n"), 1);
  EXPECT_EQ(count(log.out(), "old address does not match\n"), 1);
  EXPECT_EQ(count(log.out(), "disconnect: 127.0.0.1\n"), 2);
  EXPECT_NE(origin_.requests()[1].find("\r\nConnection: keep-alive\r\n\r\n"), std::string::npos);
}

TEST_F(UpstreamTest, UnsuccessfulStatusIsTriedSixTimesAtOnceAndLeavesNothingBehind) {
  origin_.on("/a", {status("404 Not Found"), status("503 No"), status("301 Moved"),
                    raw("HTTP/1.1 500 No\r\n\r\nHTTP/1.1 junk"), status("403 No"), ok("text")});
  std::string text;
  CapturedLog log;
  EXPECT_TRUE(curl_.get(origin_.url("/a"), text));
  EXPECT_EQ(text, "text");
  EXPECT_FALSE(curl_.get(origin_.url("/none"), text));
  EXPECT_EQ(text, "text");
  EXPECT_EQ(stream("/none"), -1);
  EXPECT_EQ(origin_.requests_for("/none"), 12);
  EXPECT_EQ(count(log.out(), "Trying to reconnect when http != 200\n"), 5 + 12);
  EXPECT_EQ(count(log.err(), "\nget common failed - retry 6\n"), 1);
  EXPECT_EQ(count(log.err(), "\nget_stream / get common failed - retry 6\n"), 1);
}

TEST_F(UpstreamTest, RefusedRealHostIsTriedFourTimesWithTwoPauses) {
  UCurlPeer peer;
  const auto start = std::chrono::steady_clock::now();
  CapturedLog log;
  EXPECT_FALSE(peer.get_common("http://127.0.0.1:" + std::to_string(free_port()) + "/"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1990));
  // Counts as connected; the first send finds out.
  EXPECT_EQ(count(log.err(), "Send failed\n"), 4);
  EXPECT_EQ(count(log.out(), "Connected: 127.0.0.1\n"), 4);
  EXPECT_EQ(count(log.out(), "Trying to reconnect when send data\n"), 4);
}

TEST_F(UpstreamTest, NamesAreResolvedAndUnknownOnesFailTheAttempt) {
  origin_.on("/a", {ok("text")});
  const std::string port = origin_.address().substr(origin_.address().find(':'));
  std::string text;
  CapturedLog log;
  EXPECT_TRUE(curl_.get("http://localhost" + port + "/a", text));
  EXPECT_EQ(count(log.out(), "localhost resolved to 127.0.0.1\n"), 1);
  EXPECT_EQ(count(log.out(), "disconnect: localhost\n"), 1);
  UCurlPeer peer;
  EXPECT_FALSE(peer.get_common("http:///x"));
  EXPECT_EQ(count(log.err(), "Failed to resolve hostname: \n"), 4);
  EXPECT_EQ(count(log.out(), "Trying to reconnect when connecting\n"), 4);
}

TEST_F(UpstreamTest, DeadCacheServersAreInvalidatedWithoutAPause) {
  const std::string dead = "127.0.0.1:" + std::to_string(free_port());
  chunk_map_.setMap(dead + ";" + origin_.address());
  origin_.on("/a/b/s.ts", {ok("media")});
  CapturedLog log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(curl_.get_stream("http://@/a/b/s.ts", buffer_, false, speed_, 0), 5);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(count(log.out(), "  server: " + dead + " DEAD\n"), 1);
  EXPECT_EQ(count(log.err(), "Send failed\n"), 1);
  playlist_map_.setMap("");
  EXPECT_FALSE(UCurlPeer().get_common("http://~/a"));
  EXPECT_EQ(count(log.err(), "Excep: No playlist cache server found\n"), 4);
}

TEST_F(UpstreamTest, BlackHoleTimesOutAndIsInvalidatedAfterTheSecondAttempt) {
  const BlackHole hole;
  chunk_map_.setMap(hole.address() + ";" + origin_.address());
  origin_.on("/s", {ok("media")});
  CapturedLog log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(curl_.get_stream("http://@/s", buffer_, false, speed_, 0), 5);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3990));
  EXPECT_EQ(log.err(), "ERR: connect timeout\nERR: connect timeout\n");
  EXPECT_EQ(count(log.out(), "Trying to reconnect when connecting\n"), 2);
  EXPECT_EQ(count(log.out(), "Invalidating cache server " + hole.address() + "\n"), 1);
}

TEST_F(UpstreamTest, ServerWithoutALengthIsInvalidatedAndASilentOneIsNot) {
  playlist_map_.setMap(origin_.address());
  origin_.on("/unknown", {raw("HTTP/1.1 200 OK\r\ncontent-length: 2\r\n\r\nxx")});
  origin_.on("/silent", {raw("", End::kStall)});
  std::string text = "old";
  CapturedLog log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(curl_.get("http://~/silent", text));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5990));
  EXPECT_EQ(log.err(), "Excep: recv timeout1\n");
  EXPECT_EQ(count(log.out(), "DEAD"), 0);
  EXPECT_FALSE(curl_.get("http://~/unknown", text));
  EXPECT_EQ(text, "");
  EXPECT_EQ(count(log.err(), "Content-Length unknown\n"), 1);
  EXPECT_EQ(count(log.out(), "DEAD"), 1);
}

TEST_F(UpstreamTest, DocumentBodiesEndWhereTheServerSays) {
  const std::string large = pattern(300000);
  const std::pair<Reply, std::string> cases[] = {
      {ok(""), ""},
      {ok(large), large},
      {cut("abcdef", 3, End::kClose), "abc"},
      {raw("HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\nabc", End::kClose), "abc"},
      {raw("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nabc"), "abc"},
      {raw("HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\n" + large, End::kClose), large},
  };
  for (const auto& [reply, body] : cases) {
    origin_.on("/a", {reply});
    std::string text;
    CapturedLog log;
    EXPECT_TRUE(curl_.get(origin_.url("/a"), text));
    EXPECT_EQ(text, body);
  }
}

TEST_F(UpstreamTest, TextWithoutAnEndIsGivenUp) {
  const std::string endless(17 << 20, 'x');
  for (const Reply& reply : {ok(endless), raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n" + endless),
                             raw("HTTP/1.1 200 OK\r\nA: " + endless)}) {
    origin_.on("/a", {reply});
    std::string text;
    CapturedLog log;
    EXPECT_FALSE(curl_.get(origin_.url("/a"), text));
    EXPECT_LE(text.size(), 16U << 20);
    EXPECT_EQ(log.err(), "Excep: recv error\n");
  }
}

TEST_F(UpstreamTest, SegmentsArriveWholeClearAndEncrypted) {
  for (const size_t size : {0UL, 1UL, 15UL, 16UL, 4096UL, 524287UL, 524288UL, 1500000UL}) {
    const std::string media = pattern(size);
    origin_.on("/clear", {ok(media)});
    origin_.on("/secret", {ok(encrypt(media, kKey))});
    CapturedLog log;
    EXPECT_EQ(stream("/clear"), static_cast<std::int64_t>(size));
    EXPECT_EQ(curl_.position, size);
    EXPECT_TRUE(drain() == media) << size;
    EXPECT_EQ(stream("/secret", kKey), static_cast<std::int64_t>(size / 16 * 16 + 16));
    EXPECT_TRUE(drain() == media) << size;
  }
  EXPECT_GT(speed_, 0);
}

TEST_F(UpstreamTest, OddKeysAndLastBlocksGiveWhatTheyCan) {
  const std::string media = pattern(4000);
  const std::string secret = encrypt(media, "short" + std::string(11, '\0'));
  origin_.on("/s", {ok(secret), ok(secret.substr(0, 3999)), ok(secret + secret.substr(16, 16))});
  CapturedLog log;
  EXPECT_EQ(stream("/s", "short"), 4016);
  EXPECT_TRUE(drain() == media);
  EXPECT_EQ(stream("/s", "short"), 3999);  // a broken block at the end gives nothing
  EXPECT_TRUE(drain() == media.substr(0, 3984));
  EXPECT_EQ(stream("/s", "short"), 4032);  // padding that is none costs its block
  EXPECT_EQ(drain().size(), 4016U);
  EXPECT_EQ(log.err(), "");
}

TEST_F(UpstreamTest, Http10SegmentIsTakenAsItIsToTheEnd) {
  const std::string secret = encrypt("media", kKey);
  origin_.on("/s", {raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n" + secret, End::kClose)});
  stop_ = true;
  CapturedLog log;
  EXPECT_EQ(stream("/s", kKey), 16);
  EXPECT_EQ(drain(), secret);
  EXPECT_EQ(curl_.position, 0U);
}

TEST_F(UpstreamTest, StalledSegmentResumesWhereItStopped) {
  const std::string media = pattern(3000);
  const std::string secret = encrypt(media, kKey);
  for (const size_t offset : {1UL, 15UL, 16UL, 1007UL, 3007UL}) {
    origin_.on("/secret", {cut(secret, offset, End::kStall), ranged(secret)});
    CapturedLog log;
    EXPECT_TRUE(stream_resuming("/secret", kKey) == media) << offset;
    EXPECT_EQ(curl_.position, secret.size());
    EXPECT_EQ(log.err(), "Excep: recv timeout2\nDEBUG: from bytes specified! " +
                             std::to_string(offset) + "\n");
    EXPECT_NE(
        origin_.requests().back().find("\r\nRange: bytes=" + std::to_string(offset) + "-\r\n"),
        std::string::npos);
  }
}

TEST_F(UpstreamTest, OffsetComesFromTheContentRange) {
  const std::pair<const char*, std::uint64_t> cases[] = {
      {"Content-Range: bytes 4096-8191/8192", 4098},
      {"Content-Range: 7-8/9", 2},
      {"Content-Range: bytes 12", 14},
      {"Content-Range: bytes -5", 2},
      {"Content-Range: -bytes 5", 7},
      {"Content-Range: bytes", 2},
      {"content-range: bytes 4096-1/2", 2},
  };
  for (const auto& [header, position] : cases) {
    origin_.on("/s", {raw("HTTP/1.1 206 P\r\n" + std::string(header) +
                          "\r\nContent-Length: 2\r\n\r\nab")});
    CapturedLog log;
    EXPECT_EQ(stream("/s", "", 1), 2);
    EXPECT_EQ(curl_.position, position) << header;
  }
}

TEST_F(UpstreamTest, StopFlagEndsADownloadButNotABodyAlreadyThere) {
  const std::string media = pattern(100000);
  origin_.on("/whole", {ok("media")});
  origin_.on("/long", {cut(encrypt(media, kKey), 1600, End::kStall)});
  stop_ = true;
  CapturedLog log;
  EXPECT_EQ(stream("/whole"), 5);
  EXPECT_EQ(log.out().find("forced"), std::string::npos);
  EXPECT_EQ(drain(), "media");
  EXPECT_GE(stream("/long", kKey), 0);
  EXPECT_EQ(count(log.out(), "forced stream break. should finish\ndisconnect: 127.0.0.1\n"), 1);
  EXPECT_EQ(media.rfind(drain(), 0), 0U);
}

TEST_F(UpstreamTest, BufferWithoutMemoryEndsTheDownload) {
  CBuff none(std::uint64_t{1} << 60);
  origin_.on("/clear", {cut(pattern(9000), 5000, End::kStall)});
  CapturedLog log;
  for (const std::string& key : {std::string(), kKey}) {
    EXPECT_GE(curl_.get_stream(origin_.url("/clear"), none, false, speed_, key, nullptr, 0), 0);
  }
  EXPECT_EQ(none.fill(), 0U);
  EXPECT_EQ(count(log.out(), "disconnect: "), 2);
  EXPECT_GE(count(log.err(), "CBUFF: Unable to allocate mem for cblock data\n"), 2);
}

}  // namespace
}  // namespace test
}  // namespace weir
