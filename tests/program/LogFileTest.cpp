// How log lines are written, and that no refusal by the log file or by standard error ends a
// request, not even those that the kernel makes a signal or a wait of.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "Pipe.h"
#include "ProgramTest.h"
#include "Sandbox.h"
#include "SmallDisk.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAreArray;
using testing::HasSubstr;

constexpr char EARLIER[] = "an earlier request\n";

// ---- Each line is one write.

class LogWrites : public NoSettings {
 protected:
  // Makes the request and expects that each of its writes to the log is a line.
  static void ExpectALineEach(Command request) {
    request = Preload("failing-file-calls", request);
    request.environment["FAILING_FILE_CALLS_FOLDER"] = "/tmp";
    request.environment["FAILING_FILE_CALLS_TRACE"] = CALLS_FILE;
    Execute(request);
    Texts expected;
    for (const std::string& line : Lines(ReadText(LOG_FILE))) {
      expected.push_back("write cgi.log " + std::to_string(line.size() + 1));
    }
    EXPECT_THAT(StartingWith("write cgi.log ", Lines(ReadText(CALLS_FILE))),
                ElementsAreArray(expected));
  }
};

// Where offsets of 32 bits end. Nothing but the end takes room on the disk.
TEST_F(LogWrites, GoOnBeyondTwoAndFourGiB) {
  for (const std::uintmax_t size : {(1ULL << 31) - 3, (1ULL << 32) - 3, 5ULL << 30}) {
    SCOPED_TRACE(size);
    WriteText(LOG_FILE, "");
    fs::resize_file(LOG_FILE, size);
    Execute(WithFakeVm(Get("CanDetectTimeout=500")));
    std::ifstream log(LOG_FILE, std::ios::binary);
    log.seekg(static_cast<std::streamoff>(size));
    const std::string added(std::istreambuf_iterator<char>(log), {});
    EXPECT_THAT(added, testing::EndsWith("\n"));
    EXPECT_THAT(added, HasSubstr("src/SetObdConf"));
    fs::remove(LOG_FILE);
  }
}

TEST_F(LogWrites, EveryLineIsOne) {
  WriteText(LOG_FILE, "");
  ExpectALineEach(WithFakeVm(Get("")));
  EXPECT_EQ(LoggedLines().size(), 7u);
}

TEST_F(LogWrites, TheLongestLineIsOne) {
  // The kernel hands no longer text than this to a program, name, end and all.
  const std::string longest(131072 - sizeof "JAVA_OPTIONS=", 'x');
  ExpectALineEach(WithVariable(WithFakeVm(Get("CanDetectTimeout=500")), "JAVA_OPTIONS", longest));
  const Texts statements = LoggedStatements();
  ASSERT_EQ(statements.size(), 5u);
  EXPECT_TRUE(statements[2] == "DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: " + longest);
}

// ---- A log file that cannot be used: the page is whole, the value stored, the exit status 0.

constexpr off_t LIMIT = 1 << 20;

void PutAFolderInItsPlace() {
  fs::create_directory(LOG_FILE);
}

void MakeItReadOnly() {
  WriteText(LOG_FILE, EARLIER);
  fs::permissions(LOG_FILE, fs::perms(0444));
}

void PutItOnAFullDisk() {
  fs::create_symlink("/dev/full", LOG_FILE);
}

void FillItToTheLimit() {
  WriteText(LOG_FILE, EARLIER);
  fs::resize_file(LOG_FILE, LIMIT);
}

void LimitTheSizeOfFiles() {
  const rlimit limit = {LIMIT, LIMIT};
  setrlimit(RLIMIT_FSIZE, &limit);
}

void CloseTheReaderOfStandardError() {
  Pipe pipe;
  dup2(pipe.ends[1], STDERR_FILENO);
}

struct Refusal {
  const char* name;
  std::function<void()> prepare;         // makes the log file so
  std::function<void()> prepareProgram;  // in its process
  std::string error;                     // on standard error, once
  // What the real VM adds, which opens the file itself.
  std::string javaError;
};

const Refusal FOLDER{"AFolder",
                     PutAFolderInItsPlace,
                     {},
                     "Can't open log file /tmp/cgi.log: Is a directory\n",
                     "Exception in thread \"main\" java.io.FileNotFoundException: /tmp/cgi.log"};
const Refusal READ_ONLY{"AReadOnlyFile",
                        MakeItReadOnly,
                        {},
                        "Can't open log file /tmp/cgi.log: Permission denied\n",
                        FOLDER.javaError};
