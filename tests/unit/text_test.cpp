// Tables of the functions that take texts apart: pieces, numbers, escapes, URLs, request lines.
#include "base/text.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "server/request_line.h"
#include "upstream/url.h"

namespace weir::test {
namespace {

using std::string_literals::operator""s;
using Strings = std::vector<std::string_view>;

TEST(Text, SplitKeepsEmptyPiecesExceptTheLast) {
  EXPECT_EQ(split("", ','), Strings());
  EXPECT_EQ(split(",", ','), Strings({""}));
  EXPECT_EQ(split("a", ','), Strings({"a"}));
  EXPECT_EQ(split(",a,,b,", ','), Strings({"", "a", "", "b"}));
}

TEST(Text, TrimRemovesAllWhiteSpace) {
  EXPECT_EQ(trim(" \t\n\v\f\ra b\r\f\v\n\t "), "a b");
  EXPECT_EQ(ltrim(" a "), "a ");
  EXPECT_EQ(rtrim(" a "), " a");
  EXPECT_EQ(trim(" \r\n"), "");
  EXPECT_EQ(trim("\xA0\0"s), "\xA0\0"s);
}

TEST(Text, LeadingNumberReadsAsFarAsThereAreDecimalDigits) {
  const std::pair<const char*, std::int64_t> rows[] = {
      {"", 0},      {"x1", 0},
      {"007", 7},   {"010", 10},
      {"0x10", 0},  {" \t+5 6", 5},
      {"-3-4", -3}, {"4294967298", 4294967298},
      {"- 3", 0},   {"9223372036854775808", INT64_MAX},
      {"1e3", 1},   {"-99999999999999999999", INT64_MIN},
  };
  for (const auto& [text, number] : rows) EXPECT_EQ(leading_number(text), number) << text;
}

TEST(Text, MalformedEscapesAreDecodedAsFarAsTheyAreHexadecimal) {
  const std::pair<std::string, std::string> rows[] = {
      {"a+b%2bc%20", "a b+c "},
      {"%00%7F%80%fF", "\0\x7F\x80\xFF"s},
      {"%2525", "%25"},
      {"%zzb", "\0b"s},
      {"%4", "\4"},
      {"%4zb", "\4b"},
      {"%", "\0"s},
      {"%%41", "\0001"s},
      {"%-1", "\xFF"},
  };
  for (auto [text, decoded] : rows) {
    const std::string sent = text;
    url_decode(text);
    EXPECT_EQ(text, decoded) << sent;
  }
}

TEST(Url, PartsOfAUrl) {
  const struct {
    const char *url, *host;
    int port;
    const char* path;
    bool explicit_port;
  } rows[] = {
      {"http://o", "o", 80, "/", false},
      {"https://o/a:b", "o", 80, "/a:b", false},
      {"http://o:81", "o", 81, "/", true},
      {"http://o:81/a:b?c=d:e", "o", 81, "/a:b?c=d:e", true},
      {"https://@:443//", "@", 443, "//", true},
      {"http://~/", "~", 80, "/", false},
      {"http://", "", 80, "/", false},
      {"http://o:", "o", 0, "/", true},
      {"http://:x/", "", 0, "/", true},
      {"http://o:1:2/", "o", 1, "/", true},
      {"http://o?a/b", "o?a", 80, "/b", false},
  };
  for (const auto& row : rows) {
    const std::optional<Url> url = parse_url(row.url);
    ASSERT_TRUE(url) << row.url;
    EXPECT_EQ(url->host, row.host) << row.url;
    EXPECT_EQ(url->port, row.port) << row.url;
    EXPECT_EQ(url->path, row.path) << row.url;
    EXPECT_EQ(url->explicit_port, row.explicit_port) << row.url;
  }
}

TEST(Url, SchemesOtherThanHttpAreRejected) {
  const std::pair<const char*, const char*> rows[] = {
      {"", ""},           {"/a", "/a"},         {"http", "http"}, {"http:/o", "http:/o"},
      {"ftp://o", "ftp"}, {"HTTP://o", "HTTP"}, {"://o", ""},     {" http://o", " http"},
  };
  for (const auto& [url, scheme] : rows) {
    EXPECT_FALSE(parse_url(url)) << url;
    EXPECT_EQ(scheme_of(url), scheme);
  }
}

using Params = std::vector<std::pair<std::string, std::string>>;

TEST(RequestLine, PartsOfARequest) {
  const struct {
    std::string line;
    Method method;
    std::string path;
    Params params;
  } rows[] = {
      {"GET / HTTP/1.1", Method::kGet, "/", {}},
      {"HEAD /a", Method::kHead, "/a", {}},
      {"get /stats%2Ejson?", Method::kOther, "/stats.json", {}},
      {"POST /a?b c", Method::kOther, "/a", {{"b", ""}}},
      {"GET  /a", Method::kGet, "", {}},
      {" GET /a", Method::kOther, "GET", {}},
      {"GET /%4?/%zz?a%20b", Method::kGet, "/\4", {{"/%zz?a%20b", ""}}},
      {"GET /a+b\tc\0"s, Method::kGet, "/a b\tc\0"s, {}},
      {"GET ?a=b=%2Cc+;&x&a=d&e", Method::kGet, "", {{"a", "b=,c ;"}, {"x&a", "d"}, {"e", ""}}},
      {"GET ?%61=&=c&d=", Method::kGet, "", {{"%61", ""}, {"", "c"}, {"d", ""}}},
      {"GET ?a=%", Method::kGet, "", {{"a", "\0"s}}},
  };
  for (const auto& row : rows) {
    const std::optional<RequestLine> request = parse_request_line(row.line);
    ASSERT_TRUE(request) << row.line;
    EXPECT_EQ(request->method, row.method) << row.line;
    EXPECT_EQ(request->path, row.path) << row.line;
    EXPECT_EQ(request->params, row.params) << row.line;
  }
}

TEST(RequestLine, LinesOfFewerThanTwoWordsAreRejected) {
  for (const char* line : {"", "GET", "GET ", "/stats.json"}) {
    EXPECT_FALSE(parse_request_line(line)) << line;
  }
}

TEST(RequestLine, FirstParameterOfAKeyCounts) {
  const auto request = parse_request_line("GET ?a=1&a=2&b");
  EXPECT_EQ(*request->get_param("a"), "1");
  EXPECT_EQ(*request->get_param("b"), "");
  EXPECT_EQ(request->get_param("c"), nullptr);
}

// The lines that readline() makes of what a client sent before it closed.
std::vector<std::string> lines_of(const std::string& sent) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  EXPECT_EQ(write(ends[1], sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
  close(ends[1]);
  std::vector<std::string> lines;
  do {
    lines.push_back(readline(ends[0]));
  } while (!lines.back().empty());
  close(ends[0]);
  return lines;
}

TEST(RequestLine, LinesEndAtALineFeedOrAfter4095Bytes) {
  const std::string full(4095, 'a');
  EXPECT_EQ(lines_of("a\r\nb\nc\r\r\r\nd"), std::vector<std::string>({"a", "b", "c", "d", ""}));
  EXPECT_EQ(lines_of("\ra\0b\n\r\nc"s), std::vector<std::string>({"a\0b"s, ""}));
  EXPECT_EQ(lines_of(full + "b\n"), std::vector<std::string>({full, "b", ""}));
  EXPECT_EQ(lines_of(full.substr(1) + "\r\nb"), std::vector<std::string>({full.substr(1), ""}));
}

}  // namespace
}  // namespace weir::test
