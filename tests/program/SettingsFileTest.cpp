// The settings file in the conditions in which a device can find itself: whatever happens, it holds
// what it held or the new value, whole, and the page reports success.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <future>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "ExpectedPage.h"
#include "Files.h"
#include "Process.h"
#include "Request.h"
#include "Sandbox.h"
#include "SmallDisk.h"

namespace {

namespace fs = std::filesystem;
using testing::AnyOf;
using testing::Contains;
using testing::ContainsRegex;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

const fs::path FILE_PATH = SETTINGS_FILE;
const fs::path FOLDER = FILE_PATH.parent_path();
const fs::path ELSEWHERE = "/app/tarn-belox/elsewhere";

// A settings file with this value, among others' settings.
std::string Settings(const std::string& value) {
  return "# Of the diagnostic runtime.\n[SETTINGS]\nVEMODRequestRetries = 2\n"
         "VEMODCanDetectTimeout = " +
         value + "\n\n[CAN]\nTermination=0\n";
}

const std::string OLD = Settings("300");

// Written long ago: a file that was written just now may be read again, which is more calls.
void WriteOld(const fs::path& path) {
  WriteText(path, OLD);
  fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(1));
}

Command Request(const std::string& value) {
  return WithFakeVm(Get("CanDetectTimeout=" + value));
}

void ExpectSuccess(const Command& request, const std::string& value) {
  const Result result = Execute(request);
  EXPECT_EQ(result.output, SuccessPage(value));
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.exitStatus, 0);
}

ino_t Inode(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_ino;
}

fs::perms Mode(const fs::path& path) {
  return fs::status(path).permissions();
}

std::vector<std::string> Names(const fs::path& folder) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

class SettingsFile : public testing::Test {
 protected:
  void SetUp() override {
    ResetDevice();
    WriteText(SETTINGS_FILE, OLD);
  }
  void TearDown() override {
    ResetDevice();
    fs::remove_all(ELSEWHERE);
  }

  // Makes the settings file a link to another.
  static void Link(const fs::path& target) {
    fs::remove(SETTINGS_FILE);
    fs::create_symlink(target, SETTINGS_FILE);
  }
};

TEST_F(SettingsFile, GetsTheValueAndKeepsTheRest) {
  ExpectSuccess(Request("500"), "500");
  EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
  EXPECT_THAT(Names(FOLDER), ElementsAre("obd.conf"));
}

TEST_F(SettingsFile, IsMadeWhenItIsMissing) {
  fs::remove(SETTINGS_FILE);
  ExpectSuccess(Request("500"), "500");
  EXPECT_EQ(ReadText(SETTINGS_FILE), "[SETTINGS]\nVEMODCanDetectTimeout=500\n");
}

TEST_F(SettingsFile, IsNotMadeWhenItsFolderIsMissing) {
  fs::remove_all(FOLDER);
  ExpectSuccess(Request("500"), "500");
  EXPECT_FALSE(fs::exists(FOLDER));
}

TEST_F(SettingsFile, StaysAsItWasWhenItMayNotBeRead) {
  fs::permissions(SETTINGS_FILE, fs::perms(0));
  ExpectSuccess(Request("500"), "500");
  EXPECT_EQ(Mode(SETTINGS_FILE), fs::perms(0));
  fs::permissions(SETTINGS_FILE, fs::perms(0600));
  EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
}

TEST_F(SettingsFile, KeepsItsModeWhenItIsReadOnly) {
  fs::permissions(SETTINGS_FILE, fs::perms(0444));
  ExpectSuccess(Request("500"), "500");
  EXPECT_EQ(Mode(SETTINGS_FILE), fs::perms(0444));
  EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
}

TEST_F(SettingsFile, StaysALink) {
  WriteText(ELSEWHERE / "target", OLD);
  Link("../elsewhere/target");
  ExpectSuccess(Request("500"), "500");
  EXPECT_EQ(fs::read_symlink(SETTINGS_FILE), "../elsewhere/target");
  EXPECT_EQ(ReadText(ELSEWHERE / "target"), Settings("500"));
  EXPECT_THAT(Names(ELSEWHERE), ElementsAre("target"));
}

