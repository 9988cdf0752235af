// A log statement never ends or holds a request: refusals of the log file and of standard error
// that the kernel makes a signal or a wait of. The page is whole, the value stored, the exit status
// 0.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "Files.h"
#include "LogLine.h"
#include "Pipe.h"
#include "Process.h"
#include "Request.h"
#include "SmallDisk.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char OLD_SETTINGS[] = "[SETTINGS]\nVEMODCanDetectTimeout=100\n";
constexpr char NEW_SETTINGS[] = "[SETTINGS]\nVEMODCanDetectTimeout=500\n";
constexpr off_t LIMIT = 1 << 20;

void CloseTheReaderOfStandardError() {
  Pipe pipe;
  dup2(pipe.ends[1], STDERR_FILENO);
}

void LimitTheSizeOfFiles() {
  const rlimit limit = {LIMIT, LIMIT};
  setrlimit(RLIMIT_FSIZE, &limit);
}

void FillTheLogToItsLimit() {
  WriteText(LOG_FILE, "an earlier request\n");
  std::filesystem::resize_file(LOG_FILE, LIMIT);
}

class LogRefusal : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    ResetDevice();
    WriteText(SETTINGS_FILE, OLD_SETTINGS);
  }

  // With the fake Java VM or the real one, which has signal handlers of its own.
  static Command Request() {
    const Command request = Get("CanDetectTimeout=500");
    return GetParam() ? WithoutJava(request) : request;
  }

  static Result ExpectSuccess(const Command& request) {
    const Result result = Execute(request);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, SuccessPage("500"));
    EXPECT_EQ(ReadText(SETTINGS_FILE), NEW_SETTINGS);
    return result;
  }
};

TEST_P(LogRefusal, IsBorneWhenNobodyReadsStandardErrorEither) {
  std::filesystem::create_directory(LOG_FILE);
  Command request = Request();
  request.prepare = CloseTheReaderOfStandardError;
  ExpectSuccess(request);
}

TEST_P(LogRefusal, IsBorneAtTheLimitOnTheSizeOfFiles) {
  FillTheLogToItsLimit();
  Command request = Request();
  request.prepare = LimitTheSizeOfFiles;
  EXPECT_EQ(ExpectSuccess(request).error, "Can't write log file /tmp/cgi.log: File too large\n");
}

TEST_P(LogRefusal, IsBorneAtTheLimitWhenNobodyReadsStandardErrorEither) {
  FillTheLogToItsLimit();
  Command request = Request();
  request.prepare = [] {
    LimitTheSizeOfFiles();
    CloseTheReaderOfStandardError();
  };
  ExpectSuccess(request);
}

INSTANTIATE_TEST_SUITE_P(Program, LogRefusal, testing::Bool(),
                         [](const auto& info) { return info.param ? "FakeVm" : "RealVm"; });

class FakeVmLogRefusal : public LogRefusal {};

// Java's own opening of such a pipe waits; nothing inside the program can help that.
TEST_P(FakeVmLogRefusal, IsBorneOfANamedPipeThatNobodyReads) {
  ASSERT_EQ(mkfifo(LOG_FILE, 0600), 0);
  EXPECT_EQ(ExpectSuccess(Request()).error,
            "Can't open log file /tmp/cgi.log: No such device or address\n");
}

// The log's disk has room for a part of one line.
TEST_P(FakeVmLogRefusal, EndsTheLineThatAFullDiskCut) {
  SmallDisk disk;
  const std::filesystem::path log = disk.Path() / "cgi.log";
  WriteText(log, std::string(4096 - 41, 'x') + "\n");
  disk.Fill();
  std::filesystem::create_symlink(log, LOG_FILE);
  ExpectSuccess(Request());
  std::filesystem::remove(disk.Path() / "filler");
  ExpectSuccess(Request());

  const std::vector<std::string> lines = Lines(ReadText(log));
  ASSERT_EQ(lines.size(), 2 + SuccessStatements().size());
  EXPECT_EQ(lines[1].size(), 39u) << "the cut line: " << lines[1];
  EXPECT_EQ(Statements(ReadText(log)), SuccessStatements());
}

INSTANTIATE_TEST_SUITE_P(Program, FakeVmLogRefusal, testing::Values(true),
                         [](const auto&) { return "FakeVm"; });

// Another process, a file server say, holds a lease on the settings file.
TEST(LeasedSettingsFile, IsWaitedForAndThenStored) {
  ResetDevice();
  WriteText(SETTINGS_FILE, OLD_SETTINGS);
  signal(SIGIO, SIG_IGN);
  const int holder = open(SETTINGS_FILE, O_RDWR | O_CLOEXEC);
  ASSERT_EQ(fcntl(holder, F_SETLEASE, F_WRLCK), 0);
  auto request = std::async(std::launch::async, Execute, WithoutJava(Get("CanDetectTimeout=500")));
  EXPECT_EQ(request.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  EXPECT_EQ(fcntl(holder, F_SETLEASE, F_UNLCK), 0);
  close(holder);
  signal(SIGIO, SIG_DFL);
  const Result result = request.get();
  EXPECT_EQ(result.output, SuccessPage("500"));
  EXPECT_EQ(ReadText(SETTINGS_FILE), NEW_SETTINGS);
}

}  // namespace
