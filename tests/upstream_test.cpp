#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <limits>
#include <memory>
#include <tuple>

#include "buffer/cbuff.h"
#include "cachemap/cache_map.h"
#include "support/captured_log.h"
#include "support/client.h"
#include "support/scripted_origin.h"
#include "upstream/connection.h"
#include "upstream/response.h"
#include "upstream/server_choice.h"
#include "upstream/ucurl.h"

namespace weir::test {
namespace {

using End = Reply::End;
const std::string kKey = "0123456789abcdef";

// A connection to a server that has said `text` and says nothing more.
Connection said(const std::string& text) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  EXPECT_TRUE(send_all(ends[1], text));
  close(ends[1]);
  return Connection(Fd(ends[0]));
}

// "host port path", and "map" where a cache map chose the server; "!" for a failure.
std::string chosen(const std::string& url) {
  ServerChoice choice;
  if (!choice.choose(url)) return "!";
  return choice.host() + " " + std::to_string(choice.port()) + " " + choice.path() +
         (choice.from_cache_map() ? " map" : "");
}

class UpstreamTest : public testing::Test {
 protected:
  UpstreamTest() {
    chunkCacheMap = &chunk_map_;
    playlistCacheMap = &playlist_map_;
  }

  std::int64_t stream(const std::string& path, const std::string& key = "",
                      std::uint64_t from = 0) {
    return stream_url(origin_.url(path), buffer_, key, from);
  }

  std::int64_t stream_url(const std::string& url, CBuff& buffer, const std::string& key = "",
                          std::uint64_t from = 0) {
    const auto download = curl_.get_stream(url, buffer, key, stop_, from);
    if (download) speed_ = download->speed_kbps;
    return download ? static_cast<std::int64_t>(download->bytes) : -1;
  }

  // The document of a reply, or "!" and what is left of the one before.
  std::string document(const Reply& reply) {
    origin_.on("/a", {reply});
    const bool got = curl_.get(origin_.url("/a"), text_);
    return (got ? "" : "!") + text_;
  }

  std::int64_t milliseconds() const {
    return (std::chrono::steady_clock::now() - start_) / std::chrono::milliseconds(1);
  }

