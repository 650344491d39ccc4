#include "platform/printable.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/http/shown_link.h"
#include "platform/log.h"
#include "tests/support/log_capture.h"

namespace orbamira {
namespace {

TEST(PrintableTest, PrintableLeavesTextInAnyLanguageAsItIs) {
  for (const char* text : {"", "plain text ~", "\u00a0", "Grün", "中文", "עברית", "\U0001F600", "\U0010FFFF"}) {
    EXPECT_EQ(Printable(text), text);
  }
}

TEST(PrintableTest, PrintableShowsControlCharactersOfAscii) {
  EXPECT_EQ(Printable("a\nb\tc\x7f\x1b[m"), R"(a\012b\011c\177\033[m)");
  EXPECT_EQ(Printable(std::string_view("\0x", 2)), R"(\000x)");
}

TEST(PrintableTest, PrintableShowsControlCharactersOfUnicode) {
  EXPECT_EQ(Printable("\u0080\u009b\u009f"), R"(\302\200\302\233\302\237)");
  for (const char* text : {"\u200e", "\u200f", "\u2028", "\u2029", "\u202a", "\u202e", "\u2066", "\u2069"}) {
    EXPECT_EQ(Printable(text).find(text), std::string::npos);
    EXPECT_EQ(Printable(text).size(), 12U);
  }
  EXPECT_EQ(Printable("\u061c"), R"(\330\234)");
  for (const char* text : {"\u200d", "\u2010", "\u2027", "\u202f", "\u2065", "\u206a"}) {
    EXPECT_EQ(Printable(text), text);
  }
}

TEST(PrintableTest, PrintableShowsBytesThatAreNoUtf8) {
  EXPECT_EQ(Printable("\x9b[m"), R"(\233[m)");
  EXPECT_EQ(Printable("a\xc3"), R"(a\303)");
  EXPECT_EQ(Printable("\xc0\x8a"), R"(\300\212)");                  // a newline in too many bytes
  EXPECT_EQ(Printable("\xe0\x82\x9b"), R"(\340\202\233)");          // U+009B in too many bytes
  EXPECT_EQ(Printable("\xed\xa0\x80"), R"(\355\240\200)");          // half a pair
  EXPECT_EQ(Printable("\xf4\x90\x80\x80"), R"(\364\220\200\200)");  // behind the last character
}

TEST(LogTest, AMessageIsOneLineWhateverItQuotes) {
  test::LogCapture::Clear();
  ORBAMIRA_LOG_ERROR("quoted: %s", "x\nfile.cpp:1 forged\u009b");
  EXPECT_EQ(test::LogCapture::Lines(),
            std::vector{test::ErrorLine("printable_test.cpp", R"(quoted: x\012file.cpp:1 forged\302\233)")});
}

TEST(ShownLinkTest, ShownLinkLeavesOutUserAndPassword) {
  EXPECT_EQ(ShownLink("http://u:PW@host/pack.opk?x=1"), "http://host/pack.opk?x=1");
  EXPECT_EQ(ShownLink("https://u@host"), "https://host");
  EXPECT_EQ(ShownLink("http://u:P@W@host:80/"), "http://host:80/");
  EXPECT_EQ(ShownLink("http:/u:PW@host/"), "http:/host/");
  EXPECT_EQ(ShownLink("http:///u:PW@host/"), "http:///host/");
  EXPECT_EQ(ShownLink("u:PW@host/pack"), "host/pack");
  EXPECT_EQ(ShownLink("//u:PW@host/pack"), "//host/pack");
}

TEST(ShownLinkTest, ShownLinkLeavesOutAPasswordWithALetterThatEndsTheHost) {
  for (const char* letter : {"/", "?", "#", "@/", "/@"}) {
    EXPECT_EQ(ShownLink(std::string("http://u:P") + letter + "PW@host/pack"), "http://host/pack");
  }
}

TEST(ShownLinkTest, ShownLinkLeavesAnyOtherTextAsItIs) {
  for (const char* link : {"", "http://", "http://host/", "http://host:80/a@b", "https://host?a@b", "https://host#a@b",
                           "http://[::1]:80/a", "file:///etc/passwd", "nonsense with blanks", "%s%n%d"}) {
    EXPECT_EQ(ShownLink(link), link);
  }
}

}  // namespace
}  // namespace orbamira
