// Tables of responses and of the servers that URLs name.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "cachemap/cache_map.h"
#include "support/bytes.h"
#include "upstream/connection.h"
#include "upstream/response.h"
#include "upstream/server_choice.h"

namespace weir::test {
namespace {

using std::string_literals::operator""s;

// What is read of a response: its version, length, offset and what follows its head; or what
// is logged about it.
std::string shown(const std::string& sent) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  EXPECT_EQ(write(ends[1], sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
  Connection connection{Fd(ends[0])};
  const Fd sender(ends[1]);
  Response response;
  testing::internal::CaptureStderr();
  const bool read =
      response.read_status(connection) == Outcome::kDone && response.read_headers(connection);
  const std::string errors = testing::internal::GetCapturedStderr();
  if (!read) return errors;
  const std::optional<std::uint64_t> length = response.content_length();
  return std::string(response.http11() ? "1.1" : "1.0")
      .append(" ")
      .append(length ? std::to_string(*length) : "none")
      .append(" from ")
      .append(std::to_string(response.position()))
      .append(" ")
      .append(response.rest);
}

TEST(Response, HeadersAreRead) {
  expect_rows(
      shown,
      {
          {"HTTP/1.1 200 OK\r\nA: b\r\n\r\n", "1.1 none from 0 "},
          {"HTTP/1.0 2\r\nA: b\r\n\r\nbody\r\n\r\n", "1.0 none from 0 body\r\n\r\n"},
          {"HTTP/1.1 206 P\r\nContent-Length: \t 3 \r\n\r\n206", "1.1 3 from 0 206"},
          {"HTTP/1.1 200\r\n Content-Length: 9\r\nContent-Length:010\r\n\r\n", "1.1 10 from 0 "},
          {"HTTP/1.1 200\r\nContent-Length: 3\r\nContent-Length: 5\r\n\r\n", "1.1 3 from 0 "},
          {"HTTP/1.1 200\r\nno colon\r\ncontent-length: 5\r\n\r\n", "1.1 none from 0 "},
          {"HTTP/1.1 200\r\nContent-Length: -1\r\n\r\n", "1.1 18446744073709551615 from 0 "},
          {"HTTP/1.1 200\nContent-Length: 1\r\nA:\nContent-Length: 2\n\r\n\r\n", "1.1 2 from 0 "},
          {"HTTP/1.1 200\r\nContent-Range: bytes 4096-8191/8192\r\n\r\n", "1.1 none from 4096 "},
          {"HTTP/1.1 200\r\nContent-Range: bytes 12\r\n\r\n", "1.1 none from 12 "},
          {"HTTP/1.1 200\r\nContent-Range: bytes -5\r\n\r\n", "1.1 none from 0 "},
          {"HTTP/1.1 200\r\nContent-Range: -bytes 5\r\n\r\n", "1.1 none from 5 "},
          {"HTTP/1.1 200\r\nContent-Range: 7-8/9\r\n\r\n", "1.1 none from 0 "},
          {"HTTP/1.1 200\r\nContent-Range: bytes\r\n\r\n", "1.1 none from 0 "},
          {"HTTP/1.1 200\r\ncontent-range: bytes 4-5/6\r\n\r\n", "1.1 none from 0 "},
      });
}

TEST(Response, OtherStatusLinesAreRejected) {
  expect_rows(shown,
              {
                  {"HTTP/1.1 200 OK", "Where is http state?\n"},
                  {"\r\nHTTP/1.1 200 OK\r\n", "Empty http state?\n"},
                  {"ICY 200 OK\r\n", "Not HTTP/1.x?\n"},
                  {"HTTP/1.2 200 OK\r\n", "Not HTTP/1.x?\n"},
                  {"HTTP/1.1\r\n", "HTTP response first_line: HTTP/1.1\n"},
                  {"HTTP/1.1  200 OK\r\n", "HTTP response first_line: HTTP/1.1  200 OK\n"},
                  {"HTTP/1.0 302 Found\r\nA", "HTTP response first_line: HTTP/1.0 302 Found\n"},
              });
}

TEST(ServerChoice, PlaceholdersAreReplacedByCaches) {
  chunkCacheMap = new CacheMap;
  playlistCacheMap = new CacheMap;
  chunkCacheMap->setMap("c:8080");
  const struct {
    std::string playlists, url, server;
  } rows[] = {
      {"", "http://@", "c:8080/"},
      {"", "http://@:81/x", "@:81/x"},
      {"", "https://o/x", "o:80/x"},
      {"p:81", "http://~/x", "p:81/x"},
      {"p:81:82", "http://~/x", "p:81/x"},
      {"p", "http://~/x", "p:0/x"},
      {"12", "http://~/x", "12:12/x"},
      {"", "http://~/x", "no valid ring found\nExcep: No playlist cache server found\n"},
      {"", "ftp://o", "Excep: ftp\n"},
  };
  for (const auto& [playlists, url, server] : rows) {
    playlistCacheMap->setMap(playlists);
    ServerChoice choice;
    testing::internal::CaptureStderr();
    const bool chosen = choice.choose(url);
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(chosen ? choice.host() + ":" + std::to_string(choice.port()) + choice.path() : errors,
              server);
    EXPECT_EQ(choice.from_cache_map(), chosen && url.find_first_of("@~") == 7 && url[8] != ':');
  }
  delete chunkCacheMap;
  delete playlistCacheMap;
}

}  // namespace
}  // namespace weir::test