TEST_F(SettingsFile, IsRewrittenInPlaceInAReadOnlyFolder) {
  fs::permissions(FOLDER, fs::perms(0555));
  const ino_t before = Inode(SETTINGS_FILE);
  for (const std::string value : {"50000", "5"}) {
    ExpectSuccess(Request(value), value);
    EXPECT_EQ(ReadText(SETTINGS_FILE), Settings(value));
  }
  EXPECT_EQ(Inode(SETTINGS_FILE), before);
}

TEST_F(SettingsFile, StaysAsItWasWhenFileAndFolderAreReadOnly) {
  fs::permissions(SETTINGS_FILE, fs::perms(0444));
  fs::permissions(FOLDER, fs::perms(0555));
  ExpectSuccess(Request("500"), "500");
  EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
}

constexpr char MOUNTS[] = "nothing can be mounted";

// The request where these mounts are made.
Command WithMounts(const std::vector<std::string>& mounts, Command request) {
  std::vector<std::string> words = {"/usr/bin/bwrap", "--dev-bind", "/", "/"};
  words.insert(words.end(), mounts.begin(), mounts.end());
  request.words.insert(request.words.begin(), words.begin(), words.end());
  return request;
}

TEST_F(SettingsFile, StaysAsItWasOnAReadOnlyFileSystem) {
  SKIP_WHERE_TRACED(MOUNTS);
  ExpectSuccess(WithMounts({"--ro-bind", "/app", "/app"}, Request("500")), "500");
  EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
}

TEST_F(SettingsFile, IsRewrittenInPlaceWhenItIsMountedOnItsOwn) {
  SKIP_WHERE_TRACED(MOUNTS);
  const ino_t before = Inode(SETTINGS_FILE);
  for (const std::string value : {"50000", "5"}) {
    ExpectSuccess(WithMounts({"--bind", SETTINGS_FILE, SETTINGS_FILE}, Request(value)), value);
    EXPECT_EQ(ReadText(SETTINGS_FILE), Settings(value));
  }
  EXPECT_EQ(Inode(SETTINGS_FILE), before);
  EXPECT_THAT(Names(FOLDER), ElementsAre("obd.conf"));
}

TEST_F(SettingsFile, StaysAsItWasOnAFullDisk) {
  SKIP_WHERE_TRACED(SmallDisk::NEED);
  SmallDisk disk;
  WriteText(disk.Path() / "obd.conf", OLD);
  disk.Fill();
  Link(disk.Path() / "obd.conf");
  ExpectSuccess(Request("500"), "500");
  EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
  EXPECT_THAT(Names(disk.Path()), testing::UnorderedElementsAre("filler", "obd.conf"));
}

TEST_F(SettingsFile, StaysAsItWasOnAFullDiskAlsoWhereItIsRewrittenInPlace) {
  SKIP_WHERE_TRACED(SmallDisk::NEED);
  SmallDisk disk;
  WriteText(disk.Path() / "obd.conf", OLD);
  disk.Fill();
  fs::permissions(disk.Path(), fs::perms(0555));
  Link(disk.Path() / "obd.conf");
  const std::string value(20000, '5');
  ExpectSuccess(Request(value), value);
  EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
}

TEST_F(SettingsFile, IsNotWaitedForWhenItIsANamedPipe) {
  fs::remove(SETTINGS_FILE);
  ASSERT_EQ(mkfifo(SETTINGS_FILE, 0666), 0);
  ExpectSuccess(Request("500"), "500");
  EXPECT_TRUE(fs::is_fifo(SETTINGS_FILE));
}

