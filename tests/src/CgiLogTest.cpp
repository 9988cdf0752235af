#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "CgiLog.h"
#include "Files.h"
#include "LogEvent.h"
#include "LogLevelManager.h"
#include "Logger.h"

namespace {

// To be formatted two hours east of UTC, after 2038.
LogEvent ExampleEvent() {
  setenv("TZ", "UTC-2", 1);
  tzset();
  GetCgiLogHandler();  // registers the levels
  LogEvent event;
  event.time = {2209032000, 42};
  event.level = LOG_LEVEL_INFO;
  event.handlerName = "cgi";
  event.processId = 4711;
  event.fileName = "src/SetObdConf";
  event.line = 30;
  event.message = "a message";
  return event;
}

std::string Padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

class CgiLogTest : public testing::Test {
 protected:
  void SetUp() override {
    GetCgiLogHandler();
    WriteText(LOG_FILE, "");
  }

  // What is appended to the log file by this statement, from the level on.
  static std::string Logged(LogHandler* handler, const char* message) {
    const std::size_t before = ReadText(LOG_FILE).size();
    LogFormater(LOG_LEVEL_ERROR, "src/X", 1).Log(handler, "%s", message);
    const std::string text = ReadText(LOG_FILE).substr(before);
    return text.substr(std::min(text.size(), std::strlen("2023-11-14 22:13:20.000042  ")));
  }

  static std::string Line(const std::string& handler, const std::string& message) {
    return "ERROR     " + Padded(handler, 15) + Padded(std::to_string(getpid()), 6) +
           Padded("src/X", 25) + Padded("1", 6) + message + "\n";
  }
};

TEST_F(CgiLogTest, TwoCallsGiveTheSameHandlerAndEachStatementOneLineMore) {
  EXPECT_EQ(GetCgiLogHandler(), GetCgiLogHandler());
  EXPECT_EQ(GetCgiLogHandler(), Logger::GetLogHandler("cgi"));
  WriteText(LOG_FILE, "a line of an earlier request\n");
  EXPECT_EQ(Logged(GetCgiLogHandler(), "once"), Line("cgi", "once"));
}

TEST_F(CgiLogTest, RegistersFiveLevelsOnce) {
  LogLevelManager& levels = *Logger::GetLogLevelManager();
  std::string names;
  for (const unsigned level : {10u, 20u, 30u, 40u, 50u, 60u}) {
    names += levels.GetLogLevelName(level) + " ";
  }
  EXPECT_EQ(names, "DEBUG INFO WARN ERROR FATAL 60 ");
  levels.AddLogLevel(LOG_LEVEL_WARN, "CHANGED");
  GetCgiLogHandler();
  EXPECT_EQ(levels.GetLogLevelName(LOG_LEVEL_WARN), "CHANGED");
  levels.AddLogLevel(LOG_LEVEL_WARN, "WARN");
}

TEST_F(CgiLogTest, TheJvemoHandlerReachesTheLogFileInTheSameLayout) {
  EXPECT_EQ(Logged(Logger::GetLogHandler("JVEMO"), "from Java"), Line("JVEMO", "from Java"));
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
  EXPECT_EQ(Logged(GetCgiLogHandler(), "for both"), Line("cgi", "for both"));
  EXPECT_EQ(client.message, "for both");
  EXPECT_EQ(client.fileAtThatTime, "");
}

// --- The layout

std::string Format(const LogEvent& event) {
  struct Unflushed : std::stringbuf {
    int sync() override { return ADD_FAILURE() << "flushed", 0; }
  } buffer;
  std::ostream out(&buffer);
  JniLayout().FormatAndAppend(out, event);
  return buffer.str();
}

TEST(CgiLogLayout, IsPaddedColumnsOfOneUnflushedLine) {
  EXPECT_EQ(Format(ExampleEvent()),
            "2040-01-01 14:00:00.000042  INFO      cgi            4711  "
            "src/SetObdConf           30    a message\n");
}

TEST(CgiLogLayout, LeavesNoBlankBehindAValueThatFillsItsColumnAndCutsNone) {
  LogEvent event = ExampleEvent();
  event.processId = 123456;
  EXPECT_EQ(Format(event).substr(53, 20), "123456src/SetObdConf");
  event.level = 1234567890;
  event.handlerName = "a-handler-of-more-than-15";
  event.processId = 12345678;
  event.fileName = "src/AFileNameOfMoreThanTwentyFive";
  event.line = -1234567;
  EXPECT_EQ(Format(event),
            "2040-01-01 14:00:00.000042  1234567890a-handler-of-more-than-1512345678"
            "src/AFileNameOfMoreThanTwentyFive-1234567a message\n");
}

// A width that was set before would pad the first column.
TEST(CgiLogLayout, IsAlikeOnAStreamInAnyStateButForTheBase) {
  std::ostringstream out;
  out << std::hex << std::uppercase << std::internal << std::setfill('*') << std::setw(50);
  const std::ios::fmtflags before = out.flags();
  LogEvent event = ExampleEvent();
  event.line = -1;
  JniLayout().FormatAndAppend(out, event);
  EXPECT_EQ(out.str(),
            "2040-01-01 14:00:00.000042  INFO      cgi            1267  "
            "src/SetObdConf           FFFFFFFFa message\n");
  EXPECT_EQ(out.flags(), (before & ~std::ios::adjustfield) | std::ios::left);
  EXPECT_EQ(out.fill(), ' ');
  EXPECT_EQ(out.width(), 0);
}

}  // namespace
