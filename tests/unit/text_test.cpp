// Tables of the functions that take texts apart: pieces, numbers, escapes, URLs, request lines.
#include "base/text.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "server/request_line.h"
#include "support/bytes.h"
#include "upstream/url.h"

namespace weir::test {
namespace {

using std::string_literals::operator""s;

TEST(Text, SplitKeepsEmptyPiecesExceptTheLast) {
  const auto shown = [](const std::string& text) {
    std::string all;
    for (const std::string_view piece : split(text, ',')) all.append("<").append(piece);
    return all;
  };
  expect_rows(shown, {{"", ""}, {",", "<"}, {"a", "<a"}, {"a\0,"s, "<a\0"s}, {",a,,b,", "<<a<<b"}});
}

TEST(Text, TrimRemovesAllWhiteSpace) {
  const auto shown = [](const std::string& text) {
    return std::string(trim(text)).append("|").append(ltrim(text)).append("|").append(rtrim(text));
  };
  expect_rows(
      shown,
      {{" a b ", "a b|a b | a b"}, {"\r\n\t\v\f", "||"}, {"\xA0\0"s, "\xA0\0|\xA0\0|\xA0\0"s}});
}

TEST(Text, LeadingNumberReadsAsFarAsThereAreDecimalDigits) {
  const auto shown = [](const std::string& text) { return std::to_string(leading_number(text)); };
  expect_rows(shown, {{"", "0"},
                      {"x1", "0"},
                      {"007", "7"},
                      {"010", "10"},
                      {"0x10", "0"},
                      {" \t+5 6", "5"},
                      {"-3-4", "-3"},
                      {"- 3", "0"},
                      {"1e3", "1"},
                      {"4294967298", "4294967298"},
                      {"9223372036854775808", "9223372036854775807"},
                      {"-9223372036854775809", "-9223372036854775808"}});
}

TEST(Text, MalformedEscapesAreDecodedAsFarAsTheyAreHexadecimal) {
  const auto decoded = [](const std::string& text) {
    std::string copy = text;
    url_decode(copy);
    return copy;
  };
  expect_rows(decoded, {{"a+b%2bc%20", "a b+c "},
                        {"%00%7F%80%fF", "\0\x7F\x80\xFF"s},
                        {"%2525", "%25"},
                        {"%zzb", "\0b"s},
                        {"%4", "\4"},
                        {"%4zb", "\4b"},
                        {"%", "\0"s},
                        {"%%41", "\0001"s},
                        {"%-1", "\xFF"}});
}

// "HOST:PORT PATH", with "=" if the port was given; "no" and the scheme of other URLs.
std::string shown_url(const std::string& text) {
  const std::optional<Url> url = parse_url(text);
  if (!url) return "no " + std::string(scheme_of(text));
  return url->host + (url->explicit_port ? "=" : ":") + std::to_string(url->port) + " " + url->path;
}

TEST(Url, PartsOfAUrl) {
  expect_rows(shown_url, {
                             {"http://o", "o:80 /"},
                             {"https://o/a:b", "o:80 /a:b"},
                             {"http://o:81", "o=81 /"},
                             {"http://o:81/a:b?c=d:e", "o=81 /a:b?c=d:e"},
                             {"https://@:443//", "@=443 //"},
                             {"http://~/", "~:80 /"},
                             {"http://", ":80 /"},
                             {"http://o:", "o=0 /"},
                             {"http://:x/", "=0 /"},
                             {"http://o:1:2/", "o=1 /"},
                             {"http://o?a/b", "o?a:80 /b"},
                         });
}

TEST(Url, SchemesOtherThanHttpAreRejected) {
  expect_rows(shown_url, {{"", "no "},
                          {"/a", "no /a"},
                          {"http", "no http"},
                          {"http:/o", "no http:/o"},
                          {"ftp://o", "no ftp"},
                          {"HTTP://o", "no HTTP"},
                          {"://o", "no "},
                          {" http://o", "no  http"}});
}

// "METHOD PATH", "<KEY=VALUE" for each parameter; "no" for other lines.
std::string shown_request(const std::string& line) {
  const std::optional<RequestLine> request = parse_request_line(line);
  if (!request) return "no";
  std::string shown = request->method == Method::kGet    ? "GET "
                      : request->method == Method::kHead ? "HEAD "
                                                         : "other ";
  shown += request->path;
  for (const auto& [key, value] : request->params)
    shown.append("<").append(key).append("=").append(value);
  return shown;
}

TEST(RequestLine, PartsOfARequest) {
  expect_rows(shown_request, {
                                 {"GET / HTTP/1.1", "GET /"},
                                 {"HEAD /a", "HEAD /a"},
                                 {"get /stats%2Ejson?", "other /stats.json"},
                                 {"POST /a?b c", "other /a<b="},
                                 {"GET  /a", "GET "},
                                 {" GET /a", "other GET"},
                                 {"GET /%4?/%zz?a%20b", "GET /\4</%zz?a%20b="},
                                 {"GET /a+b\tc\0"s, "GET /a b\tc\0"s},
                                 {"GET ?a=b=%2Cc+;&x&a=d&e", "GET <a=b=,c ;<x&a=d<e="},
                                 {"GET ?%61=&=c&d=", "GET <%61=<=c<d="},
                                 {"GET ?a=%", "GET <a=\0"s},
                             });
}

TEST(RequestLine, LinesOfFewerThanTwoWordsAreRejected) {
  expect_rows(shown_request, {{"", "no"}, {"GET", "no"}, {"GET ", "no"}, {"/stats.json", "no"}});
}

TEST(RequestLine, FirstParameterOfAKeyCounts) {
  const auto request = parse_request_line("GET ?a=1&a=2&b");
  EXPECT_EQ(*request->get_param("a") + *request->get_param("b"), "1");
  EXPECT_EQ(request->get_param("c"), nullptr);
}

// The lines that readline() makes of what a client sent before it closed.
std::string shown_lines(const std::string& sent) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  EXPECT_EQ(write(ends[1], sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
  close(ends[1]);
  std::string shown;
  for (std::string line; !(line = readline(ends[0])).empty();) shown += line + "|";
  close(ends[0]);
  return shown;
}

TEST(RequestLine, LinesEndAtALineFeedOrAfter4095Bytes) {
  const std::string full(4095, 'a'), less(4094, 'a');
  expect_rows(shown_lines, {{"a\r\nb\nc\r\r\r\nd", "a|b|c|d|"},
                            {"\ra\0b\n\r\nc"s, "a\0b|"s},
                            {full + "b\n", full + "|b|"},
                            {less + "\r\nb", less + "|"},
                            {less + "\nb", less + "|b|"}});
}

}  // namespace
}  // namespace weir::test
