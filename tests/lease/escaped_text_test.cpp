#include "orvane/escaped_text.hpp"

#include <gtest/gtest.h>

#include <string>

namespace orvane::test {
namespace {

TEST(EscapedText, IsOneWordWithoutControlCharacters) {
  EXPECT_EQ(escaped(""), "");
  EXPECT_EQ(escaped("app.log"), "app.log");
  EXPECT_EQ(escaped("daily backup, 50%"), "daily%20backup,%2050%25");
  EXPECT_EQ(escaped(std::string("\0\t\n\x1f !~\x7f", 8)), "%00%09%0A%1F%20!~%7F");
}

TEST(EscapedText, KeepsBytesFrom128On) {
  EXPECT_EQ(escaped("\xc3\xa4\x80\xff"), "\xc3\xa4\x80\xff");
  EXPECT_EQ(unescaped("\xc3\xa4\x80\xff"), "\xc3\xa4\x80\xff");
}

TEST(EscapedText, IsReadBackForEveryByte) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
    EXPECT_EQ(unescaped(escaped(all)), all) << byte;
  }
  EXPECT_EQ(unescaped(""), "");
  EXPECT_EQ(unescaped("daily%20backup,%2050%25"), "daily backup, 50%");
}

class NoEscapedText : public testing::TestWithParam<const char*> {};

TEST_P(NoEscapedText, IsNotRead) {
  EXPECT_EQ(unescaped(GetParam()), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Word, NoEscapedText,
                         testing::Values(" ", "a b", "a\n", "\x7f", "%", "%2", "a%2", "%%25", "%2 ",
                                         "% 2", "%0a", "%7f", "%41", "%80", "%FF", "%2G", "%G0",
                                         "%21"));

}  // namespace
}  // namespace orvane::test
