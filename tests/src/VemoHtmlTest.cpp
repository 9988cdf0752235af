#include <cgicc/HTMLClasses.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "ExpectedPage.h"
#include "Files.h"
#include "Request.h"
#include "VemoHtml.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// What is written to std::cout while it lives, as a whole and flush by flush.
class Page : private std::stringbuf {
 public:
  Page() : original_(std::cout.rdbuf(this)) {}
  ~Page() override { std::cout.rdbuf(original_); }

  std::string Text() const { return str(); }
  const std::vector<std::string>& Flushed() const { return flushed_; }

 private:
  int sync() override {
    flushed_.push_back(str().substr(flushedSize_));
    flushedSize_ = str().size();
    return 0;
  }

  std::streambuf* original_;
  std::vector<std::string> flushed_;
  std::size_t flushedSize_ = 0;
};

std::string FrameOf(const std::string& name) {
  const Page page;
  { const VemoHtml frame(name); }
  return page.Text();
}

TEST(VemoHtml, FrameIsByteForByteAndTheNextOneAlike) {
  EXPECT_EQ(FrameOf("SetObdConf"), FrameOnly());
  EXPECT_EQ(FrameOf("SetObdConf"), FrameOnly());
}

TEST(VemoHtml, AnEmptyNameLeavesTheTitleAlone) {
  EXPECT_THAT(FrameOf(""), HasSubstr("\n<title>VEMO Web Server</title>\n"));
}

TEST(VemoHtml, TheNameIsNotEscaped) {
  EXPECT_THAT(FrameOf("<b>&\"'"), HasSubstr("\n<title>VEMO Web Server - <b>&\"'</title>\n"));
}

TEST(VemoHtml, TheLogosAreOneLineAndTheClearingTheNext) {
  const Page page;
  VemoHtml::PrintLogos();
  EXPECT_EQ(page.Text(),
            "<p><img src=\"/images/kesta.jpg\" alt=\"KESTA AG\" align=\"left\"  />"
            "<img src=\"/images/tarn.gif\" alt=\"TARN BELOX\" align=\"right\"  /></p>\n"
            "<div style=\"clear:both\" ></div>\n");
}

TEST(VemoHtml, TheHeadNeedsNoObject) {
  Page page;
  VemoHtml::PrintHtmlHead("Alone");
  EXPECT_THAT(page.Text(), StartsWith("<!DOCTYPE"));
  EXPECT_THAT(page.Text(), EndsWith("</head>\n"));
  // Gives the state of html back: it closes what the first opened.
  VemoHtml::PrintHtmlHead("Again");
  EXPECT_THAT(page.Text(), HasSubstr("\n</html>\n<head>\n"));
}

TEST(VemoHtml, TheDestructorWritesTwoLines) {
  const Page page;
  auto frame = std::make_unique<VemoHtml>("X");
  const std::string opening = page.Text();
  frame.reset();
  EXPECT_EQ(page.Text().substr(opening.size()), "</body>\n</html>\n");
}

TEST(VemoHtml, AFrameInsideAFrameWritesClosingTags) {
  const Page page;
  const VemoHtml outer("X");
  const std::string opening = page.Text();
  const VemoHtml inner("Y");
  const std::string second = page.Text().substr(opening.size());
  EXPECT_THAT(second, HasSubstr("strict.dtd\">\n</html>\n<head>"));
  EXPECT_THAT(second, HasSubstr("</head>\n</body>\n<p>"));
}

TEST(VemoHtml, EveryLineIsFlushedAtItsEnd) {
  const Page page;
  { const VemoHtml frame("X"); }
  std::vector<std::string> lines;
  for (const std::string& line : Lines(page.Text())) {
    lines.push_back(line + "\n");
  }
  // The frame flushes 12 lines of its opening and the 2 of its closing; cgicc flushes the
  // header's 2.
  EXPECT_EQ(lines.size(), 16u);
  EXPECT_EQ(page.Flushed(), lines);
}

// A warning page's body, between the frame's opening and its closing.
std::string WarningBody(const std::string& heading, const std::string& linkText,
                        const std::string& linkUrl, const std::string& warning) {
  const Page page;
  VemoHtml frame("X");
  const std::size_t begin = page.Text().size();
  frame.PrintWarningPage(heading, linkText, linkUrl, warning);
  return page.Text().substr(begin);
}

TEST(WarningPage, IsByteForByte) {
  EXPECT_EQ(WarningBody("Heading", "Link text", "link.cgi", "A warning"),
            "<div class=\"navi\" ><a class=\"small\" href=\"/index.html\" >Home</a> / "
            "<a class=\"small\" href=\"link.cgi\" >Link text</a></div>\n"
            "<h2>Heading</h2>\n"
            "<div class=\"content\" >\n"
            "<p class=\"warn\" >A warning</p><form action=\"link.cgi\" >"
            "<input type=\"submit\" value=\" Back \" class=\"mybutton\"  /></form>\n"
            "</div>\n");
}

TEST(WarningPage, WritesEmptyTextsAsEmpty) {
  EXPECT_EQ(WarningBody("", "", "", ""),
            "<div class=\"navi\" ><a class=\"small\" href=\"/index.html\" >Home</a> / "
            "<a class=\"small\" href=\"\" ></a></div>\n"
            "<h2></h2>\n"
            "<div class=\"content\" >\n"
            "<p class=\"warn\" ></p><form action=\"\" >"
            "<input type=\"submit\" value=\" Back \" class=\"mybutton\"  /></form>\n"
            "</div>\n");
}

TEST(WarningPage, EscapesNothing) {
  const std::string body = WarningBody("<i>&", "<b>", "x?a=\"b\"&c", "<script>'");
  EXPECT_THAT(body, HasSubstr("<h2><i>&</h2>\n"));
  EXPECT_THAT(body, HasSubstr("<a class=\"small\" href=\"x?a=\"b\"&c\" ><b></a>"));
  EXPECT_THAT(body, HasSubstr("<p class=\"warn\" ><script>'</p>"));
  EXPECT_THAT(body, HasSubstr("<form action=\"x?a=\"b\"&c\" >"));
}

TEST(WarningPage, TwiceInOneFrameIsAlikeFlushesEveryLineAndLeavesTheFrameToClose) {
  const std::string once = WarningBody("H", "L", "u", "w");
  const Page page;
  {
    VemoHtml frame("X");
    const std::size_t before = page.Flushed().size();
    frame.PrintWarningPage("H", "L", "u", "w");
    EXPECT_EQ(page.Flushed().size() - before, 5u);
    frame.PrintWarningPage("H", "L", "u", "w");
  }
  EXPECT_THAT(page.Text(), EndsWith(once + once + "</body>\n</html>\n"));
}

TEST(WarningPage, InAnOpenDivIsInverted) {
  const Page page;
  VemoHtml frame("X");
  std::cout << cgicc::div();
  const std::size_t begin = page.Text().size();
  frame.PrintWarningPage("H", "L", "u", "w");
  EXPECT_THAT(page.Text().substr(begin), StartsWith("</div><a "));
  std::cout << cgicc::div();
}

}  // namespace
