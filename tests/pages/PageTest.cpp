#include <gtest/gtest.h>

#include "Page.h"

namespace {

TEST(HtmlFromLatin1, EscapesMarkupAndWhatIsNotAscii) {
  EXPECT_EQ(HtmlFromLatin1("plain text, 500"), "plain text, 500");
  EXPECT_EQ(HtmlFromLatin1("<a href=\"x\">'&"), "&lt;a href=&quot;x&quot;&gt;&#39;&amp;");
  EXPECT_EQ(HtmlFromLatin1("\xFC\x80\x7F"), "&uuml;&#128;\x7F");
  EXPECT_EQ(HtmlFromLatin1(""), "");
}

TEST(HtmlFromUtf8, EscapesMarkupAndDecodesSequencesOfEveryLength) {
  EXPECT_EQ(HtmlFromUtf8("<a href=\"x\">'&"), "&lt;a href=&quot;x&quot;&gt;&#39;&amp;");
  EXPECT_EQ(HtmlFromUtf8("a<\xC3\xBC\xE2\x82\xAC\xF0\x9F\x9A\x97z"), "a&lt;&uuml;&euro;&#128663;z");
}

TEST(HtmlFromUtf8, TakesWhatIsNoUtf8ForLatin1) {
  EXPECT_EQ(HtmlFromUtf8("\xFC"), "&uuml;");                // no lead
  EXPECT_EQ(HtmlFromUtf8("\xC3"), "&Atilde;");              // cut
  EXPECT_EQ(HtmlFromUtf8("\xE2\x82"), "&acirc;&#130;");     // cut
  EXPECT_EQ(HtmlFromUtf8("\xC3<"), "&Atilde;&lt;");         // no continuation
  EXPECT_EQ(HtmlFromUtf8("\xC0\xBC"), "&Agrave;&frac14;");  // '<' in two bytes: none
  EXPECT_EQ(HtmlFromUtf8("\xF8\x88"), "&oslash;&#136;");    // longer than UTF-8 has
}

TEST(HtmlFromUtf8, LeavesNoMarkupInAnyPairOfBytes) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string text = {static_cast<char>(first), static_cast<char>(second), '<'};
      const std::string html = HtmlFromUtf8(text);
      EXPECT_EQ(html.find_first_of("<>\"'"), std::string::npos) << first << " " << second;
      EXPECT_EQ(html.substr(html.size() - 4), "&lt;");
    }
  }
}

TEST(HtmlFromUtf8, KeepsNulBytes) {
  const std::string text("a\0b\0", 4);
  EXPECT_EQ(HtmlFromUtf8(text), text);
  EXPECT_EQ(HtmlFromLatin1(text), text);
}

// At every offset: the text is taken in pieces, and no character at their ends may be lost.
TEST(HtmlFromUtf8, LosesNothingOfALongText) {
  for (const std::string character :
       {"\xC3\xBC", "\xE2\x82\xAC", "\xF0\x9F\x9A\x97", "\xFC", "\xC1"}) {
    const std::string html = HtmlFromUtf8(character);
    for (std::size_t length = 0; length < 1000; ++length) {
      const std::string text(length, 'x');
      EXPECT_EQ(HtmlFromUtf8(text + character + text), text + html + text) << length;
    }
  }
}

TEST(HtmlFromUtf8, LosesNothingOfALongTextOfReferences) {
  std::string text;
  std::string html;
  for (int i = 0; i < 100000; ++i) {
    text += "\xCF\x91'\xFF";
    html += "&thetasym;&#39;&yuml;";
  }
  EXPECT_EQ(HtmlFromUtf8(text), html);
}

}  // namespace