TEST_F(SettingsFile, MayBeAFolderWhichStays) {
  fs::remove(SETTINGS_FILE);
  WriteText(FILE_PATH / "inside", OLD);
  ExpectSuccess(Request("500"), "500");
  EXPECT_EQ(ReadText(FILE_PATH / "inside"), OLD);
}

// Of two requests at once, one stores last, and neither meets the other's half.
TEST_F(SettingsFile, IsWholeAfterRequestsAtTheSameTime) {
  constexpr int ROUNDS = 150;
  for (int round = 0; round < ROUNDS; ++round) {
    const std::string longer = std::to_string(100000 + round);
    const std::string shorter = std::to_string(round);
    auto other = std::async(std::launch::async, ExpectSuccess, Request(longer), longer);
    ExpectSuccess(Request(shorter), shorter);
    other.get();
    ASSERT_THAT(ReadText(SETTINGS_FILE), AnyOf(Settings(longer), Settings(shorter)));
    ASSERT_THAT(Names(FOLDER), ElementsAre("obd.conf"));
  }
}

void StoreAtTheSameTimeInPlace(int rounds, const std::vector<std::string>& mounts = {}) {
  const std::vector<std::string> values = {"1", "1234", std::string(90, '5'),
                                           std::string(3000, '7')};
  std::vector<std::string> texts;
  for (const std::string& value : values) {
    texts.push_back(Settings(value));
  }
  const ino_t before = Inode(SETTINGS_FILE);
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::future<void>> requests;
    for (const std::string& value : values) {
      const Command request = mounts.empty() ? Request(value) : WithMounts(mounts, Request(value));
      requests.push_back(std::async(std::launch::async, ExpectSuccess, request, value));
    }
    requests.clear();
    ASSERT_THAT(texts, Contains(ReadText(SETTINGS_FILE)));
  }
  EXPECT_EQ(Inode(SETTINGS_FILE), before);
}

TEST_F(SettingsFile, IsWholeAfterRequestsAtTheSameTimeInAReadOnlyFolder) {
  fs::permissions(FOLDER, fs::perms(0555));
  StoreAtTheSameTimeInPlace(60);
}

TEST_F(SettingsFile, IsWholeAfterRequestsAtTheSameTimeWhenItIsMountedOnItsOwn) {
  SKIP_WHERE_TRACED(MOUNTS);
  StoreAtTheSameTimeInPlace(25, {"--bind", SETTINGS_FILE, SETTINGS_FILE});
}

TEST_F(SettingsFile, OfAbsurdSizeStaysAsItWas) {
  fs::resize_file(SETTINGS_FILE, 1ULL << 40);
  ExpectSuccess(Request("500"), "500");
  EXPECT_EQ(fs::file_size(SETTINGS_FILE), 1ULL << 40);
}

// Nor does the real Java VM lock anything, with the options of the device.
TEST_F(SettingsFile, IsNotLockedNorIsTheLog) {
  SKIP_WHERE_TRACED("nothing else can be traced");
  for (const bool isByRename : {true, false}) {
    fs::permissions(FOLDER, fs::perms(isByRename ? 0755 : 0555));
    Command request = Get("CanDetectTimeout=500");
    request.environment["JAVA_OPTIONS"] = "-XX:VMOptionsFile=/srv/vemo/java.options";
    const std::vector<std::string> strace = {
        "/usr/bin/strace", "-f", "-y", "-o", "/tmp/calls", "-e", "trace=openat,flock,fcntl"};
    request.words.insert(request.words.begin(), strace.begin(), strace.end());
    ExpectSuccess(request, "500");
    const std::vector<std::string> calls = Lines(ReadText("/tmp/calls"));
    EXPECT_THAT(calls, Contains(HasSubstr("obd.conf")));
    EXPECT_THAT(calls, Contains(HasSubstr("cgi.log")));
    EXPECT_THAT(calls, Each(Not(ContainsRegex("flock\\(|_(SETLKW?(64)?|SETLEASE)[,)]"))));
    fs::remove("/tmp/calls");
  }
}