  CapturedLog log_;
  CacheMap chunk_map_;
  CacheMap playlist_map_;
  ScriptedOrigin origin_;
  CBuff buffer_;
  UCurl curl_;
  std::atomic<bool> stop_{false};
  double speed_ = -1;
  std::string text_ = "old";
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

TEST_F(UpstreamTest, UrlsAreTakenApart) {
  chunk_map_.setMap("c:8081");
  playlist_map_.setMap("nocolon");
  const std::pair<const char*, const char*> cases[] = {
      {"http://10.0.0.5:8080/live/a/b/c.ts?q=1:2", "10.0.0.5 8080 /live/a/b/c.ts?q=1:2"},
      {"https://h/x", "h 80 /x"},
      {"http://h:81", "h 81 /"},
      {"http://h", "h 80 /"},
      {"http://h/a:b", "h 80 /a:b"},
      {"http://h:abc/x", "h 0 /x"},
      {"http:///x", " 80 /x"},
      {"http://@:8080/x", "@ 8080 /x"},
      {"http://@/abc/def/x.ts", "c 8081 /abc/def/x.ts map"},
      {"http://~/abc", "nocolon 0 /abc map"},
      {"ftp://h/x", "!"},
      {"HTTP://h/x", "!"},
      {"chunk.ts", "!"},
      {"http", "!"},
      {"", "!"},
  };
  for (const auto& [url, parts] : cases) EXPECT_EQ(chosen(url), parts) << url;
  EXPECT_EQ(log_.err(), "Excep: ftp\nExcep: HTTP\nExcep: chunk.ts\nExcep: http\nExcep: \n");
  chunk_map_.setMap("");
  playlist_map_.setMap(",");
  EXPECT_EQ(chosen("http://@/x"), "!");
  EXPECT_EQ(chosen("http://~"), "!");
  EXPECT_TRUE(
      log_.err().ends_with("no valid ring found\nExcep: No cache server found\nExcep: No playlist "
                           "cache server found\n"));
}

TEST_F(UpstreamTest, StatusLineIsTakenFromOneRead) {
  using enum Response::Status;
  const std::tuple<std::string, Response::Status, const char*, const char*> cases[] = {
      {"HTTP/1.1 206 Partial Content\r\nA: 1\r\n", kOk, "A: 1\r\n", ""},
      {"HTTP/1.0 2\r\n", kOk, "", ""},
      {"HTTP/1.0 302 Found\r\nx", kNotSuccessful, "x",
       "HTTP response first_line: HTTP/1.0 302 Found\n"},
      {"HTTP/1.1  200 OK\r\n", kNotSuccessful, "", "HTTP response first_line: HTTP/1.1  200 OK\n"},
      {"HTTP/1.1\r\n", kNotSuccessful, "", "HTTP response first_line: HTTP/1.1\n"},
      {"ICY 200 OK\r\n", kNoStatusLine, "", "Not HTTP/1.x?\n"},
      {"\r\nx", kNoStatusLine, "x", "Empty http state?\n"},
      {"HTTP/1.1 200 OK", kNoStatusLine, "HTTP/1.1 200 OK", "Where is http state?\n"},
  };
  for (const auto& [sent, status, rest, err] : cases) {
    CapturedLog log;
    Connection connection = said(sent);
    Response response;
    EXPECT_EQ(response.read_status(connection), status);
    EXPECT_EQ(response.rest, rest);
    EXPECT_EQ(response.http11(), status != kNoStatusLine && sent.starts_with("HTTP/1.1"));
    EXPECT_EQ(log.err(), err);
  }
}

TEST_F(UpstreamTest, HeadIsReadThroughEverySplit) {
  const std::string head =
      "no colon\r\nContent-length: 1\r\n Content-Length: 2\r\nContent-Length:  3 \r\n"
      "Content-Range: bytes 7-9/10\r\nContent-Length: 4\r\n\r\n";
  for (size_t split = 0; split < head.size(); ++split) {
    Connection connection = said(head.substr(split) + "BODY");
    Response response;
    response.rest = head.substr(0, split);
    EXPECT_TRUE(response.read_headers(connection));
    EXPECT_EQ(response.content_length(), 3U);
    EXPECT_EQ(response.range_start(), 7U);
    EXPECT_EQ(response.rest, "BODY");
  }
}

TEST_F(UpstreamTest, ServerThatClosesInsideItsHeadFailsAfterTheTimeOfTheRead) {
  EXPECT_EQ(document(raw("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n", End::kClose)), "!old");
  EXPECT_GE(milliseconds(), 1990);
  EXPECT_LT(std::clock(), 5 * CLOCKS_PER_SEC);  // slept, not spun
  EXPECT_EQ(log_.err(), "Excep: recv timeout1\n");
}

TEST_F(UpstreamTest, DocumentIsRequestedAndLoggedExactly) {
  const std::string address = origin_.address();
  const std::string port = origin_.port();
  origin_.on("/a/b?c", {ok("text")});
  ASSERT_TRUE(curl_.get(origin_.url("/a/b?c"), text_));
  EXPECT_EQ(text_, "text");
  EXPECT_EQ(origin_.requests(),
            "GET /a/b?c HTTP/1.1\r\nHost: " + address + "\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(log_.out(), "parse URL: http://" + address +
                            "/a/b?c\nold address does not match\n"
                            "old port does not match: -1->" +
                            port +
                            "\nSocket created\nEINPROGRESS in connect() - selecting\n"
                            "old:  port: " +
                            port + "\nnew: 127.0.0.1 port: " + port +
                            "\nConnected: 127.0.0.1\ndisconnect: 127.0.0.1\n");
  EXPECT_EQ(log_.err(), "");
}

TEST_F(UpstreamTest, ConnectionIsReusedUntilThePortChanges) {
  ScriptedOrigin other;
  origin_.on("/s", {ok("one"), ok("two")});
  other.on("/s", {ok("three")});
  EXPECT_EQ(stream("/s"), 3);
  EXPECT_EQ(stream("/s"), 3);
  EXPECT_EQ(stream_url(other.url("/s"), buffer_), 5);
  EXPECT_EQ(drain(buffer_), "onetwothree");
  EXPECT_EQ(origin_.connections(), 1);
  EXPECT_EQ(count(log_.out(), "reusing existing connection\n"), 1);
  EXPECT_EQ(count(log_.out(), "old address does not match\n"), 1);
  EXPECT_EQ(count(log_.out(), "disconnect: 127.0.0.1\n"), 1);
  EXPECT_EQ(count(origin_.requests(), "\r\nConnection: keep-alive\r\n\r\n"), 2);
}

TEST_F(UpstreamTest, UnsuccessfulStatusIsTriedSixTimesAtOnceAndLeavesNothingBehind) {
  origin_.on("/a", {ok("", "404 Not Found"), ok("", "503 No"), ok("", "301 Moved"),
                    raw("HTTP/1.1 500 No\r\n\r\nHTTP/1.1 junk"), ok("", "403 No"), ok("text")});
  EXPECT_TRUE(curl_.get(origin_.url("/a"), text_));
  EXPECT_FALSE(curl_.get(origin_.url("/none"), text_));
  EXPECT_EQ(text_, "text");
  EXPECT_EQ(stream("/none"), -1);
  EXPECT_EQ(count(origin_.requests(), "GET /none "), 12);
  EXPECT_EQ(count(log_.out(), "Trying to reconnect when http != 200\n"), 5 + 12);
  EXPECT_EQ(count(log_.err(), "\nget common failed - retry 6\n"), 1);
  EXPECT_EQ(count(log_.err(), "\nget_stream / get common failed - retry 6\n"), 1);
}

TEST_F(UpstreamTest, ServerThatCantBeReachedIsTriedFourTimesWithTwoPauses) {
  const std::tuple<std::string, const char*, const char*> cases[] = {
      // Refused, which counts as connected; the first send finds out.
      {"127.0.0.1:" + std::to_string(refusing_port()), "Send failed\n",
       "Connected: 127.0.0.1\ndisconnect: 127.0.0.1\nTrying to reconnect when send data\n"},
      {"", "Failed to resolve hostname: \n", "disconnect: \nTrying to reconnect when connecting\n"},
      {"~", "no valid ring found\nExcep: No playlist cache server found\n",
       "parse URL: http://~/a\n"},
  };
  for (const auto& [host, err, out] : cases) {
    CapturedLog log;
    EXPECT_FALSE(UCurl().get("http://" + host + "/a", text_));
    EXPECT_EQ(count(log.err(), err), 4 * 6);
    EXPECT_EQ(count(log.out(), out), 4 * 6);
  }
  EXPECT_GE(milliseconds(), 2 * 6 * 1990);
}

TEST_F(UpstreamTest, CallsThatTheSystemRefusesAreReported) {
  // No TCP connection goes to a multicast address.
  EXPECT_FALSE(curl_.get("http://224.0.0.1/", text_));
  EXPECT_EQ(count(log_.err(), "ERR: connect failed: Network is unreachable\n"), 4 * 6);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_FALSE(curl_.get(origin_.url("/a"), text_));
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(count(log_.err(), "Could not create socket\n"), 4 * 6);
}

TEST_F(UpstreamTest, NamesAreResolved) {
  origin_.on("/a", {ok("text")});
  EXPECT_TRUE(curl_.get("http://localhost:" + origin_.port() + "/a", text_));
  EXPECT_EQ(count(log_.out(), "localhost resolved to 127.0.0.1\n"), 1);
  EXPECT_EQ(count(log_.out(), "disconnect: localhost\n"), 1);
}

TEST_F(UpstreamTest, CacheServersThatCantBeReachedAreInvalidatedWithoutAPause) {
  origin_.on("/s", {ok("media")});
  const auto leave_out = [this](int port, const std::string& err, int reconnects) {
    const CapturedLog log;
    const auto before = milliseconds();
    const std::string gone = "127.0.0.1:" + std::to_string(port);
    chunk_map_.setMap(gone + ";" + origin_.address());
    EXPECT_EQ(stream_url("http://@/s", buffer_), 5);
    EXPECT_EQ(count(log.out(), "Invalidating cache server " + gone + "\n"), 1);
    EXPECT_EQ(count(log.out(), "  server: " + gone + " DEAD\n"), 1);
    EXPECT_EQ(count(log.out(), "Trying to reconnect when connecting\n"), reconnects);
    EXPECT_EQ(log.err(), err);
    return milliseconds() - before;
  };
  EXPECT_LT(leave_out(refusing_port(), "Send failed\n", 0), 900);
  // The silent one after its second attempt. A pause would be there the next time
  // too, a machine that stood still not.
  const auto leave_out_silent = [&, port = silent_port()] {
    return leave_out(port, "ERR: connect timeout\nERR: connect timeout\n", 2);
  };
  auto took = leave_out_silent();
  EXPECT_GE(took, 3990);
  if (took >= 4900) took = leave_out_silent();
  EXPECT_LT(took, 4900);
}

TEST_F(UpstreamTest, ServerWithoutALengthIsInvalidatedAndASilentOneIsNot) {
  playlist_map_.setMap(origin_.address());
  origin_.on("/unknown", {raw("HTTP/1.1 200 OK\r\ncontent-length: 2\r\n\r\nxx")});
  origin_.on("/silent", {raw("", End::kStall)});
  EXPECT_FALSE(curl_.get("http://~/silent", text_));
  EXPECT_GE(milliseconds(), 5990);
  EXPECT_EQ(count(log_.out(), "DEAD"), 0);
  EXPECT_FALSE(curl_.get("http://~/unknown", text_));
  EXPECT_EQ(text_, "");
  EXPECT_EQ(log_.err(), "Excep: recv timeout1\nContent-Length unknown\n");
  EXPECT_EQ(count(log_.out(), "DEAD"), 1);
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
  for (const auto& [reply, body] : cases) EXPECT_EQ(document(reply), body);
}

TEST_F(UpstreamTest, TextWithoutAnEndIsGivenUp) {
  const std::string endless(17 << 20, 'x');
  for (const Reply& reply : {ok(endless), raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n" + endless),
                             raw("HTTP/1.1 200 OK\r\nA: " + endless)}) {
    CapturedLog log;
    EXPECT_EQ(document(reply)[0], '!');
    EXPECT_LE(text_.size(), 16U << 20);
    EXPECT_EQ(log.err(), "Excep: recv error\n");
  }
}

TEST_F(UpstreamTest, SegmentsArriveWholeClearAndEncrypted) {
  for (const size_t size : {0UL, 1UL, 15UL, 16UL, 4096UL, 524287UL, 524288UL, 1500000UL}) {
    const std::string media = pattern(size);
    origin_.on("/s", {ok(media), ok(encrypt(media, kKey))});
    EXPECT_EQ(stream("/s"), static_cast<std::int64_t>(size));
    EXPECT_EQ(curl_.position, size);
    EXPECT_TRUE(drain(buffer_) == media) << size;
    EXPECT_EQ(stream("/s", kKey), static_cast<std::int64_t>(size / 16 * 16 + 16));
    EXPECT_TRUE(drain(buffer_) == media) << size;
  }
  EXPECT_GT(speed_, 0);
}

TEST_F(UpstreamTest, OddKeysAndLastBlocksGiveWhatTheyCan) {
  const std::string media = pattern(4000);
  const std::string secret = encrypt(media, "short" + std::string(11, '\0'));
  origin_.on("/s", {ok(secret), ok(secret.substr(0, 3999)), ok(secret + secret.substr(16, 16))});
  EXPECT_EQ(stream("/s", "short"), 4016);
  EXPECT_TRUE(drain(buffer_) == media);
  EXPECT_EQ(stream("/s", "short"), 3999);  // a broken block at the end gives nothing
  EXPECT_TRUE(drain(buffer_) == media.substr(0, 3984));
  EXPECT_EQ(stream("/s", "short"), 4032);  // padding that is none costs its block
  EXPECT_EQ(drain(buffer_).size(), 4016U);
  EXPECT_EQ(log_.err(), "");
}

TEST_F(UpstreamTest, Http10SegmentIsTakenAsItIsToTheEnd) {
  const std::string secret = encrypt("media", kKey);
  origin_.on("/s", {raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n" + secret, End::kClose)});
  stop_ = true;
  EXPECT_EQ(stream("/s", kKey), 16);
  EXPECT_EQ(drain(buffer_), secret);
  EXPECT_EQ(curl_.position, 0U);
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
    origin_.on("/s", {ok("ab", std::string("206 P\r\n") + header)});
    EXPECT_EQ(stream("/s", "", 1), 2);
    EXPECT_EQ(curl_.position, position) << header;
  }
}

TEST_F(UpstreamTest, StopFlagEndsADownloadButNotABodyAlreadyThere) {
  const std::string media = pattern(100000);
  origin_.on("/whole", {ok("media")});
  origin_.on("/long", {cut(encrypt(media, kKey), 1600, End::kStall)});
  stop_ = true;
  EXPECT_EQ(stream("/whole"), 5);
  EXPECT_EQ(count(log_.out(), "forced"), 0);
  EXPECT_EQ(drain(buffer_), "media");
  EXPECT_GE(stream("/long", kKey), 0);
  EXPECT_EQ(count(log_.out(), "forced stream break. should finish\ndisconnect: 127.0.0.1\n"), 1);
  EXPECT_TRUE(media.starts_with(drain(buffer_)));
}

TEST_F(UpstreamTest, DescriptorsBeyondThoseOfSelectAreAsGoodAsAny) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 2000) GTEST_SKIP() << "no such descriptors here";
  std::vector<int> taken;
  while (taken.empty() || taken.back() < FD_SETSIZE) taken.push_back(dup(STDIN_FILENO));
  origin_.on("/s", {ok(pattern(300000))});
  EXPECT_EQ(stream("/s"), 300000);
  for (const int fd : taken) close(fd);
}

TEST_F(UpstreamTest, BufferWithoutMemoryEndsTheDownload) {
  CBuff none(std::numeric_limits<std::ptrdiff_t>::max());  // more than malloc ever gives
  origin_.on("/clear", {cut(pattern(9000), 5000, End::kStall)});
  for (const std::string& key : {std::string(), kKey}) {
    EXPECT_GE(stream_url(origin_.url("/clear"), none, key), 0);
  }
  EXPECT_EQ(none.fill(), 0U);
  EXPECT_EQ(count(log_.out(), "disconnect: "), 2);
  EXPECT_GE(count(log_.err(), "CBUFF: Unable to allocate mem for cblock data\n"), 2);
}

}  // namespace
}  // namespace weir::test
