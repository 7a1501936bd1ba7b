// Tables of the functions that take texts apart: pieces, numbers, escapes, URLs, request lines.
#include "base/text.h"

#include <gtest/gtest.h>

#include "base/fd.h"
#include "server/request_line.h"
#include "support/bytes.h"
#include "upstream/url.h"

namespace weir::test {

using std::string_literals::operator""s;

TEST(Text, SplitKeepsEmptyPiecesExceptTheLast) {
  const auto shown = [](const std::string& text) {
    std::string all;
    for (const std::string_view piece : split(text, ',')) all.append("<").append(piece);
    return all;
  };
  expect_rows(shown, {{"", ""}, {",", "<"}, {"a", "<a"}, {"a\0,"s, "<a\0"s}, {",a,,b,", "<<a<<b"}});
}

TEST(Text, LeadingNumberReadsAsFarAsThereAreDecimalDigits) {
  const auto shown = [](const std::string& text) { return std::to_string(leading_number(text)); };
  expect_words(shown,
               "x1  007  010  0x10  1e3  -3-4  9223372036854775808  -9223372036854775809\n"
               "0   7    10   0     1    -3    9223372036854775807  -9223372036854775808\n");
  expect_rows(shown, {{"", "0"}, {" \t+5 6", "5"}, {"- 3", "0"}});
}

TEST(Text, MalformedEscapesAreDecodedAsFarAsTheyAreHexadecimal) {
  const auto decoded = [](const std::string& text) {
    std::string copy = text;
    url_decode(copy);
    return copy;
  };
  expect_words(decoded,
               "%2525  %4  %4zb  %-1  %2B%5a\n"
               "%25    \4  \4b   \xFF +Z\n");
  expect_rows(decoded, {{"a+b%20%%41", "a b \0001"s}, {"%00%7F%zzb%", "\0\x7F\0b\0"s}});
}

// "HOST:PORT/PATH", with "=" if the port was given; "no:" and the scheme of other URLs.
static std::string shown_url(const std::string& text) {
  const std::optional<Url> url = parse_url(text);
  if (!url) return "no:" + std::string(scheme_of(text));
  return url->host + (url->explicit_port ? "=" : ":") + std::to_string(url->port) + url->path;
}

TEST(Url, PartsOfAUrl) {
  expect_words(shown_url,
               "http://o  https://o/a:b  http://o:81  http://o:81/a:b?c=d:e  http://\n"
               "o:80/     o:80/a:b       o=81/        o=81/a:b?c=d:e         :80/\n"
               "http://@:443//  http://o:  http://:x/  http://o:1:2/  http://o?a/b\n"
               "@=443//         o=0/       =0/         o=1/           o?a:80/b\n");
}

TEST(Url, SchemesOtherThanHttpAreRejected) {
  expect_words(shown_url,
               "/a     http     http:/o     ftp://o  HTTP://o  ://o\n"
               "no:/a  no:http  no:http:/o  no:ftp   no:HTTP   no:\n");
  expect_rows(shown_url, {{"", "no:"}, {" http://o", "no: http"}});
}

// "METHOD PATH", "<KEY=VALUE" for each parameter; "no" for other lines.
static std::string shown_request(const std::string& line) {
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
  expect_rows(shown_request, {{"HEAD /a", "HEAD /a"},
                              {"get /stats%2Ejson?", "other /stats.json"},
                              {"POST /a?b c", "other /a<b="},
                              {"GET  /a", "GET "},
                              {" GET /a", "other GET"},
                              {"GET /%4?/%zz?a%20b", "GET /\4</%zz?a%20b="},
                              {"GET /a+b\tc\0"s, "GET /a b\tc\0"s},
                              {"GET ?a=b=%2Cc+;&x&a=d&e", "GET <a=b=,c ;<x&a=d<e="},
                              {"GET ?%61=&=c&d=", "GET <%61=<=c<d="},
                              {"GET ?a=%", "GET <a=\0"s},
                              {"GET ", "no"},
                              {"/stats.json", "no"}});
}

TEST(RequestLine, LinesEndAtALineFeedOrAfter4095Bytes) {
  const auto shown = [](const std::string& sent) {
    const Fd client(received(sent));
    std::string all;
    for (std::string line; !(line = readline(client.get())).empty();) all += line + "|";
    return all;
  };
  const std::string full(4095, 'a'), less(4094, 'a');
  expect_rows(shown, {{"a\r\nb\nc\r\r\r\nd", "a|b|c|d|"},
                      {"\ra\0b\n\r\nc"s, "a\0b|"s},
                      {full + "b\n", full + "|b|"},
                      {less + "\r\nb", less + "|"},
                      {less + "\nb", less + "|b|"}});
}

}  // namespace weir::test
