#include "base/text_escape.h"

#include <gtest/gtest.h>

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace {

using namespace std::string_literals;

TEST(EscapeTextTest, PrintableAsciiIsLeftAlone) {
  const std::string plain = "/vol1/Public/report 2024 (final).pdf ~!@#$%^&*";
  EXPECT_EQ(plain, EscapeText(plain));
  EXPECT_FALSE(NeedsEscape(plain));
}

TEST(EscapeTextTest, LineBreaksAndEscapeSequencesBecomeHex) {
  EXPECT_EQ("a\\x0ab", EscapeText("a\nb"));
  EXPECT_EQ("a\\x0db", EscapeText("a\rb"));
  EXPECT_EQ("\\x1b[31mred\\x1b[0m", EscapeText("\x1b[31mred\x1b[0m"));
  EXPECT_EQ("tab\\x09", EscapeText("tab\t"));
  EXPECT_EQ("\\x7f", EscapeText("\x7f"));
  EXPECT_EQ("nul\\x00here", EscapeText("nul\0here"s));
  EXPECT_TRUE(NeedsEscape("a\nb"));
}

TEST(EscapeTextTest, ABackslashIsText) {
  // Only what a terminal or a log reader would act on is escaped.
  EXPECT_EQ("C:\\dir", EscapeText("C:\\dir"));
}

TEST(EscapeTextTest, WellFormedUtf8PassesUnchanged) {
  const std::string text = "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xc2\xa0";
  EXPECT_EQ(text, EscapeText(text));
  EXPECT_FALSE(NeedsEscape(text));
}

TEST(EscapeTextTest, BrokenUtf8AndC1ControlsBecomeHex) {
  // A lone continuation byte, a cut sequence, an overlong "/", a surrogate,
  // a code point above U+10FFFF, and CSI in its UTF-8 form (U+009B).
  EXPECT_EQ("\\x80", EscapeText("\x80"));
  EXPECT_EQ("\\xe2\\x82", EscapeText("\xe2\x82"));
  EXPECT_EQ("\\xc0\\xaf", EscapeText("\xc0\xaf"));
  EXPECT_EQ("\\xed\\xa0\\x80", EscapeText("\xed\xa0\x80"));
  EXPECT_EQ("\\xf4\\x90\\x80\\x80", EscapeText("\xf4\x90\x80\x80"));
  EXPECT_EQ("\\xc2\\x9b31m", EscapeText("\xc2\x9b" "31m"));
  // A latin-1 name: each byte on its own.
  EXPECT_EQ("caf\\xe9", EscapeText("caf\xe9"));
}

TEST(EscapeTextTest, KeptBytesStay) {
  EXPECT_EQ("line one\nline\\x1b two\n",
            EscapeText("line one\nline\x1b two\n", "\n"));
  EXPECT_FALSE(NeedsEscape("a\nb\n", "\n"));
  EXPECT_TRUE(NeedsEscape("a\nb\r", "\n"));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