// How long the request takes, as a rule.
std::chrono::microseconds Duration(const Command& request) {
  constexpr int RUNS = 9;
  std::multiset<std::chrono::microseconds> durations;
  for (int run = 0; run < RUNS; ++run) {
    const auto start = std::chrono::steady_clock::now();
    Execute(request);
    durations.insert(std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - start));
  }
  return *std::next(durations.begin(), RUNS / 2);
}

TEST_F(SettingsFile, IsWholeWhenTheRequestIsKilledAtAnyMoment) {
  constexpr int KILLS = 200;
  constexpr unsigned SEED = 1;
  // Long, so that the store takes its time.
  const std::string comment = ";" + std::string(400000, 'x') + "\n";
  const std::string before = comment + OLD + comment;
  const std::string after = comment + Settings("500") + comment;
  Command request = Request("500");
  WriteText(SETTINGS_FILE, before);
  const auto duration = Duration(request);
  request.prepare = [] { dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO); };

  std::mt19937 random(SEED);
  std::uniform_real_distribution<> part(0, 1.5);
  std::set<bool> isStored;
  int killed = 0;
  for (int kill = 0; kill < KILLS; ++kill) {
    WriteText(SETTINGS_FILE, before);
    BackgroundProcess process(request);
    const auto delay = part(random) * duration;
    std::this_thread::sleep_for(delay);
    killed += process.End(SIGKILL).signal == SIGKILL ? 1 : 0;
    const std::string text = ReadText(SETTINGS_FILE);
    ASSERT_TRUE(text == before || text == after)
        << "torn after " << delay.count() << " us, " << text.size() << " bytes";
    isStored.insert(text == after);
  }
  EXPECT_THAT(isStored, ElementsAre(false, true));
  EXPECT_GT(killed, KILLS / 10);
}

// The calls of the program on the settings file's folder, as preload/FailingFileCalls.cpp names
// them.
class SettingsFileCalls : public SettingsFile {
 protected:
  static constexpr char TRACE[] = "/tmp/calls";

  static Command Watched(Command request) {
    request = Preload("failing-file-calls", request);
    request.environment["FAILING_FILE_CALLS_FOLDER"] = FOLDER;
    request.environment["FAILING_FILE_CALLS_TRACE"] = TRACE;
    fs::remove(TRACE);
    return request;
  }

  static std::vector<std::string> Calls() {
    static const std::regex temporary(R"(\.ini-\d+-\d+\.tmp)");
    return Lines(std::regex_replace(ReadText(TRACE), temporary, "temporary"));
  }

  // Those of the store, from the first that touches the disk.
  static std::vector<std::string> StoreCalls() {
    const std::vector<std::string> calls = Calls();
    return {std::find(calls.begin(), calls.end(), "open temporary 600"), calls.end()};
  }

  // The request, in which the call will fail with this error.
  static Command WithFailure(Command request, const std::string& call, int error) {
    WriteOld(SETTINGS_FILE);
    Execute(Watched(request));
    const std::vector<std::string> calls = Calls();
    EXPECT_THAT(calls, Contains(call));
    const auto number = std::find(calls.begin(), calls.end(), call) - calls.begin() + 1;
    WriteOld(SETTINGS_FILE);
    request = Watched(request);
    request.environment["FAILING_FILE_CALLS"] = std::to_string(number);
    request.environment["FAILING_FILE_CALLS_ERROR"] = std::to_string(error);
    return request;
  }
};

TEST_F(SettingsFileCalls, BringTheContentToTheDiskBeforeItGetsItsName) {
  fs::permissions(SETTINGS_FILE, fs::perms(0640));
  ExpectSuccess(Watched(Request("500")), "500");
  EXPECT_THAT(
      StoreCalls(),
      ElementsAre("open temporary 600", "fstat temporary", "flistxattr temporary",
                  "fchmod temporary 640", "pwrite temporary", "fsync temporary", "close temporary",
                  "rename temporary obd.conf", "open .", "fsync .", "close ."));
}

