// The page on its three paths: what is written, what is logged, what is stored, how it ends. With
// the real Java VM.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "Request.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class SetOptionPage : public testing::Test {
 protected:
  void SetUp() override { ResetDevice(); }

  // Of the statements in the log, those of the page itself.
  static std::vector<std::string> PageStatements() {
    std::vector<std::string> statements;
    for (const std::string& statement : LoggedStatements()) {
      if (statement.find(" src/SetObdConf ") != std::string::npos) {
        statements.push_back(statement);
      }
    }
    return statements;
  }
};

TEST_F(SetOptionPage, ReportsTheStoredOption) {
  const Result result = Execute(Get("CanDetectTimeout=500"));
  EXPECT_EQ(result.output, SuccessPage("500"));
  EXPECT_EQ(result.output.size(), 960u);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(ReadText(SETTINGS_FILE), "[SETTINGS]\nVEMODCanDetectTimeout=500\n");
  EXPECT_THAT(PageStatements(), ElementsAre("DEBUG src/SetObdConf 30 main"));
}

TEST_F(SetOptionPage, TellsItsStoryInTheLog) {
  Execute(Get("CanDetectTimeout=500"));
  EXPECT_THAT(LoggedStatements(), ElementsAre("DEBUG src/SetObdConf 30 main",           //
                                              "DEBUG src/JavaVmWrapper 73 OpenJavaVM",  //
                                              "DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: (null)",
                                              "DEBUG src/JavaVmWrapper 99 "
                                              "JAVA_CLASSPATH:/srv/vemo/java",
                                              "DEBUG src/JavaVmWrapper 155 ChangeStdErr"));
  EXPECT_THAT(ForeignLines(), IsEmpty());
}

TEST_F(SetOptionPage, WarnsWithoutTheField) {
  const Result result = Execute(Get(""));
  EXPECT_EQ(result.output, WarningPage());
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_FALSE(std::filesystem::exists(SETTINGS_FILE));
  EXPECT_THAT(PageStatements(), ElementsAre("DEBUG src/SetObdConf 30 main",
                                            "ERROR src/SetObdConf 50 "
                                            "Option CanDetectTimeout not set",
                                            "DEBUG src/SetObdConf 88 PrintBackButton"));
}

TEST_F(SetOptionPage, WritesOnlyTheFrameWithoutTheConfigurationClass) {
  Command request = Get("CanDetectTimeout=500");
  request.environment["JAVA_CLASSPATH"] = "/nowhere";
  const Result result = Execute(request);
  EXPECT_EQ(result.output, FrameOnly());
  // What the VM writes past System.err; the trace itself is in the log.
  EXPECT_EQ(result.error, "Exception in thread \"main\" ");
  EXPECT_THAT(ForeignLines(), Contains(HasSubstr("com.tarn.vemo.config.ConfigVemo")));
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_FALSE(std::filesystem::exists(SETTINGS_FILE));
  EXPECT_THAT(PageStatements(), ElementsAre("DEBUG src/SetObdConf 30 main"));
}

TEST_F(SetOptionPage, EveryLogLineIsInTheLayoutAndOfOneProcess) {
  Execute(Get(""));
  const auto lines = Lines(ReadText(LOG_FILE));
  ASSERT_EQ(lines.size(), 7u);
  for (const std::string& line : lines) {
    EXPECT_EQ(ParseLogLine(line).handler, "cgi");
    EXPECT_EQ(ParseLogLine(line).processId, ParseLogLine(lines[0]).processId);
  }
}

TEST_F(SetOptionPage, KeepsTheLogOfEarlierRequests) {
  WriteText(LOG_FILE, "an earlier request\n");
  Execute(Get(""));
  EXPECT_THAT(ReadText(LOG_FILE), testing::StartsWith("an earlier request\n2"));
}

TEST_F(SetOptionPage, LogsWhereALinkInPlaceOfTheLogFileLeads) {
  constexpr char ELSEWHERE[] = "/tmp/elsewhere";
  std::filesystem::create_symlink(ELSEWHERE, LOG_FILE);
  Execute(WithFakeVm(Get("")));
  EXPECT_THAT(ReadText(ELSEWHERE), HasSubstr("Option CanDetectTimeout not set\n"));
  std::filesystem::remove(ELSEWHERE);
}

TEST_F(SetOptionPage, WritesTheHeadingOnceAndEndsTheNavigationWithItself) {
  for (const std::string query : {"CanDetectTimeout=500", ""}) {
    const std::string page = Execute(Get(query)).output;
    const auto heading = page.find("<h2>Set CanDetectTimeout</h2>");
    EXPECT_NE(heading, std::string::npos);
    EXPECT_EQ(page.find("<h2>", heading + 1), std::string::npos);
    EXPECT_THAT(page, HasSubstr("href=\"setobdconf.cgi\" >Set CanDetectTimeout</a></div>\n<h2>"));
  }
}

}  // namespace
