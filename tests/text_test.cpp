#include "base/text.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace weir::test {
namespace {

using std::string_literals::operator""s;

TEST(Text, SplitKeepsEmptyPiecesButAddsNoneAfterTheLastDelimiter) {
  const struct {
    std::string text;
    std::vector<std::string_view> pieces;
  } cases[] = {{"", {}},
               {" ", {""}},
               {"a ", {"a"}},
               {" a", {"", "a"}},
               {"a  b", {"a", "", "b"}},
               {"a b  ", {"a", "b", ""}},
               {"GET /x\tHTTP/1.1", {"GET", "/x\tHTTP/1.1"}},
               {"a\0b c\0"s, {{"a\0b", 3}, {"c\0", 2}}}};
  for (const auto& c : cases) EXPECT_EQ(split(c.text, ' '), c.pieces) << "'" << c.text << "'";
}

TEST(Text, TrimTakesAllWhiteSpaceAtTheEndsAndNothingElse) {
  // The last one has bytes that are negative as a char; the value of EOF is among them.
  const struct {
    std::string text, left, right, both;
  } cases[] = {{"", "", "", ""},
               {" \t\r\n\v\f", "", "", ""},
               {"\r\n a \tb\v\f", "a \tb\v\f", "\r\n a \tb", "a \tb"},
               {"\0 a \0"s, "\0 a \0"s, "\0 a \0"s, "\0 a \0"s},
               {" \xA0\xFF ", "\xA0\xFF ", " \xA0\xFF", "\xA0\xFF"}};
  for (const auto& c : cases) {
    EXPECT_EQ(ltrim(c.text), c.left);
    EXPECT_EQ(rtrim(c.text), c.right);
    EXPECT_EQ(trim(c.text), c.both);
  }
}

TEST(Text, UrlDecodeReadsMalformedEscapesAsFarAsTheyGo) {
  const struct {
    std::string text, decoded;
  } cases[] = {{"live%2Fa+b%2bc", "live/a b+c"},
               {"%00%7F%80%fF", "\0\x7F\x80\xFF"s},
               {"%2525", "%25"},  // once, not again
               {"a%", "a\0"s},
               {"a%4", "a\x04"},
               {"%zzb", "\0b"s},
               {"%4zb", "\x04"s + "b"},
               {"%%41", "\0"s + "1"},  // two bytes belong to "%", whatever they are
               {"%-1", "\xFF"},
               {"a\0%41"s, "a\0A"s}};
  for (const auto& c : cases) {
    std::string text = c.text;
    url_decode(text);
    EXPECT_EQ(text, c.decoded) << c.text;
  }
}

}  // namespace
}  // namespace weir::test
