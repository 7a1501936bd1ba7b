#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <thread>

#include "cachemap/cache_map.h"
#include "cachemap/answer_update.h"
#include "support/captured_log.h"

namespace weir::test {
namespace {

using std::string_literals::operator""s;

struct Log {
  std::string out, err;
};

template <class Act>
Log logged(Act act) {
  CapturedLog log;
  act();
  return {log.out(), log.err()};
}

// The servers were found with another CRC-32, by bits 16 to 30 modulo 7.
TEST(CacheMap, TheFirstTwoSegmentsChooseTheServer) {
  const struct {
    std::string path, key, server;
  } cases[] = {{"/abc/def/x.m3u8", "abc/def", "s0"},
               {"/_live/abc/def/x.ts", "abc/def", "s0"},
               {"/abc/def", "abc/def", "s0"},
               {"/abc/", "abc/", "s6"},
               {"/abc", "abc", "s3"},
               {"/vod/film?x=1", "vod/film", "s6"},
               {"/vod?x=/a/b", "vod", "s2"},
               {"/_live/ch1/720p/seg1.ts", "ch1/720p", "s5"},
               {"/_live/ch1/720p/seg2.ts", "ch1/720p", "s5"},
               {"/ch286472/hd/1.ts", "ch286472/hd", "s0"},  // its bits 16 to 31 are all ones
               {"/a/_live/b/c", "a/_live", "s4"},
               {"/_lives/x/y", "_lives/x", "s1"},
               {"/_live//x/y", "/x", "s2"},
               {"/_live/", "", "s0"},
               {"/", "", "s0"},
               {"/a\0b/c/d"s, "a\0b/c"s, "s2"},
               {"/\xE9/x/y", "\xE9/x", "s1"}};
  CacheMap map;
  map.setMap("s0,s1,s2,s3,s4,s5,s6;other");
  for (const auto& c : cases) {
    std::string server;
    const Log log = logged([&] { server = map.selectServer(c.path); });
    std::string line = "for url ";
    line.append(c.path).append(" key ").append(c.key).append(" selected server: ");
    EXPECT_EQ(server, c.server) << c.path;
    EXPECT_EQ(log.out, line + c.server + "\n");
  }
}

TEST(CacheMap, RanksCountTheLivingAndADeadRingGivesWayToTheNext) {
  CacheMap map;
  // "abc" leaves 2 of 3 and 0 of 2 live servers, "abc/def" leaves 1 and 1.
  const auto expect = [&map](const std::string& abc, const std::string& abc_def) {
    EXPECT_EQ(map.selectServer("/abc"), abc);
    EXPECT_EQ(map.selectServer("/abc/def"), abc_def);
  };
  expect("", "");
  map.setMap("s0,s1,s2;;,t1;s2,u1,s2,u3,s2");
  expect("s2", "s1");
  map.invalidateServer("s0");
  expect("s1", "s2");
  map.invalidateServer("s1");
  map.invalidateServer("s1");
  expect("s2", "s2");
  map.invalidateServer("s2");
  expect("", "t1");  // the empty address of a live server
  map.invalidateServer("");
  expect("t1", "t1");
  map.invalidateServer("t1");
  expect("u1", "u3");  // every other s2 died with the first
  map.invalidateServer("u3");
  map.invalidateServer("u1");
  Log log = logged([&] { expect("", ""); });
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "no valid ring found\nno valid ring found\n");
  map.setMap("s0,s1,s2");
  expect("s2", "s1");
}

TEST(CacheMap, EveryChangeLogsTheWholeMap) {
  CacheMap map;
  const Log log = logged([&] {
    map.setMap("b:1,a:1;;b:1, a:1,b:1;");
    map.invalidateServer("b:1");
    map.invalidateServer("c:1");
    map.setMap("");
    map.invalidateServer("b:1");
  });
  const std::string dead =
      "ring: alive servers: 1\n  server: b:1 DEAD\n  server: a:1 alive\n"
      "ring: alive servers: 0\n"
      "ring: alive servers: 1\n  server: b:1 DEAD\n  server:  a:1 alive\n  server: b:1 DEAD\n";
  std::string expected =
      "setting map to: b:1,a:1;;b:1, a:1,b:1;\n"
      "ring: alive servers: 2\n  server: b:1 alive\n  server: a:1 alive\n"
      "ring: alive servers: 0\n"
      "ring: alive servers: 3\n  server: b:1 alive\n  server:  a:1 alive\n  server: b:1 alive\n";
  expected.append("Invalidating cache server b:1\n").append(dead);
  expected.append("Invalidating cache server c:1\n").append(dead);
  expected.append("setting map to: \nInvalidating cache server b:1\n");
  EXPECT_EQ(log.out, expected);
}

TEST(CacheMap, AnEmptyPathLeavesTheMapUnlocked) {
  CacheMap map;
  map.setMap("s0");
  EXPECT_THROW((void)map.selectServer(""), std::out_of_range);
  EXPECT_EQ(map.selectServer("/abc"), "s0");
}

TEST(CacheMap, NoThreadFindsAMapHalfSet) {
  constexpr int kTimes = 2000;
  const std::string maps[] = {"a,b;c", "d;a,c"};  // c, then d, is always alive
  CacheMap map;
  map.setMap(maps[0]);
  int none = 0;
  (void)logged([&] {
    std::thread updating([&] {
      for (int i = 0; i < kTimes; ++i) map.setMap(maps[i % 2]);
    });
    std::thread invalidating([&] {
      for (int i = 0; i < kTimes; ++i) map.invalidateServer(i % 2 == 0 ? "a" : "b");
    });
    for (int i = 0; i < kTimes; ++i) {
      if (map.selectServer(std::string("/").append(std::to_string(i))).empty()) ++none;
    }
    updating.join();
    invalidating.join();
  });
  EXPECT_EQ(none, 0);
}

TEST(UpdateHandler, ReplacesTheMapsThatWereSentAndAlwaysSaysOk) {
  CacheMap chunk, playlist;
  chunkCacheMap = &chunk;
  playlistCacheMap = &playlist;
  const std::string a = "a", b = "b";
  const struct {
    const std::string *chunk, *playlist;
    std::string chunk_server, playlist_server;
  } cases[] = {{nullptr, nullptr, "c0", ""},
               {nullptr, &b, "c0", "b"},
               {&a, nullptr, "a", "b"},
               {&b, &a, "b", "a"}};
  chunk.setMap("c0,c1");
  chunk.invalidateServer("c1");
  for (const auto& c : cases) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    answer_update(ends[0], c.chunk, c.playlist);
    close(ends[0]);
    char bytes[4096];
    const ssize_t got = recv(ends[1], bytes, sizeof bytes, MSG_WAITALL);
    close(ends[1]);
    EXPECT_EQ(std::string(bytes, static_cast<size_t>(got)),
              "HTTP/1.0 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n"
              "Allow: GET, HEAD\r\nCache-Control: no-cache\r\nAccess-Control-Allow-Origin: *\r\n"
              "\r\n\"OK\"\n");
    EXPECT_EQ(chunk.selectServer("/abc/def"), c.chunk_server);
    EXPECT_EQ(playlist.selectServer("/abc/def"), c.playlist_server);
  }
}

}  // namespace
}  // namespace weir::test
