// No log statement ends a request: refusals of the log file and of standard error that the kernel
// makes a signal or a wait of. The page is whole, the value stored, the exit status 0.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Pipe.h"
#include "Process.h"
#include "ProgramTest.h"
#include "Request.h"
#include "Sandbox.h"
#include "SmallDisk.h"

namespace {

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

Result ExpectSuccess(const Command& request) {
  const Result result = Execute(request);
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.output, SuccessPage("500"));
  ExpectSettings(NEW_SETTINGS);
  return result;
}

using LogRefusal = OldSettings;

// The real Java VM has signal handlers of its own.
class LogRefusalWith : public OldSettings, public testing::WithParamInterface<Vm> {
 protected:
  static Command Request() { return With(GetParam(), Get("CanDetectTimeout=500")); }
};

TEST_P(LogRefusalWith, IsBorneWhenNobodyReadsStandardErrorEither) {
  std::filesystem::create_directory(LOG_FILE);
  Command request = Request();
  request.prepare = CloseTheReaderOfStandardError;
  ExpectSuccess(request);
}

TEST_P(LogRefusalWith, IsBorneAtTheLimitOnTheSizeOfFiles) {
  FillTheLogToItsLimit();
  Command request = Request();
  request.prepare = LimitTheSizeOfFiles;
  EXPECT_EQ(ExpectSuccess(request).error, "Can't write log file /tmp/cgi.log: File too large\n");
}

TEST_P(LogRefusalWith, IsBorneAtTheLimitWhenNobodyReadsStandardErrorEither) {
  FillTheLogToItsLimit();
  Command request = Request();
  request.prepare = [] {
    LimitTheSizeOfFiles();
    CloseTheReaderOfStandardError();
  };
  ExpectSuccess(request);
}

INSTANTIATE_TEST_SUITE_P(Program, LogRefusalWith, testing::Values(Vm::kReal, Vm::kFake),
                         [](const auto& info) { return NameOf(info.param); });

// Java's own opening of such a pipe waits; nothing inside the program can help that.
TEST_F(LogRefusal, IsBorneOfANamedPipeThatNobodyReads) {
  ASSERT_EQ(mkfifo(LOG_FILE, 0600), 0);
  EXPECT_EQ(ExpectSuccess(WithFakeVm(Get("CanDetectTimeout=500"))).error,
            "Can't open log file /tmp/cgi.log: No such device or address\n");
}

// The log's disk has room for a part of one line.
TEST_F(LogRefusal, EndsTheLineThatAFullDiskCut) {
  SKIP_WHERE_TRACED(SmallDisk::NEED);
  SmallDisk disk;
  const std::filesystem::path log = disk.Path() / "cgi.log";
  WriteText(log, std::string(4096 - 41, 'x') + "\n");
  disk.Fill();
  std::filesystem::create_symlink(log, LOG_FILE);
  ExpectSuccess(WithFakeVm(Get("CanDetectTimeout=500")));
  std::filesystem::remove(disk.Path() / "filler");
  ExpectSuccess(WithFakeVm(Get("CanDetectTimeout=500")));

  const std::vector<std::string> lines = Lines(ReadText(log));
  ASSERT_EQ(lines.size(), 2 + SuccessStatements().size());
  EXPECT_EQ(lines[1].size(), 39u) << "the cut line: " << lines[1];
  EXPECT_EQ(LoggedStatements(), SuccessStatements());
}

// Another process, a file server say, holds a lease on the settings file.
using LeasedSettingsFile = OldSettings;

TEST_F(LeasedSettingsFile, IsWaitedForAndThenStored) {
  signal(SIGIO, SIG_IGN);
  const int holder = open(SETTINGS_FILE, O_RDWR | O_CLOEXEC);
  ASSERT_EQ(fcntl(holder, F_SETLEASE, F_WRLCK), 0);
  auto request = std::async(std::launch::async, Execute, WithFakeVm(Get("CanDetectTimeout=500")));
  EXPECT_EQ(request.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  EXPECT_EQ(fcntl(holder, F_SETLEASE, F_UNLCK), 0);
  close(holder);
  signal(SIGIO, SIG_DFL);
  EXPECT_EQ(request.get().output, SuccessPage("500"));
  ExpectSettings(NEW_SETTINGS);
}

}  // namespace
