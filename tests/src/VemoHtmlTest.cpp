#include <cgicc/HTMLClasses.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "Files.h"
#include "VemoHtml.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// What is written to std::cout while it lives, and how often it is flushed: at line ends alone.
class Page : private std::stringbuf {
 public:
  Page() : original_(std::cout.rdbuf(this)) {}
  ~Page() override { std::cout.rdbuf(original_); }

  std::string Text() const { return str(); }
  std::size_t Flushes() const { return flushes_; }

 private:
  int sync() override {
    EXPECT_THAT(str(), EndsWith("\n"));
    ++flushes_;
    return 0;
  }

  std::streambuf* original_;
  std::size_t flushes_ = 0;
};

std::string FrameOf(const std::string& name) {
  const Page page;
  { const VemoHtml frame(name); }
  return page.Text();
}

const std::string HEAD =
    "<head>\n"
    "<meta http-equiv=\"content-type\" content=\"text/html;charset=iso-8859-1\"  />\n"
    "<meta http-equiv=\"cache-control\" content=\"no-cache\"  />\n"
    "<title>VEMO Web Server - X</title>\n"
    "<link href=\"/css/all.css\" rel=\"stylesheet\" media=\"screen\"  />\n"
    "</head>\n";

const std::string DOCTYPE =
    "<!DOCTYPE HTML//EN\" \"http://www.w3.org/TR/REC-html40/strict.dtd\">\n";

const std::string LOGOS =
    "<p><img src=\"/images/kesta.jpg\" alt=\"KESTA AG\" align=\"left\"  />"
    "<img src=\"/images/tarn.gif\" alt=\"TARN BELOX\" align=\"right\"  /></p>\n"
    "<div style=\"clear:both\" ></div>\n";

const std::string OPENING =
    "Content-Type: text/html\n\n\n" + DOCTYPE + "<html>\n" + HEAD + "<body>\n" + LOGOS;
const std::string CLOSING = "</body>\n</html>\n";

TEST(VemoHtml, FrameIsByteForByteAndTheNextOneAlike) {
  EXPECT_EQ(FrameOf("X"), OPENING + CLOSING);
  EXPECT_EQ(FrameOf("X"), OPENING + CLOSING);
}

TEST(VemoHtml, TheNameIsNotEscapedAndAnEmptyOneLeavesTheTitleAlone) {
  EXPECT_THAT(FrameOf("<b>&\"'"), HasSubstr("\n<title>VEMO Web Server - <b>&\"'</title>\n"));
  EXPECT_THAT(FrameOf(""), HasSubstr("\n<title>VEMO Web Server</title>\n"));
}

TEST(VemoHtml, TheHeadAndTheLogosNeedNoObject) {
  const Page page;
  VemoHtml::PrintHtmlHead("X");
  VemoHtml::PrintLogos();
  // Gives the state of html back: it closes what the first opened.
  VemoHtml::PrintHtmlHead("X");
  EXPECT_EQ(page.Text(), DOCTYPE + "<html>\n" + HEAD + LOGOS + DOCTYPE + "</html>\n" + HEAD);
}

TEST(VemoHtml, AFrameInsideAFrameWritesClosingTags) {
  const Page page;
  const VemoHtml outer("X");
  const VemoHtml inner("Y");
  const std::string second = page.Text().substr(OPENING.size());
  EXPECT_THAT(second, HasSubstr("strict.dtd\">\n</html>\n<head>"));
  EXPECT_THAT(second, HasSubstr("</head>\n</body>\n<p>"));
}

// ---- The warning page

struct Warning {
  std::string heading, linkText, linkUrl, warning;

  void Print(VemoHtml& frame) const { frame.PrintWarningPage(heading, linkText, linkUrl, warning); }

  std::string Text() const {
    return "<div class=\"navi\" ><a class=\"small\" href=\"/index.html\" >Home</a> / "
           "<a class=\"small\" href=\"" +
           linkUrl + "\" >" + linkText +
           "</a></div>\n"
           "<h2>" +
           heading +
           "</h2>\n"
           "<div class=\"content\" >\n"
           "<p class=\"warn\" >" +
           warning + "</p><form action=\"" + linkUrl +
           "\" >"
           "<input type=\"submit\" value=\" Back \" class=\"mybutton\"  /></form>\n"
           "</div>\n";
  }
};

// Also when there are several in one frame, which they leave to close.
TEST(WarningPage, EscapesNothingAndIsFlushedAtEachLineEnd) {
  const Warning usual = {"Heading", "Link text", "link.cgi", "A warning"};
  const Warning markup = {"<i>&", "<b>", "x?a=\"b\"&c", "<script>'"};
  const Warning empty = {"", "", "", ""};
  const Page page;
  {
    VemoHtml frame("X");
    for (const Warning& warning : {usual, markup, empty, usual}) {
      warning.Print(frame);
    }
  }
  EXPECT_EQ(page.Text(),
            OPENING + usual.Text() + markup.Text() + empty.Text() + usual.Text() + CLOSING);
  EXPECT_EQ(page.Flushes(), Lines(page.Text()).size());
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
