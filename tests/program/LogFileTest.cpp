// The way out of the log: how its lines are written, and what becomes of the request when the log
// file cannot be used.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "ProgramTest.h"
#include "Request.h"

namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::StartsWith;

// ---- Log lines.

class LogWrites : public NoSettings {
 protected:
  void SetUp() override {
    NoSettings::SetUp();
    WriteText(LOG_FILE, "");
    std::filesystem::remove(RECORD);
  }

  // The sizes of the writes to the log that the request makes.
  static std::vector<std::string> WritesOf(Command request) {
    request = Preload("failing-file-calls", request);
    request.environment["FAILING_FILE_CALLS_FOLDER"] = "/tmp";
    request.environment["FAILING_FILE_CALLS_TRACE"] = RECORD;
    Execute(request);
    const std::string call = "write cgi.log ";
    std::vector<std::string> sizes;
    for (const std::string& line : Lines(ReadText(RECORD))) {
      if (line.rfind(call, 0) == 0) {
        sizes.push_back(line.substr(call.size()));
      }
    }
    return sizes;
  }

  static std::vector<std::string> SizesOfLines() {
    std::vector<std::string> sizes;
    for (const std::string& line : Lines(ReadText(LOG_FILE))) {
      sizes.push_back(std::to_string(line.size() + 1));
    }
    return sizes;
  }

  static constexpr char RECORD[] = "/tmp/writes";
};

// Where offsets of 32 bits end. Nothing but the end takes room on the disk.
TEST_F(LogWrites, GoOnBeyondTwoAndFourGiB) {
  for (const std::uintmax_t size : {(1ULL << 31) - 3, (1ULL << 32) - 3, 5ULL << 30}) {
    SCOPED_TRACE(size);
    WriteText(LOG_FILE, "");
    std::filesystem::resize_file(LOG_FILE, size);
    Execute(WithFakeVm(Get("CanDetectTimeout=500")));
    std::ifstream log(LOG_FILE, std::ios::binary);
    log.seekg(static_cast<std::streamoff>(size));
    const std::string added(std::istreambuf_iterator<char>(log), {});
    EXPECT_THAT(added, testing::EndsWith("\n"));
    EXPECT_THAT(added, HasSubstr("src/SetObdConf"));
    std::filesystem::remove(LOG_FILE);
  }
}

TEST_F(LogWrites, EveryLineIsOne) {
  const auto writes = WritesOf(WithFakeVm(Get("")));
  EXPECT_EQ(writes.size(), 7u);
  EXPECT_THAT(writes, ElementsAreArray(SizesOfLines()));
}

TEST_F(LogWrites, TheLongestLineIsOne) {
  // The kernel hands no longer text than this to a program, name, end and all.
  const std::string longest(131072 - sizeof "JAVA_OPTIONS=", 'x');
  Command request = WithFakeVm(Get("CanDetectTimeout=500"));
  request.environment["JAVA_OPTIONS"] = longest;
  const auto writes = WritesOf(request);
  EXPECT_THAT(writes, ElementsAreArray(SizesOfLines()));
  const auto statements = LoggedStatements();
  ASSERT_EQ(statements.size(), 5u);
  EXPECT_TRUE(statements[2] == "DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: " + longest);
}

// ---- A log file that cannot be used.

class UnusableLog : public NoSettings {
 protected:
  static Result ExpectThePageUnchanged(const Command& request) {
    const Result result = Execute(request);
    EXPECT_EQ(result.output, SuccessPage("500"));
    EXPECT_EQ(result.exitStatus, 0);
    ExpectSettings(NEW_SETTINGS);
    return result;
  }

  static void ExpectSaidOnce(const std::string& complaint) {
    const Result result = ExpectThePageUnchanged(WithFakeVm(Get("CanDetectTimeout=500")));
    EXPECT_EQ(result.error, complaint);
  }
};

TEST_F(UnusableLog, AFolderInItsPlaceIsSaidOnce) {
  std::filesystem::create_directory(LOG_FILE);
  ExpectSaidOnce("Can't open log file /tmp/cgi.log: Is a directory\n");
}

TEST_F(UnusableLog, AReadOnlyFileIsSaidOnceAndKept) {
  WriteText(LOG_FILE, "an earlier request\n");
  std::filesystem::permissions(LOG_FILE, std::filesystem::perms(0444));
  ExpectSaidOnce("Can't open log file /tmp/cgi.log: Permission denied\n");
  EXPECT_EQ(ReadText(LOG_FILE), "an earlier request\n");
}

TEST_F(UnusableLog, AFullDiskIsSaidOnce) {
  std::filesystem::create_symlink("/dev/full", LOG_FILE);
  ExpectSaidOnce("Can't write log file /tmp/cgi.log: No space left on device\n");
}

TEST_F(UnusableLog, AFullDiskDoesNotStopTheVm) {
  std::filesystem::create_symlink("/dev/full", LOG_FILE);
  const Result result = ExpectThePageUnchanged(Get("CanDetectTimeout=500"));
  EXPECT_EQ(result.error, "Can't write log file /tmp/cgi.log: No space left on device\n");
}

TEST_F(UnusableLog, TheVmKeepsItsOwnSystemErrAndSaysWhyThere) {
  std::filesystem::create_directory(LOG_FILE);
  const Result result = ExpectThePageUnchanged(Get("CanDetectTimeout=500"));
  EXPECT_THAT(result.error, StartsWith("Can't open log file /tmp/cgi.log: Is a directory\n"
                                       "Exception in thread \"main\" "
                                       "java.io.FileNotFoundException: /tmp/cgi.log"));
}

TEST_F(UnusableLog, AMissingClassIsDescribedOnStandardError) {
  std::filesystem::create_directory(LOG_FILE);
  Command request = Get("CanDetectTimeout=500");
  request.environment["JAVA_CLASSPATH"] = "/nowhere";
  const Result result = Execute(request);
  EXPECT_EQ(result.output, FrameOnly());
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(result.error, HasSubstr("NoClassDefFoundError: com/tarn/vemo/config/ConfigVemo"));
}

}  // namespace
