#include <gtest/gtest.h>

#include "Page.h"

namespace {

TEST(HtmlFromLatin1, EscapesMarkupAndWhatIsNotAscii) {
  EXPECT_EQ(HtmlFromLatin1("plain text, 500"), "plain text, 500");
  EXPECT_EQ(HtmlFromLatin1("<a href=\"x\">'&"), "&#60;a href=&#34;x&#34;&#62;&#39;&#38;");
  EXPECT_EQ(HtmlFromLatin1("\xFC\x80\x7F"), "&#252;&#128;&#127;");
  EXPECT_EQ(HtmlFromLatin1(""), "");
}

TEST(HtmlFromUtf8, DecodesSequencesOfEveryLength) {
  EXPECT_EQ(HtmlFromUtf8("a<\xC3\xBC\xE2\x82\xAC\xF0\x9F\x9A\x97z"),
            "a&#60;&#252;&#8364;&#128663;z");
}

TEST(HtmlFromUtf8, TakesWhatIsNoUtf8ForLatin1) {
  EXPECT_EQ(HtmlFromUtf8("\xFC"), "&#252;");            // no lead
  EXPECT_EQ(HtmlFromUtf8("\xC3"), "&#195;");            // cut
  EXPECT_EQ(HtmlFromUtf8("\xE2\x82"), "&#226;&#130;");  // cut
  EXPECT_EQ(HtmlFromUtf8("\xC3<"), "&#195;&#60;");      // no continuation
  EXPECT_EQ(HtmlFromUtf8("\xC0\xBC"), "&#192;&#188;");  // '<' in two bytes: none
  EXPECT_EQ(HtmlFromUtf8("\xF8\x88"), "&#248;&#136;");  // longer than UTF-8 has
}

TEST(HtmlFromUtf8, LeavesNoMarkupWhateverItIsGiven) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string text = {static_cast<char>(first), static_cast<char>(second), '<'};
      const std::string html = HtmlFromUtf8(text);
      EXPECT_EQ(html.find_first_of("<>\"'"), std::string::npos) << first << " " << second;
      EXPECT_EQ(html.substr(html.size() - 5), "&#60;");
    }
  }
}

}  // namespace
