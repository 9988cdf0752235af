// The page on its two paths behind the Java VM's start: what is written, what is logged, what is
// stored, how it ends. With the real Java VM.

#include "ProgramTest.h"

namespace {

using testing::ElementsAre;

using SetOptionPage = NoSettings;

TEST_F(SetOptionPage, ReportsTheStoredOption) {
  const Result result = Execute(Get("CanDetectTimeout=500"));
  ExpectSuccess(result);
  EXPECT_EQ(result.output.size(), 960u);
  ExpectSettings(NEW_SETTINGS);
  EXPECT_THAT(LoggedLines(), ElementsAre("DEBUG src/SetObdConf 30 main",           //
                                         "DEBUG src/JavaVmWrapper 73 OpenJavaVM",  //
                                         "DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: (null)",
                                         "DEBUG src/JavaVmWrapper 99 JAVA_CLASSPATH:/srv/vemo/java",
                                         "DEBUG src/JavaVmWrapper 155 ChangeStdErr"));
}

TEST_F(SetOptionPage, WarnsWithoutTheField) {
  const Result result = Execute(Get(""));
  EXPECT_EQ(result.output, WarningPage());
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_FALSE(std::filesystem::exists(SETTINGS_FILE));
  EXPECT_THAT(LoggedLines(), testing::ElementsAreArray(
                                 Joined({SuccessStatements(),
                                         {"ERROR src/SetObdConf 50 Option CanDetectTimeout not set",
                                          "DEBUG src/SetObdConf 88 PrintBackButton"}})));
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
  Execute(WithFakeVm(Get("")));
  EXPECT_THAT(ReadText(LOG_FILE), testing::StartsWith("an earlier request\n2"));
}

TEST_F(SetOptionPage, LogsWhereALinkInPlaceOfTheLogFileLeads) {
  constexpr char ELSEWHERE[] = "/tmp/elsewhere";
  std::filesystem::create_symlink(ELSEWHERE, LOG_FILE);
  Execute(WithFakeVm(Get("")));
  EXPECT_THAT(ReadText(ELSEWHERE), testing::HasSubstr("Option CanDetectTimeout not set\n"));
  std::filesystem::remove(ELSEWHERE);
}

}  // namespace