TEST_F(SettingsFileCalls, TakeTheRoomFirstAndCutLastInPlace) {
  fs::permissions(FOLDER, fs::perms(0555));
  ExpectSuccess(Watched(Request("50000")), "50000");
  EXPECT_THAT(StoreCalls(),
              ElementsAre("open temporary 600", "open obd.conf", "fstat obd.conf", "pread obd.conf",
                          "pread obd.conf", "fstat obd.conf", "posix_fallocate obd.conf",
                          "pwrite obd.conf", "ftruncate obd.conf", "fstat obd.conf",
                          "pread obd.conf", "pread obd.conf", "fsync obd.conf", "close obd.conf"));
  ExpectSuccess(Watched(Request("5")), "5");
  EXPECT_THAT(StoreCalls(),
              ElementsAre("open temporary 600", "open obd.conf", "fstat obd.conf", "pread obd.conf",
                          "pread obd.conf", "fstat obd.conf", "pwrite obd.conf",
                          "ftruncate obd.conf", "fstat obd.conf", "pread obd.conf",
                          "pread obd.conf", "fsync obd.conf", "close obd.conf"));
}

// The steps of a store by rename that can be refused.
const std::vector<std::string> REFUSABLE = {"open temporary 600", "flistxattr temporary",
                                            "fchmod temporary 644", "rename temporary obd.conf"};

TEST_F(SettingsFileCalls, RewriteInPlaceWherePermissionIsDenied) {
  for (const std::string& call : REFUSABLE) {
    for (const int error : {EACCES, EPERM, EROFS, EBUSY, EXDEV}) {
      SCOPED_TRACE(call + " " + std::to_string(error));
      const Command request = WithFailure(Request("500"), call, error);
      const ino_t before = Inode(SETTINGS_FILE);
      ExpectSuccess(request, "500");
      EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
      EXPECT_EQ(Inode(SETTINGS_FILE), before);
    }
  }
}

TEST_F(SettingsFileCalls, RiskNothingInPlaceWhereTheDiskIsFullOrBroken) {
  for (const std::string& call : REFUSABLE) {
    for (const int error : {ENOSPC, EDQUOT, EIO, ENFILE}) {
      SCOPED_TRACE(call + " " + std::to_string(error));
      ExpectSuccess(WithFailure(Request("500"), call, error), "500");
      EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
      EXPECT_THAT(StoreCalls(), Not(Contains("open obd.conf")));
    }
  }
}

// A process of another container, which knows other process ids, took it for a leftover.
TEST_F(SettingsFileCalls, MakeATemporaryFileThatIsGoneAnew) {
  ExpectSuccess(WithFailure(Request("500"), "rename temporary obd.conf", ENOENT), "500");
  EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
  EXPECT_THAT(Names(FOLDER), ElementsAre("obd.conf"));
}

TEST_F(SettingsFileCalls, GiveTheNewContentToTheOldOwnerBeforeItsMode) {
  fs::permissions(SETTINGS_FILE, fs::perms(0640));
  Command request = Watched(Request("500"));
  request.environment["FAILING_FILE_CALLS_OWNER"] = "4242 4343";
  ExpectSuccess(request, "500");
  EXPECT_THAT(StoreCalls(),
              ElementsAre("open temporary 600", "fstat temporary", "fchown temporary 4242 4343",
                          "flistxattr temporary", "fchmod temporary 640", "pwrite temporary",
                          "fsync temporary", "close temporary", "rename temporary obd.conf",
                          "open .", "fsync .", "close ."));
}

TEST_F(SettingsFileCalls, LeaveTheFileOfAnotherOwnerWhereTheDiskIsFull) {
  Command request = Request("500");
  request.environment["FAILING_FILE_CALLS_OWNER"] = "4242 4343";
  ExpectSuccess(WithFailure(request, "fchown temporary 4242 4343", ENOSPC), "500");
  EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
  EXPECT_THAT(StoreCalls(), Not(Contains("open obd.conf")));
}

