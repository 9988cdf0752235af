#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "Files.h"
#include "VemoHtml.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

// What is written to std::cout while it lives, with a mark wherever the stream was flushed.
class Page : private std::stringbuf {
 public:
  Page() : original_(std::cout.rdbuf(this)) {}
  ~Page() override { std::cout.rdbuf(original_); }

  std::string Text() const { return str(); }
  int Flushes() const { return flushes_; }

 private:
  int sync() override { return ++flushes_, 0; }

  std::streambuf* original_;
  int flushes_ = 0;
};

std::string FrameOf(const std::string& name) {
  const Page page;
  { const VemoHtml frame(name); }
  return page.Text();
}

TEST(VemoHtml, FrameIsByteForByte) {
  EXPECT_EQ(FrameOf("SetObdConf"),
            "Content-Type: text/html\n"
            "\n"
            "\n"
            "<!DOCTYPE HTML//EN\" \"http://www.w3.org/TR/REC-html40/strict.dtd\">\n"
            "<html>\n"
            "<head>\n"
            "<meta http-equiv=\"content-type\" content=\"text/html;charset=iso-8859-1\"  />\n"
            "<meta http-equiv=\"cache-control\" content=\"no-cache\"  />\n"
            "<title>VEMO Web Server - SetObdConf</title>\n"
            "<link href=\"/css/all.css\" rel=\"stylesheet\" media=\"screen\"  />\n"
            "</head>\n"
            "<body>\n"
            "<p><img src=\"/images/kesta.jpg\" alt=\"KESTA AG\" align=\"left\"  />"
            "<img src=\"/images/tarn.gif\" alt=\"TARN BELOX\" align=\"right\"  /></p>\n"
            "<div style=\"clear:both\" ></div>\n"
            "</body>\n"
            "</html>\n");
}

TEST(VemoHtml, AnEmptyNameLeavesTheTitleAlone) {
  EXPECT_THAT(FrameOf(""), HasSubstr("<title>VEMO Web Server</title>\n"));
}

TEST(VemoHtml, TheNameEndsTheTitleOnOneLine) {
  EXPECT_THAT(Lines(FrameOf("SetObdConf")),
              Contains("<title>VEMO Web Server - SetObdConf</title>"));
}

TEST(VemoHtml, TheNameIsNotEscaped) {
  EXPECT_THAT(FrameOf("<b>&\"'"), HasSubstr("<title>VEMO Web Server - <b>&\"'</title>\n"));
}

TEST(VemoHtml, TheDocumentTypeIsTheStrictOne) {
  const std::string frame = FrameOf("X");
  EXPECT_THAT(frame, HasSubstr("strict.dtd"));
  EXPECT_THAT(frame, Not(HasSubstr("loose.dtd")));
  EXPECT_THAT(frame, Not(HasSubstr("frameset.dtd")));
}

TEST(VemoHtml, AttributesStandInTheirOrder) {
  const auto lines = Lines(FrameOf("X"));
  EXPECT_THAT(lines, Contains("<meta http-equiv=\"content-type\" "
                              "content=\"text/html;charset=iso-8859-1\"  />"));
  EXPECT_THAT(lines, Contains("<meta http-equiv=\"cache-control\" content=\"no-cache\"  />"));
  EXPECT_THAT(lines,
              Contains("<link href=\"/css/all.css\" rel=\"stylesheet\" media=\"screen\"  />"));
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
  EXPECT_THAT(page.Text(), testing::StartsWith("<!DOCTYPE"));
  EXPECT_THAT(page.Text(), testing::EndsWith("</head>\n"));
  VemoHtml::PrintHtmlHead(
      "Again");  // gives the state of html back: it closes what the first opened
  EXPECT_THAT(page.Text(), HasSubstr("\n</html>\n<head>\n"));
}

TEST(VemoHtml, TheDestructorWritesTwoLines) {
  const Page page;
  auto frame = std::make_unique<VemoHtml>("X");
  const std::string opening = page.Text();
  frame.reset();
  EXPECT_EQ(page.Text().substr(opening.size()), "</body>\n</html>\n");
}

TEST(VemoHtml, TwoFramesOneAfterTheOtherAreAlike) {
  EXPECT_EQ(FrameOf("X"), FrameOf("X"));
}

TEST(VemoHtml, AFrameInsideAFrameWritesClosingTags) {
  const Page page;
  {
    const VemoHtml outer("X");
    const std::string opening = page.Text();
    const VemoHtml inner("Y");
    const std::string second = page.Text().substr(opening.size());
    EXPECT_THAT(second, HasSubstr("strict.dtd\">\n</html>\n<head>"));
    EXPECT_THAT(second, HasSubstr("</head>\n</body>\n<p>"));
  }
}

TEST(VemoHtml, EveryLineOfItsOwnIsFlushed) {
  const Page page;
  const std::string frame = (VemoHtml("X"), page.Text());
  // 13 lines of the opening, 2 of the closing; the header ends its two lines without a flush.
  EXPECT_EQ(page.Flushes(), 15);
}

}  // namespace
