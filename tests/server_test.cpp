#include "server/server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "cachemap/cache_map.h"
#include "playlist/stream_stats.h"
#include "server/request.h"
#include "support/captured_log.h"
#include "support/client.h"
#include "support/running_server.h"
#include "support/scripted_origin.h"
#include "watchdog/watchdog.h"

namespace weir::test {
namespace {

// Requests without a server: each on a socket pair, on the test's own thread.
class RequestTest : public testing::Test {
 protected:
  RequestTest() {
    chunkCacheMap = &chunk_map_;
    playlistCacheMap = &playlist_map_;
  }

  // A request whose client has said `text` and nothing more.
  std::unique_ptr<Request> request(const std::string& text) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    client_ = ends[1];
    EXPECT_TRUE(send_all(client_, text));
    shutdown(client_, SHUT_WR);
    return std::make_unique<Request>(Fd(ends[0]), 1 << 20, stats_, watchdog_);
  }

  std::string answer(const std::string& text) {
    request(text)->start();
    return read_and_close(client_);
  }

  CacheMap chunk_map_;
  CacheMap playlist_map_;
  StreamStats stats_;
  Watchdog watchdog_{tame_device()};
  CapturedLog log_;
  int client_ = -1;
};

TEST_F(RequestTest, RequestLineIsTakenApart) {
  using namespace std::string_literals;
  // "method path", and the parameters as "[key=value]".
  const std::pair<std::string, std::string> cases[] = {
      {"GET /stream?url=live%2Fa.m3u8&startFrom=3 HTTP/1.1",
       "0 /stream[url=live/a.m3u8][startFrom=3]"},
      {"HEAD /stats.json", "1 /stats.json"},
      {"get /a HTTP/1.0 more", "2 /a"},
      {"GET  /x", "0 "},
      {"GET /a%2Fb+c?", "0 /a/b c"},
      {"GET /a=b&c?x", "0 /a=b&c[x=]"},
      {"GET ?x=", "0 [x=]"},
      {"GET ?=1&", "0 [=1]"},
      {"GET ?a&b=1", "0 [a&b=1]"},
      {"GET ?a=b=c&a+%=%4&?=%zz%", "0 [a=b=c][a+%=\4][?=\0\0]"s},
      {"GET ?x=1&&y=2", "0 [x=1][&y=2]"},
  };
  for (const auto& [line, parts] : cases) {
    const auto parsed = parse_request_line(line);
    std::string text = std::to_string(static_cast<int>(parsed->method)) + " " + parsed->path;
    for (const auto& [key, value] : parsed->params) text += "[" + key + "=" + value + "]";
    EXPECT_EQ(text, parts) << line;
  }
}

// With bytes left unread the connection would be reset, and the answer's end be lost.
TEST_F(RequestTest, ABodyIsDiscardedBeforeTheConnectionCloses) {
  request("POST /stats.json HTTP/1.1\r\n\r\n" + std::string(60000, 'x'))->start();
  char piece[1000];
  ssize_t count;
  while ((count = read(client_, piece, sizeof piece)) > 0) {
  }
  EXPECT_EQ(count, 0) << "reset";
  close(client_);
}

TEST_F(RequestTest, LineEndsAfter4095BytesAndTheRestIsSkipped) {
  const std::string path = "/" + std::string(5000, 'a');
  EXPECT_EQ(answer("GET " + path + " HTTP/1.1\r\n\r\n"),
            head("404 " + path.substr(0, 4095 - 4) + " Not Found", "plain/text"));
}

TEST_F(RequestTest, EveryRouteAnswersExactly) {
  const std::string ok = head("200 OK", "application/json");
  const std::string will_try = head("200 Will try to stream...", "application/octet-stream");
  const std::string stats =
      "{\"last_chunk_speed\": 1,\"avg_speed\": 2,\"cbuff_size\": 3,\"selected_profile\": 4}\n";
  stats_.last_chunk_speed.set(1);
  stats_.avg_speed.set(2);
  stats_.cbuff_size.set(3);
  stats_.selected_profile.set(4);
  const std::pair<std::string, std::string> cases[] = {
      {"HEAD /stream?url=x HTTP/1.1", will_try},
      {"HEAD /stream.ts", will_try},
      {"POST /stream.ts?startFrom=1", head("406 Missing url parameter", "plain/text")},
      {"GET /stats%2Ejson?x=1", ok + stats},
      {"HEAD /stats.json", ok},
      {"HEAD /update-cache-map", ok + "\"OK\"\n"},
      {"HEAD /watchdog", ok},
      {"GET /stream/", head("404 /stream/ Not Found", "plain/text")},
      {"GET /Stream", head("404 /Stream Not Found", "plain/text")},
      {"GET /%0D%0A", head("404 /\r\n Not Found", "plain/text")},
      {"GET  /stats.json", head("404  Not Found", "plain/text")},
      {"GET", head("406 Invalid Request", "plain/text")},
  };
  for (const auto& [line, text] : cases) EXPECT_EQ(answer(line + "\r\n\r\n"), text) << line;
  EXPECT_EQ(answer(""), head("406 Invalid Request", "plain/text"));
  EXPECT_EQ(count(log_.out(), "Invald Request\n"), 2);
  EXPECT_EQ(count(log_.err(), "not found\n"), 4);
  EXPECT_EQ(count(log_.out(), "WD: ping\n"), 0);
  answer("POST /watchdog\r\n\r\n");
  EXPECT_EQ(count(log_.out(), "WD: ping\n"), 1);
  answer("GET /update-cache-map?playlist=a:1&chunk=b:2;c:3,&chunk=d:4\r\n\r\n");
  EXPECT_EQ(count(log_.out(),
                  "setting map to: b:2;c:3,\n"
                  "ring: alive servers: 1\n  server: b:2 alive\n"
                  "ring: alive servers: 1\n  server: c:3 alive\n"
                  "setting map to: a:1\n"),
            1);
}

TEST_F(RequestTest, ProgressIsLoggedInOrder) {
  answer("GET /x HTTP/1.1\r\nHost: y\r\n\r\n");
  EXPECT_EQ(log_.out(),
            "Request::start\nRequest::start 1\nRequest::parse_resource\n"
            "Request::parse_resource -- readline: GET /x HTTP/1.1\n"
            "Request::parse_resource -- split\nit's GET\nparse url\nafter parse url\n"
            "Request::start 2\nRequest::start 3 << /x\n");
}

class ServerTest : public testing::Test {
 protected:
  std::string stream_of(const std::string& path) { return stream_resource(origin_.url(path)); }