TEST_F(SettingsFileCalls, RewriteTheFileOfAnOwnerThatCannotBeKept) {
  Command request = Request("500");
  request.environment["FAILING_FILE_CALLS_OWNER"] = "4242 4343";
  // EINVAL: of an owner whose number a user namespace does not know.
  for (const int error : {EPERM, EINVAL}) {
    const Command failing = WithFailure(request, "fchown temporary 4242 4343", error);
    const ino_t before = Inode(SETTINGS_FILE);
    ExpectSuccess(failing, "500");
    EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
    EXPECT_EQ(Inode(SETTINGS_FILE), before);
    EXPECT_THAT(Names(FOLDER), ElementsAre("obd.conf"));
  }
}

TEST_F(SettingsFileCalls, ReplaceTheFileOfAnotherOfTheGroupThatTheFolderIsSharedBy) {
  const auto SHARED_FOLDER = fs::perms(02775);
  const auto SHARED = fs::perms(0664);
  const auto isReplaced = [](fs::perms folder, fs::perms file) {
    fs::permissions(FOLDER, folder);
    fs::permissions(SETTINGS_FILE, file);
    Command request = Request("500");
    request.environment["FAILING_FILE_CALLS_OWNER"] = "4242 4343";
    request = WithFailure(request, "fchown temporary 4242 4343", EPERM);
    const ino_t before = Inode(SETTINGS_FILE);
    ExpectSuccess(request, "500");
    EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
    EXPECT_EQ(fs::status(SETTINGS_FILE).permissions(), file);
    return Inode(SETTINGS_FILE) != before;
  };
  EXPECT_TRUE(isReplaced(SHARED_FOLDER, SHARED));
  EXPECT_THAT(StoreCalls(), Contains("fchown temporary 4294967295 4343"));
  EXPECT_FALSE(isReplaced(fs::perms(0775), SHARED));
  EXPECT_FALSE(isReplaced(SHARED_FOLDER, fs::perms(0644)));
}

// What the settings file is before the request, and what it may be afterwards.
struct Situation {
  std::function<void()> prepare;
  std::string value;   // of the request
  std::string before;  // read at the settings file's path
  std::string after;
};

const Situation USUAL = {[] { WriteOld(SETTINGS_FILE); }, "50000", OLD, Settings("50000")};
const Situation MISSING = {[] {}, "500", "", "[SETTINGS]\nVEMODCanDetectTimeout=500\n"};
const Situation LINK = {[] {
                          WriteOld(FOLDER / "target");
                          fs::create_symlink("target", SETTINGS_FILE);
                        },
                        "500", OLD, Settings("500")};
const Situation LONGER_IN_PLACE = {[] {
                                     WriteOld(SETTINGS_FILE);
                                     fs::permissions(FOLDER, fs::perms(0555));
                                   },
                                   "50000", OLD, Settings("50000")};
const Situation SHORTER_IN_PLACE = {LONGER_IN_PLACE.prepare, "5", OLD, Settings("5")};

class EachSettingsFileCall : public SettingsFileCalls {
 protected:
  // With few bytes at a time, so that a store is many calls.
  static Command Prepared(const Situation& situation) {
    ResetDevice();
    situation.prepare();
    Command request = Watched(Request(situation.value));
    request.environment["FAILING_FILE_CALLS_PIECE"] = "16";
    return request;
  }

