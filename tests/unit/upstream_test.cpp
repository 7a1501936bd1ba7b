// Tables of responses, of cache maps and of the servers that URLs name.
#include <gtest/gtest.h>

#include "base/text.h"
#include "cachemap/cache_map.h"
#include "support/bytes.h"
#include "upstream/connection.h"
#include "upstream/response.h"
#include "upstream/server_choice.h"

namespace weir::test {

using std::string_literals::operator""s;

// What is read of a response, each "|" of which is a line end: its version, length, offset and
// what follows its head; or what is logged about it, with "again: " if it counts as none.
static std::string shown_response(const std::string& text) {
  Connection connection{Fd(received(replaced(text, "|", "\r\n")))};
  Response response;
  testing::internal::CaptureStderr();
  const Outcome status = response.read_status(connection);
  const bool read = status == Outcome::kDone && response.read_headers(connection);
  const std::string errors = testing::internal::GetCapturedStderr();
  if (!read) return (status == Outcome::kNoAnswer ? "again: "s : ""s) + errors;
  const std::optional<std::uint64_t> length = response.content_length();
  return (response.http11() ? "1.1 "s : "1.0 "s) + (length ? std::to_string(*length) : "none") +
         " from " + std::to_string(response.position()) + " " + response.rest;
}

TEST(Response, HeadersAreRead) {
  const auto shown = [](const std::string& rest) {
    return shown_response("HTTP/1.1 200 OK" + rest);
  };
  expect_rows(shown, {{"|A: b||", "1.1 none from 0 "},
                      {"|A: b|||| 3||", "1.1 none from 0 \r\n\r\n 3\r\n\r\n"},
                      {"|Content-Length: \t 3 ||", "1.1 3 from 0 "},
                      {"| Content-Length: 9|Content-Length:010||", "1.1 10 from 0 "},
                      {"|Content-Length: 3|Content-Length: 5||", "1.1 3 from 0 "},
                      {"|no colon|content-length: 5||", "1.1 none from 0 "},
                      {"|Content-Length: -1||", "1.1 18446744073709551615 from 0 "},
                      {"\nContent-Length: 1|A:\nContent-Length: 2\n||", "1.1 2 from 0 "},
                      {"|Content-Range: bytes 4096-8191/8192||", "1.1 none from 4096 "},
                      {"|Content-Range: bytes 12||", "1.1 none from 12 "},
                      {"|Content-Range: bytes -5||", "1.1 none from 0 "},
                      {"|Content-Range: -bytes 5||", "1.1 none from 5 "},
                      {"|Content-Range: 7-8/9||", "1.1 none from 0 "}});
}

TEST(Response, OtherStatusLinesAreRejected) {
  const std::string longest = "HTTP/1.1 " + std::string(4085, '4');  // with its end, one read
  expect_rows(shown_response,
              {{"HTTP/1.0 2|A: b||206", "1.0 none from 0 206"},
               {"HTTP/1.1 200 OK", "again: Where is http state?\n"},
               {"|HTTP/1.1 200 OK|", "again: Empty http state?\n"},
               {"ICY 200 OK|", "again: Not HTTP/1.x?\n"},
               {"HTTP/1.2 200 OK|", "again: Not HTTP/1.x?\n"},
               {"HTTP/1.1|", "HTTP response first_line: HTTP/1.1\n"},
               {"HTTP/1.1  200 OK|", "HTTP response first_line: HTTP/1.1  200 OK\n"},
               {longest + "|", "HTTP response first_line: " + longest + "\n"},
               {longest + "4|", "again: Where is http state?\n"},
               {"HTTP/1.0 302 Found|A", "HTTP response first_line: HTTP/1.0 302 Found\n"}});
}

// For the map of playlists, a space and a URL: the server and path that are chosen, with "!" if
// the server is one of a map.
TEST(ServerChoice, PlaceholdersAreReplacedByCaches) {
  chunkCacheMap = new CacheMap;
  playlistCacheMap = new CacheMap;
  chunkCacheMap->setMap("c:8080");
  const auto shown = [](const std::string& text) {
    const size_t space = text.find(' ');
    playlistCacheMap->setMap(text.substr(0, space));
    ServerChoice choice;
    testing::internal::CaptureStderr();
    const bool chosen = choice.choose(text.substr(space + 1));
    const std::string errors = testing::internal::GetCapturedStderr();
    if (!chosen) return errors;
    return (choice.from_cache_map() ? "!" : "") + choice.host() + ":" +
           std::to_string(choice.port()) + choice.path();
  };
  expect_rows(shown,
              {{" http://@", "!c:8080/"},
               {" http://@:81/x", "@:81/x"},
               {"p:82 https://o/x", "o:80/x"},
               {"p:81 http://~/x", "!p:81/x"},
               {"p:81:82 http://~/x", "!p:81/x"},
               {"p http://~/x", "!p:0/x"},
               {"12 http://~/x", "!12:12/x"},
               {" http://~/x", "no valid ring found\nExcep: No playlist cache server found\n"},
               {" a\0b://o"s, "Excep: a\n"}});
  delete chunkCacheMap;
  delete playlistCacheMap;
}

// Expected servers were computed with an independent CRC-32: bits 16-30 of the first two path
// segments, modulo the number of live servers.
TEST(CacheMap, FirstTwoSegmentsOfThePathChooseTheServer) {
  const auto choice = [](const std::string& path) {
    CacheMap map;
    map.setMap("s0,s1,s2,s3,s4,s5,s6");
    return map.selectServer(path);
  };
  expect_words(choice,
               "/abc/def/x.m3u8  /_live/abc/def/x.ts  /abc//def  /abc/  /abc  /  /a  /_live\n"
               "s0               s0                   s6         s6     s3    s0  s4 s0\n"
               "/vod/film?x=1  /vod?x=/a/b  /vod/f?/b  /_live/ch1/720p/1.ts  /ch286472/hd/1\n"
               "s6             s2           s6         s5                    s0\n"
               "/a/_live/b/c  /_lives/x/y  /_live//x/y  /_live/  /\xE9/x/y  x/a/b\n"
               "s4            s1           s2           s0       s1         s0\n");
  expect_rows(choice, {{"/a\0b/x"s, "s6"}, {"/a\0"s, "s6"}});
}

// The map, and after "!" the servers that die one after the other, or "=" and a new map.
TEST(CacheMap, LaterRingsAreUsedWhenAllEarlierServersAreDead) {
  const auto choice = [](const std::string& text) {
    CacheMap map;
    const std::string changes = "=" + text;
    for (const std::string_view part : split(changes, '!')) {
      if (part.starts_with('='))
        map.setMap(std::string(part.substr(1)));
      else
        map.invalidateServer(std::string(part));
    }
    return map.selectServer("/x") + ".";
  };
  expect_words(choice,
               "!  ;;a  a;b  a;b!a  a;b!a!a!c  a,b;c!b  a,b;c!a!b  a;b,a;c!a\n"
               ".  a.   a.   b.     b.         a.       c.         b.\n"
               "a;b,a;c!b!a  a,a;b!a  a;b!b!a  ,;b  a!a  a!a!=a  a!=;b\n"
               "c.           b.       .        .    .    a.      b.\n");
  expect_rows(choice, {{" a!a", " a."}});
}

}  // namespace weir::test