  // A stream of these media at "/m", in order, whose list takes a while to come.
  void publish(const std::vector<std::string>& media, const std::string& end,
               std::chrono::milliseconds pause = {}) {
    std::string list = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n";
    for (const std::string& text : media) {
      const std::string path = "/" + std::to_string(list.size());
      origin_.on(path, {ok(text)});
      list += origin_.url(path) + "\n";
    }
    origin_.on("/v", {slow(list + end, 4096, pause)});
    origin_.on("/m",
               {ok("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1024\n" + origin_.url("/v") + "\n")});
  }

  CapturedLog log_;
  ScriptedOrigin origin_;
  RunningServer server_;
};

TEST_F(ServerTest, StreamsSideBySideArriveWholeAndLeaveNothingBehind) {
  const std::vector<std::string> media = {pattern(300000, 1), pattern(700000, 2), pattern(1, 3)};
  publish(media, "#EXT-X-ENDLIST\n");
  const Baseline before;
  std::vector<std::string> got(4);
  std::vector<std::thread> players;
  for (std::string& text : got) {
    players.emplace_back([&] { text = server_.get(stream_of("/m")); });
  }
  for (std::thread& player : players) player.join();
  for (const std::string& text : got) {
    EXPECT_TRUE(text == kStreamHead + media[0] + media[1] + media[2]) << text.size();
  }
  EXPECT_TRUE(before.is_reached());
  EXPECT_EQ(count(log_.err(), "mpl finish and cleanup!\n"), 4);
  EXPECT_EQ(count(log_.out(), "after start\n"), count(log_.out(), "do_request_start\n"));
  EXPECT_NE(server_.get("/stats.json").find("\"selected_profile\": 1}\n"), std::string::npos);
}

TEST_F(ServerTest, ConnectionIsLoggedInOrder) {
  server_.get("/x");
  ASSERT_TRUE(log_.out.shows("/x\n"));
  const std::string out = log_.out();
  size_t at = 0;
  for (const char* line :
       {"loop\n", "after select\n", "read fds select ok\n", "accepted\n", "set sock opt\n",
        "set sock opt2\n", "processing request\n", "Request::process\n", "Request::process end\n",
        "done processing request\n", "loop\n"}) {
    at = out.find(line, at);
    ASSERT_NE(at, std::string::npos) << line;
  }
  EXPECT_NE(out.find("do_request_start\npthread_detach\n"), std::string::npos);
}

TEST_F(ServerTest, SilentClientHoldsUpNobody) {
  const int silent = server_.connect();
  EXPECT_NE(server_.get("/stats.json"), "");
  close(silent);
}

TEST_F(ServerTest, SilentUpstreamEndsTheStreamAfterFifteenSeconds) {
  publish({"media"}, "#EXT-X-TARGETDURATION:60\n");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(server_.get(stream_of("/m")), kStreamHead + "media");
  EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
  EXPECT_EQ(count(log_.err(), "no data for long time, closing stream\n"), 1);
}

TEST_F(ServerTest, PlayerThatLeavesEndsItsStreamAndNoOther) {
  const std::vector<std::string> media(12, pattern(800000));
  publish(media, "#EXT-X-ENDLIST\n");
  const int stays = server_.ask(stream_of("/m"));
  EXPECT_EQ(read_and_close(server_.ask(stream_of("/m")), 200000).size(), 200000U);
  EXPECT_TRUE(log_.err.shows("mpl finish and cleanup!\n"));
  EXPECT_EQ(read_and_close(stays).size(), kStreamHead.size() + 12 * media[0].size());
}

// While this lives no thread can be had: there is no room for its stack.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, std::numeric_limits<size_t>::max() / 4 * 3);
    pthread_setattr_default_np(&huge);
  }
  ~NoThreads() { pthread_setattr_default_np(&before_); }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t before_{};
};