  // Makes the request again and again, each time with another of its calls chosen to fail.
  static void ChooseEachCall(
      const Situation& situation,
      const std::function<void(Command request, const std::string& call)>& run) {
    ExpectSuccess(Prepared(situation), situation.value);
    ASSERT_EQ(ReadText(SETTINGS_FILE), situation.after);
    const std::vector<std::string> calls = Calls();
    for (std::size_t number = 1; number <= calls.size(); ++number) {
      SCOPED_TRACE(std::to_string(number) + ": " + calls[number - 1]);
      Command request = Prepared(situation);
      request.environment["FAILING_FILE_CALLS"] = std::to_string(number);
      const bool wasLink = fs::is_symlink(SETTINGS_FILE);
      run(request, calls[number - 1]);
      EXPECT_EQ(fs::is_symlink(SETTINGS_FILE), wasLink);
      EXPECT_THAT(ReadText(SETTINGS_FILE), AnyOf(situation.before, situation.after));
    }
  }
};

bool IsTransfer(const std::string& call) {
  return call.rfind("pread ", 0) == 0 || call.rfind("pwrite ", 0) == 0;
}

TEST_F(EachSettingsFileCall, IsRepeatedWhenASignalInterruptsAReadOrAWrite) {
  for (const Situation& situation : {USUAL, LONGER_IN_PLACE, SHORTER_IN_PLACE}) {
    ChooseEachCall(situation, [&](Command request, const std::string& call) {
      request.environment["FAILING_FILE_CALLS_ERROR"] = std::to_string(EINTR);
      ExpectSuccess(request, situation.value);
      if (IsTransfer(call)) {
        EXPECT_EQ(ReadText(SETTINGS_FILE), situation.after);
      }
    });
  }
}

TEST_F(EachSettingsFileCall, MayBePreventedByAKill) {
  for (const Situation& situation : {USUAL, MISSING, LINK}) {
    ChooseEachCall(situation, [](const Command& request, const std::string&) {
      EXPECT_EQ(Execute(request).signal, SIGKILL);
    });
  }
}

struct Failure {
  std::string name;
  int error;
};

std::ostream& operator<<(std::ostream& out, const Failure& failure) {
  return out << failure.name;
}

class FailingSettingsFileCalls : public EachSettingsFileCall,
                                 public testing::WithParamInterface<Failure> {
 protected:
  // Each call fails, and with `more` all that follow it.
  static void FailEachCall(const Situation& situation, const std::string& more = "") {
    ChooseEachCall(situation, [&](Command request, const std::string&) {
      request.environment["FAILING_FILE_CALLS"] += more;
      request.environment["FAILING_FILE_CALLS_ERROR"] = std::to_string(GetParam().error);
      ExpectSuccess(request, situation.value);
      EXPECT_THAT(Names(FOLDER), Not(Contains(EndsWith(".tmp"))));
    });
  }
};

TEST_P(FailingSettingsFileCalls, LeaveTheFileOldOrNew) {
  FailEachCall(USUAL);
}

TEST_P(FailingSettingsFileCalls, LeaveAMissingFileMissingOrNew) {
  FailEachCall(MISSING);
}

TEST_P(FailingSettingsFileCalls, LeaveTheTargetOfALinkOldOrNew) {
  FailEachCall(LINK);
}

TEST_P(FailingSettingsFileCalls, LeaveTheFileOldOrNewWhenItIsMadeLongerInPlace) {
  FailEachCall(LONGER_IN_PLACE);
}

TEST_P(FailingSettingsFileCalls, LeaveTheFileOldOrNewWhenItIsMadeShorterInPlace) {
  FailEachCall(SHORTER_IN_PLACE);
}

// In place, nobody could put the old content back.
TEST_P(FailingSettingsFileCalls, LeaveTheFileOldOrNewWhenAllThatFollowFailToo) {
  for (const Situation& situation : {USUAL, MISSING, LINK}) {
    FailEachCall(situation, "-");
  }
}

INSTANTIATE_TEST_SUITE_P(ByError, FailingSettingsFileCalls,
                         testing::Values(Failure{"NoSpace", ENOSPC},
                                         Failure{"InputOutputError", EIO},
                                         Failure{"NoPermission", EACCES},
                                         Failure{"ReadOnlyFileSystem", EROFS}),
                         [](const auto& failure) { return failure.param.name; });

}  // namespace
