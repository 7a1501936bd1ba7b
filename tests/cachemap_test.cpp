#include <gtest/gtest.h>

#include <string>

#include "cachemap/cache_map.h"

namespace weir::test {
namespace {

using std::string_literals::operator""s;

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
    testing::internal::CaptureStdout();
    EXPECT_EQ(map.selectServer(c.path), c.server) << c.path;
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "for url " + c.path + " key " + c.key + " selected server: " + c.server + "\n");
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
  expect("", "");
  map.setMap("s0,s1,s2");
  expect("s2", "s1");
}

}  // namespace
}  // namespace weir::test
