#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

#include "CgiLog.h"
#include "Files.h"
#include "LogEvent.h"
#include "LogLevelManager.h"
#include "LogLine.h"
#include "Logger.h"

namespace {

using testing::ElementsAre;

LogEvent ExampleEvent() {
  LogEvent event;
  event.time = {1700000000, 42};
  event.level = LOG_LEVEL_INFO;
  event.handlerName = "cgi";
  event.processId = 4711;
  event.fileName = "src/SetObdConf";
  event.line = 30;
  event.message = "a message";
  return event;
}

class CgiLogTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    GetCgiLogHandler();
    std::filesystem::resize_file(LOG_FILE, 0);
  }

  static std::string Format(const LogEvent& event) {
    std::ostringstream out;
    JniLayout().FormatAndAppend(out, event);
    return out.str();
  }
};

TEST_F(CgiLogTest, TwoCallsGiveTheSameHandlerAndEachStatementOneLine) {
  EXPECT_EQ(GetCgiLogHandler(), GetCgiLogHandler());
  EXPECT_EQ(GetCgiLogHandler(), Logger::GetLogHandler("cgi"));
  LogFormater(LOG_LEVEL_DEBUG, "src/X", 1).Log(GetCgiLogHandler(), "once");
  EXPECT_THAT(LoggedStatements(), ElementsAre("DEBUG src/X 1 once"));
}

TEST_F(CgiLogTest, ASecondCallRegistersNoLevelAgain) {
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_WARN, "CHANGED");
  GetCgiLogHandler();
  EXPECT_EQ(Logger::GetLogLevelManager()->GetLogLevelName(LOG_LEVEL_WARN), "CHANGED");
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_WARN, "WARN");
}

TEST_F(CgiLogTest, RegistersFiveLevels) {
  const LogLevelManager& levels = *Logger::GetLogLevelManager();
  EXPECT_EQ(levels.GetLogLevelName(10), "DEBUG");
  EXPECT_EQ(levels.GetLogLevelName(20), "INFO");
  EXPECT_EQ(levels.GetLogLevelName(30), "WARN");
  EXPECT_EQ(levels.GetLogLevelName(40), "ERROR");
  EXPECT_EQ(levels.GetLogLevelName(50), "FATAL");
}

TEST_F(CgiLogTest, TheJvemoHandlerReachesTheLogFileInTheSameLayout) {
  LogFormater(LOG_LEVEL_ERROR, "src/X", 2).Log(Logger::GetLogHandler("JVEMO"), "from Java's side");
  const auto lines = Lines(ReadText(LOG_FILE));
  ASSERT_EQ(lines.size(), 1u);
  const LogLine line = ParseLogLine(lines[0]);
  EXPECT_EQ(line.handler, "JVEMO");
  EXPECT_EQ(Summary(line), "ERROR src/X 2 from Java's side");
}

TEST_F(CgiLogTest, PassesItsEventsToTheDefaultHandlerBeforeTheFile) {
  struct Client : LogHandlerClient {
    void HandleEvent(const LogEvent& event) override {
      message = event.message;
      fileAtThatTime = ReadText(LOG_FILE);
    }
    std::string message;
    std::string fileAtThatTime = "not asked";
  };
  static Client client;  // stays a client to the end of the process
  Logger::GetDefaultLogHandler()->AddLogClient(&client);
  LogFormater(LOG_LEVEL_DEBUG, "src/X", 1).Log(GetCgiLogHandler(), "for both");
  EXPECT_EQ(client.message, "for both");
  EXPECT_EQ(client.fileAtThatTime, "");
  EXPECT_EQ(LoggedStatements().size(), 1u);
}

TEST_F(CgiLogTest, AppendsToAnExistingLogFile) {
  WriteText(LOG_FILE, "a line of an earlier request\n");
  LogFormater(LOG_LEVEL_DEBUG, "src/X", 1).Log(GetCgiLogHandler(), "new");
  const auto lines = Lines(ReadText(LOG_FILE));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "a line of an earlier request");
}

TEST_F(CgiLogTest, AMessageWithNewlinesIsWrittenAsItIs) {
  LogFormater(LOG_LEVEL_DEBUG, "src/X", 1).Log(GetCgiLogHandler(), "Receive:\n%s", "a\r\nb");
  EXPECT_THAT(ReadText(LOG_FILE), testing::EndsWith("1     Receive:\na\r\nb\n"));
}

TEST_F(CgiLogTest, LayoutWritesPaddedColumnsOfOneLine) {
  EXPECT_EQ(Format(ExampleEvent()),
            "2023-11-14 22:13:20.000042  INFO      cgi            4711  "
            "src/SetObdConf           30    a message\n");
}

TEST_F(CgiLogTest, LayoutPadsALevelNameToTen) {
  EXPECT_EQ(Format(ExampleEvent()).substr(28, 13), "INFO      cgi");
}

TEST_F(CgiLogTest, LayoutLeavesNoBlankBehindAValueThatFillsItsColumn) {
  LogEvent event = ExampleEvent();
  event.processId = 123456;
  EXPECT_EQ(Format(event).substr(53, 20), "123456src/SetObdConf");
}

TEST_F(CgiLogTest, LayoutCutsNoValueThatIsLongerThanItsColumn) {
  LogEvent event = ExampleEvent();
  event.level = 1234567890;
  event.handlerName = "a-handler-of-more-than-15";
  event.processId = 12345678;
  event.fileName = "src/AFileNameOfMoreThanTwentyFive";
  event.line = -1234567;
  EXPECT_EQ(Format(event),
            "2023-11-14 22:13:20.000042  1234567890a-handler-of-more-than-1512345678"
            "src/AFileNameOfMoreThanTwentyFive-1234567a message\n");
}

TEST_F(CgiLogTest, LayoutIgnoresTheStateOfTheStreamExceptTheBase) {
  std::ostringstream out;
  out << std::hex << std::right << std::setfill('*') << std::setw(60);
  LogEvent event = ExampleEvent();
  event.line = -1;
  JniLayout().FormatAndAppend(out, event);
  EXPECT_EQ(out.str(),
            "2023-11-14 22:13:20.000042  INFO      cgi            1267  "
            "src/SetObdConf           ffffffffa message\n");
}

TEST_F(CgiLogTest, LayoutLeavesLeftAdjustAndTheBlankFillAndNothingElseChanged) {
  std::ostringstream out;
  out << std::oct << std::showbase << std::uppercase << std::internal << std::setfill('*')
      << std::setprecision(3) << std::setw(9);
  const auto before = out.flags();
  JniLayout().FormatAndAppend(out, ExampleEvent());
  EXPECT_EQ(out.flags(), (before & ~std::ios::adjustfield) | std::ios::left);
  EXPECT_EQ(out.fill(), ' ');
  EXPECT_EQ(out.width(), 0);
  EXPECT_EQ(out.precision(), 3);
}

TEST_F(CgiLogTest, LayoutDoesNotFlush) {
  struct FlushCounter : std::stringbuf {
    int sync() override { return ++flushes, 0; }
    int flushes = 0;
  } buffer;
  std::ostream out(&buffer);
  JniLayout().FormatAndAppend(out, ExampleEvent());
  EXPECT_EQ(buffer.flushes, 0);
}

}  // namespace
