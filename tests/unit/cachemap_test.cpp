#include <gtest/gtest.h>

#include <span>

#include "base/text.h"
#include "cachemap/cache_map.h"
#include "support/bytes.h"

namespace weir::test {
namespace {

using std::string_literals::operator""s;

// Expected servers were computed with an independent CRC-32: bits 16-30 of the first two path
// segments, modulo the number of live servers.
TEST(CacheMap, FirstTwoSegmentsOfThePathChooseTheServer) {
  const auto choice = [](const std::string& path) {
    CacheMap map;
    map.setMap("s0,s1,s2,s3,s4,s5,s6");
    return map.selectServer(path);
  };
  expect_rows(choice, {{"/abc/def/x.m3u8", "s0"},
                       {"/_live/abc/def/x.ts", "s0"},
                       {"/abc//def", "s6"},
                       {"/abc/", "s6"},
                       {"/abc", "s3"},
                       {"/vod/film?x=1", "s6"},
                       {"/vod?x=/a/b", "s2"},
                       {"/vod/f?/b", "s6"},
                       {"/_live/ch1/720p/seg1.ts", "s5"},
                       {"/_live/ch1/720p/seg2.ts", "s5"},
                       {"/ch286472/hd/1.ts", "s0"},
                       {"/a/_live/b/c", "s4"},
                       {"/_lives/x/y", "s1"},
                       {"/_live//x/y", "s2"},
                       {"/_live/", "s0"},
                       {"/", "s0"},
                       {"/\xE9/x/y", "s1"},
                       {"/a\0b/x"s, "s6"},
                       {"/a\0"s, "s6"},
                       {"/a", "s4"},
                       {"/_live", "s0"},
                       {"x/a/b", "s0"}});
}

// The map, and after "!" the servers that die one after the other.
TEST(CacheMap, LaterRingsAreUsedWhenAllEarlierServersAreDead) {
  const auto choice = [](const std::string& text) {
    CacheMap map;
    const auto parts = split(text, '!');
    map.setMap(std::string(parts[0]));
    for (const std::string_view server : std::span(parts).subspan(1))
      map.invalidateServer(std::string(server));
    return map.selectServer("/x");
  };
  expect_rows(choice, {{"!", ""},
                       {";;a", "a"},
                       {"a;b", "a"},
                       {"a;b!a", "b"},
                       {"a;b!a!a!c", "b"},
                       {"a,b;c!b", "a"},
                       {"a,b;c!a!b", "c"},
                       {"a;b,a;c!a", "b"},
                       {"a;b,a;c!b!a", "c"},
                       {"a,a;b!a", "b"},
                       {"a;b!b!a", ""},
                       {" a!a", " a"},
                       {",;b", ""}});
}

TEST(CacheMap, OnlyANewMapRevivesAServer) {
  CacheMap map;
  map.setMap("a");
  map.invalidateServer("a");
  EXPECT_EQ(map.selectServer("/"), "");
  map.setMap("a");
  EXPECT_EQ(map.selectServer("/"), "a");
}

}  // namespace
}  // namespace weir::test