TEST_F(ServerTest, WithoutThreadsRequestsAreClosedAndPassesWait) {
  publish({"a", "b", "c", "d", "e"}, "#EXT-X-ENDLIST\n", std::chrono::seconds(1));
  std::string got;
  std::thread player([&] { got = server_.get(stream_of("/m")); });
  {
    // The origin has its thread for the list, and will need no other.
    EXPECT_TRUE(eventually([this] { return count(origin_.requests(), "GET /v ") == 1; }));
    const NoThreads none;
    EXPECT_EQ(server_.get("/stats.json"), "");
    EXPECT_TRUE(log_.err.shows("Using cached playlist (still got 5 chunks in advance)\n"));
  }
  player.join();
  EXPECT_EQ(got, kStreamHead + "abcde");
}

// What is handed to the kernel in advance delays the writer's next turn.
TEST_F(ServerTest, KernelTakesLittleForAPlayerThatDoesNotRead) {
  publish(std::vector<std::string>(12, pattern(400000)), "#EXT-X-ENDLIST\n");
  const int idle = server_.ask(stream_of("/m"));
  EXPECT_TRUE(eventually([&] { return count(log_.out(), "buffer is full") >= 3; }));
  // The buffer is full with the third, and little is under way.
  EXPECT_LE(count(log_.out(), "got chunk "), 4);
  close(idle);
}

TEST(ServerStart, PortInUseIsSaid) {
  const ScriptedOrigin origin;
  const auto port = static_cast<std::uint32_t>(std::stoul(origin.port()));
  try {
    Server(INADDR_LOOPBACK, port, 5, 0, tame_device()).run();
  } catch (const char* text) {
    EXPECT_STREQ(text, "Couldn't bind listening socket.");
  }
}

}  // namespace
}  // namespace weir::test