const Refusal FULL_DISK{"AFullDisk",
                        PutItOnAFullDisk,
                        {},
                        "Can't write log file /tmp/cgi.log: No space left on device\n",
                        ""};
const Refusal SIZE_LIMIT{"TheLimitOnTheSizeOfFiles", FillItToTheLimit, LimitTheSizeOfFiles,
                         "Can't write log file /tmp/cgi.log: File too large\n", ""};
const Refusal FOLDER_UNREAD{"AFolderAndNobodyReadsStandardError", PutAFolderInItsPlace,
                            CloseTheReaderOfStandardError, "", ""};
const Refusal SIZE_LIMIT_UNREAD{"TheLimitAndNobodyReadsStandardError", FillItToTheLimit,
                                [] {
                                  LimitTheSizeOfFiles();
                                  CloseTheReaderOfStandardError();
                                },
                                "", ""};

// The real Java VM has signal handlers of its own.
class LogRefusal : public OldSettings,
                   public testing::WithParamInterface<std::tuple<Refusal, Vm>> {};

TEST_P(LogRefusal, IsReportedOnceAndChangesNothingElse) {
  const auto& [refusal, vm] = GetParam();
  refusal.prepare();
  const std::string before = fs::is_regular_file(LOG_FILE) ? ReadText(LOG_FILE) : "";
  Command request = With(vm, Get("CanDetectTimeout=500"));
  request.prepare = refusal.prepareProgram;
  const Result result = Execute(request);
  const bool isJavaHeard = vm == Vm::kReal && !refusal.javaError.empty();
  ExpectSuccess(result, "500", isJavaHeard ? result.error : refusal.error);
  EXPECT_THAT(result.error,
              testing::StartsWith(refusal.error + (isJavaHeard ? refusal.javaError : "")));
  ExpectSettings(NEW_SETTINGS);
  EXPECT_TRUE(!fs::is_regular_file(LOG_FILE) || ReadText(LOG_FILE) == before);
}

INSTANTIATE_TEST_SUITE_P(Program, LogRefusal,
                         testing::Combine(testing::Values(FOLDER, READ_ONLY, FULL_DISK, SIZE_LIMIT,
                                                          FOLDER_UNREAD, SIZE_LIMIT_UNREAD),
                                          testing::Values(Vm::kReal, Vm::kFake)),
                         ParamName());

using UnusableLog = OldSettings;

// Java's own opening of such a pipe waits; nothing inside the program can help that.
TEST_F(UnusableLog, ANamedPipeThatNobodyReadsIsReportedOnce) {
  ASSERT_EQ(mkfifo(LOG_FILE, 0600), 0);
  ExpectSuccess(Execute(WithFakeVm(Get("CanDetectTimeout=500"))), "500",
                "Can't open log file /tmp/cgi.log: No such device or address\n");
  ExpectSettings(NEW_SETTINGS);
}

TEST_F(UnusableLog, AMissingClassIsDescribedOnStandardError) {
  fs::create_directory(LOG_FILE);
  const Result result =
      Execute(WithVariable(Get("CanDetectTimeout=500"), "JAVA_CLASSPATH", "/nowhere"));
  EXPECT_EQ(result.output, FrameOnly());
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(result.error, HasSubstr("NoClassDefFoundError: com/tarn/vemo/config/ConfigVemo"));
  ExpectSettings(OLD_SETTINGS);
}

// The log's disk has room for a part of one line.
TEST_F(UnusableLog, TheLineThatAFullDiskCutIsEndedLater) {
  SKIP_WHERE_TRACED(SmallDisk::NEED);
  SmallDisk disk;
  const fs::path log = disk.Path() / "cgi.log";
  WriteText(log, std::string(4096 - 41, 'x') + "\n");
  disk.Fill();
  fs::create_symlink(log, LOG_FILE);
  ExpectSuccess(Execute(WithFakeVm(Get("CanDetectTimeout=500"))), "500",
                "Can't write log file /tmp/cgi.log: No space left on device\n");
  fs::remove(disk.Path() / "filler");
  ExpectSuccess(Execute(WithFakeVm(Get("CanDetectTimeout=500"))));

  const Texts lines = Lines(ReadText(log));
  ASSERT_EQ(lines.size(), 2 + SuccessStatements().size());
  EXPECT_EQ(lines[1].size(), 39u) << "the cut line: " << lines[1];
  EXPECT_EQ(LoggedStatements(), SuccessStatements());
}

}  // namespace
