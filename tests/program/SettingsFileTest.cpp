// The settings file in every condition that a device can be in: whatever happens, it holds what it
// held or the new value, whole, and the page reports success.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <future>
#include <regex>

#include "ProgramTest.h"
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

void ExpectStores(const Command& request, const std::string& value = "500") {
  ExpectSuccess(Execute(request), value);
}

ino_t Inode(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_ino;
}

Texts Names(const fs::path& folder) {
  Texts names;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

class SettingsFile : public OldSettings {
 protected:
  void SetUp() override {
    OldSettings::SetUp();
    WriteText(SETTINGS_FILE, OLD);
  }
  void TearDown() override {
    ResetDevice();
    fs::remove_all(ELSEWHERE);
  }
};

// Makes the settings file a link to another.
void LinkTo(const fs::path& target) {
  fs::remove(SETTINGS_FILE);
  fs::create_symlink(target, SETTINGS_FILE);
}

void SetMode(const fs::path& path, int mode) {
  fs::permissions(path, fs::perms(mode));
}

// The request, in a mount namespace of its own if there are mounts.
Command WithMounts(const Texts& mounts, Command request) {
  if (!mounts.empty()) {
    request.words = Joined({{"/usr/bin/bwrap", "--dev-bind", "/", "/"}, mounts, request.words});
  }
  return request;
}

const Texts READ_ONLY_MOUNT = {"--ro-bind", "/app", "/app"};
const Texts MOUNT_OF_ITS_OWN = {"--bind", SETTINGS_FILE, SETTINGS_FILE};
constexpr char MOUNTS[] = "nothing can be mounted";

enum class Store { kReplaces, kRewritesInPlace, kFails };

struct Condition {
  const char* name;
  int fileMode;
  int folderMode;
  Store store;
  Texts mounts = {};
};

class SettingsFileIn : public SettingsFile, public testing::WithParamInterface<Condition> {};

TEST_P(SettingsFileIn, GetsTheValueAndKeepsTheRestOrStaysAsItWas) {
  const auto& [name, fileMode, folderMode, store, mounts] = GetParam();
  if (!mounts.empty()) {
    SKIP_WHERE_TRACED(MOUNTS);
  }
  SetMode(SETTINGS_FILE, fileMode);
  SetMode(FOLDER, folderMode);
  for (const std::string value : {"500", "50000", "5"}) {
    const ino_t before = Inode(SETTINGS_FILE);
    ExpectStores(WithMounts(mounts, Request(value)), value);
    EXPECT_EQ(Inode(SETTINGS_FILE) == before, store != Store::kReplaces);
    EXPECT_EQ(fs::status(SETTINGS_FILE).permissions(), fs::perms(fileMode));
    EXPECT_THAT(Names(FOLDER), ElementsAre("obd.conf"));
    if (store != Store::kFails) {
      EXPECT_EQ(ReadText(SETTINGS_FILE), Settings(value));
    }
  }
  if (store == Store::kFails) {
    SetMode(SETTINGS_FILE, 0600);
    EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Settings, SettingsFileIn,
    testing::Values(Condition{"AnOrdinaryFolder", 0644, 0755, Store::kReplaces},
                    Condition{"AReadOnlyFile", 0444, 0755, Store::kReplaces},
                    Condition{"AnUnreadableFile", 0, 0755, Store::kFails},
                    Condition{"AReadOnlyFolder", 0644, 0555, Store::kRewritesInPlace},
                    Condition{"AReadOnlyFileAndFolder", 0444, 0555, Store::kFails},
                    Condition{"AReadOnlyMount", 0644, 0755, Store::kFails, READ_ONLY_MOUNT},
                    Condition{"AMountOfItsOwn", 0644, 0755, Store::kRewritesInPlace,
                              MOUNT_OF_ITS_OWN}),
    ParamName());

TEST_F(SettingsFile, StaysALink) {
  WriteText(ELSEWHERE / "target", OLD);
  LinkTo("../elsewhere/target");
  ExpectStores(Request("500"));
  EXPECT_EQ(fs::read_symlink(SETTINGS_FILE), "../elsewhere/target");
  EXPECT_EQ(ReadText(ELSEWHERE / "target"), Settings("500"));
  EXPECT_THAT(Names(ELSEWHERE), ElementsAre("target"));
}

TEST_F(SettingsFile, IsMadeWhenItIsMissing) {
  fs::remove(SETTINGS_FILE);
  ExpectStores(Request("500"));
  ExpectSettings(NEW_SETTINGS);
}

TEST_F(SettingsFile, IsNotMadeWhenItsFolderIsMissing) {
  fs::remove_all(FOLDER);
  ExpectStores(Request("500"));
  EXPECT_FALSE(fs::exists(FOLDER));
}

TEST_F(SettingsFile, StaysAsItWasOnAFullDisk) {
  SKIP_WHERE_TRACED(SmallDisk::NEED);
  SmallDisk disk;
  WriteText(disk.Path() / "obd.conf", OLD);
  disk.Fill();
  LinkTo(disk.Path() / "obd.conf");
  ExpectStores(Request("500"));
  // Where it is rewritten in place, only a longer text needs room.
  SetMode(disk.Path(), 0555);
  const std::string value(20000, '5');
  ExpectStores(Request(value), value);
  EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
  EXPECT_THAT(Names(disk.Path()), testing::UnorderedElementsAre("filler", "obd.conf"));
}

TEST_F(SettingsFile, IsNotWaitedForWhenItIsANamedPipe) {
  fs::remove(SETTINGS_FILE);
  ASSERT_EQ(mkfifo(SETTINGS_FILE, 0666), 0);
  ExpectStores(Request("500"));
  EXPECT_TRUE(fs::is_fifo(SETTINGS_FILE));
}

TEST_F(SettingsFile, MayBeAFolderWhichStays) {
  fs::remove(SETTINGS_FILE);
  WriteText(FILE_PATH / "inside", OLD);
  ExpectStores(Request("500"));
  EXPECT_EQ(ReadText(FILE_PATH / "inside"), OLD);
}

TEST_F(SettingsFile, OfAbsurdSizeStaysAsItWas) {
  fs::resize_file(SETTINGS_FILE, 1ULL << 40);
  ExpectStores(Request("500"));
  EXPECT_EQ(fs::file_size(SETTINGS_FILE), 1ULL << 40);
}

// Another process, for example a file server, holds a lease on it.
TEST_F(SettingsFile, IsWaitedForWhileItIsLeased) {
  signal(SIGIO, SIG_IGN);
  const int holder = open(SETTINGS_FILE, O_RDWR | O_CLOEXEC);
  ASSERT_EQ(fcntl(holder, F_SETLEASE, F_WRLCK), 0);
  auto request = std::async(std::launch::async, Execute, Request("500"));
  EXPECT_EQ(request.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  EXPECT_EQ(fcntl(holder, F_SETLEASE, F_UNLCK), 0);
  close(holder);
  signal(SIGIO, SIG_DFL);
  ExpectSuccess(request.get());
  EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
}

// Of several requests at once, one stores last, and none meets a part of another's text.
void StoreAtTheSameTime(int rounds, const Texts& mounts = {}) {
  for (int round = 0; round < rounds; ++round) {
    const std::string number = std::to_string(round);
    Texts texts;
    std::vector<std::future<void>> requests;
    for (const std::string& value :
         {number, std::to_string(100000 + round), std::string(90, '5') + number,
          std::string(3000, '7') + number}) {
      const Command request = WithMounts(mounts, Request(value));
      requests.push_back(std::async(std::launch::async, ExpectStores, request, value));
      texts.push_back(Settings(value));
    }
    requests.clear();
    ASSERT_THAT(texts, Contains(ReadText(SETTINGS_FILE)));
    ASSERT_THAT(Names(FOLDER), ElementsAre("obd.conf"));
  }
}

TEST_F(SettingsFile, IsWholeAfterRequestsAtTheSameTime) {
  StoreAtTheSameTime(75);
}

TEST_F(SettingsFile, IsWholeAfterRequestsAtTheSameTimeInAReadOnlyFolder) {
  SetMode(FOLDER, 0555);
  const ino_t before = Inode(SETTINGS_FILE);
  StoreAtTheSameTime(60);
  EXPECT_EQ(Inode(SETTINGS_FILE), before);
}

TEST_F(SettingsFile, IsWholeAfterRequestsAtTheSameTimeWhenItIsMountedOnItsOwn) {
  SKIP_WHERE_TRACED(MOUNTS);
  const ino_t before = Inode(SETTINGS_FILE);
  StoreAtTheSameTime(25, MOUNT_OF_ITS_OWN);
  EXPECT_EQ(Inode(SETTINGS_FILE), before);
}

// With the real Java VM and the options of the device.
TEST_F(SettingsFile, IsNotLockedNorIsTheLog) {
  SKIP_WHERE_TRACED("nothing else can be traced");
  for (const bool isByRename : {true, false}) {
    SetMode(FOLDER, isByRename ? 0755 : 0555);
    Command request = Get("CanDetectTimeout=500");
    request.environment["JAVA_OPTIONS"] = "-XX:VMOptionsFile=/srv/vemo/java.options";
    const Texts strace = {"/usr/bin/strace",         "-f", "-y", "-o", CALLS_FILE, "-e",
                          "trace=openat,flock,fcntl"};
    request.words = Joined({strace, request.words});
    ExpectStores(request);
    const Texts calls = Lines(ReadText(CALLS_FILE));
    EXPECT_THAT(calls, Contains(HasSubstr("obd.conf")));
    EXPECT_THAT(calls, Contains(HasSubstr("cgi.log")));
    EXPECT_THAT(calls, Each(Not(ContainsRegex("flock\\(|_(SETLKW?(64)?|SETLEASE)[,)]"))));
    fs::remove(CALLS_FILE);
  }
}

// The calls of the program on the settings file's folder, as preload/FailingFileCalls.cpp names
// them.
class SettingsFileCalls : public SettingsFile {
 protected:
  static Command Watched(Command request) {
    request = Preload("failing-file-calls", request);
    request.environment["FAILING_FILE_CALLS_FOLDER"] = FOLDER;
    request.environment["FAILING_FILE_CALLS_TRACE"] = CALLS_FILE;
    fs::remove(CALLS_FILE);
    return request;
  }

  static Texts Calls() {
    static const std::regex temporary(R"(\.ini-\d+-\d+\.tmp)");
    return Lines(std::regex_replace(ReadText(CALLS_FILE), temporary, "temporary"));
  }

  // Those of the store, from the first that touches the disk.
  static Texts StoreCalls() {
    const Texts calls = Calls();
    return {std::find(calls.begin(), calls.end(), "open temporary 600"), calls.end()};
  }

  // The request, in which the call will fail with this error.
  static Command WithFailure(Command request, const std::string& call, int error) {
    WriteOld(SETTINGS_FILE);
    Execute(Watched(request));
    const Texts calls = Calls();
    EXPECT_THAT(calls, Contains(call));
    const auto number = std::find(calls.begin(), calls.end(), call) - calls.begin() + 1;
    WriteOld(SETTINGS_FILE);
    request = Watched(request);
    request.environment["FAILING_FILE_CALLS"] = std::to_string(number);
    request.environment["FAILING_FILE_CALLS_ERROR"] = std::to_string(error);
    return request;
  }

  // With any of these errors of the call the request stores in place.
  static void ExpectRewritten(const Command& request, const std::string& call,
                              const std::vector<int>& errors) {
    for (const int error : errors) {
      SCOPED_TRACE(call + " " + std::to_string(error));
      const Command failing = WithFailure(request, call, error);
      const ino_t before = Inode(SETTINGS_FILE);
      ExpectStores(failing);
      EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
      EXPECT_EQ(Inode(SETTINGS_FILE), before);
      EXPECT_THAT(Names(FOLDER), ElementsAre("obd.conf"));
    }
  }

  // With any of these errors of the call the request stores nothing and does not open the file.
  static void ExpectUntouched(const Command& request, const std::string& call,
                              const std::vector<int>& errors) {
    for (const int error : errors) {
      SCOPED_TRACE(call + " " + std::to_string(error));
      ExpectStores(WithFailure(request, call, error));
      EXPECT_EQ(ReadText(SETTINGS_FILE), OLD);
      EXPECT_THAT(StoreCalls(), Not(Contains("open obd.conf")));
    }
  }
};

TEST_F(SettingsFileCalls, BringTheContentToTheDiskBeforeItGetsItsName) {
  SetMode(SETTINGS_FILE, 0640);
  ExpectStores(Watched(Request("500")));
  EXPECT_THAT(
      StoreCalls(),
      ElementsAre("open temporary 600", "fstat temporary", "flistxattr temporary",
                  "fchmod temporary 640", "pwrite temporary", "fsync temporary", "close temporary",
                  "rename temporary obd.conf", "open .", "fsync .", "close ."));
}

TEST_F(SettingsFileCalls, TakeTheRoomFirstAndCutLastInPlace) {
  SetMode(FOLDER, 0555);
  ExpectStores(Watched(Request("50000")), "50000");
  EXPECT_THAT(StoreCalls(),
              ElementsAre("open temporary 600", "open obd.conf", "fstat obd.conf", "pread obd.conf",
                          "pread obd.conf", "fstat obd.conf", "posix_fallocate obd.conf",
                          "pwrite obd.conf", "ftruncate obd.conf", "fstat obd.conf",
                          "pread obd.conf", "pread obd.conf", "fsync obd.conf", "close obd.conf"));
  ExpectStores(Watched(Request("5")), "5");
  EXPECT_THAT(StoreCalls(),
              ElementsAre("open temporary 600", "open obd.conf", "fstat obd.conf", "pread obd.conf",
                          "pread obd.conf", "fstat obd.conf", "pwrite obd.conf",
                          "ftruncate obd.conf", "fstat obd.conf", "pread obd.conf",
                          "pread obd.conf", "fsync obd.conf", "close obd.conf"));
}

// The steps of a store by rename that can be refused.
const Texts REFUSABLE = {"open temporary 600", "flistxattr temporary", "fchmod temporary 644",
                         "rename temporary obd.conf"};

TEST_F(SettingsFileCalls, RewriteInPlaceWherePermissionIsDenied) {
  for (const std::string& call : REFUSABLE) {
    ExpectRewritten(Request("500"), call, {EACCES, EPERM, EROFS, EBUSY, EXDEV});
  }
}

TEST_F(SettingsFileCalls, RiskNothingInPlaceWhereTheDiskIsFullOrBroken) {
  for (const std::string& call : REFUSABLE) {
    ExpectUntouched(Request("500"), call, {ENOSPC, EDQUOT, EIO, ENFILE});
  }
}

// A process of another container, with other process ids, took it for a leftover.
TEST_F(SettingsFileCalls, MakeATemporaryFileThatIsGoneAnew) {
  ExpectStores(WithFailure(Request("500"), "rename temporary obd.conf", ENOENT));
  EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
  EXPECT_THAT(Names(FOLDER), ElementsAre("obd.conf"));
}

// ---- A file of another owner.

const std::string CHANGE_OWNER = "fchown temporary 4242 4343";

Command OfAnotherOwner(const Command& request) {
  return WithVariable(request, "FAILING_FILE_CALLS_OWNER", "4242 4343");
}

TEST_F(SettingsFileCalls, GiveTheNewContentToTheOldOwnerBeforeItsMode) {
  SetMode(SETTINGS_FILE, 0640);
  ExpectStores(OfAnotherOwner(Watched(Request("500"))));
  EXPECT_THAT(
      StoreCalls(),
      ElementsAre("open temporary 600", "fstat temporary", CHANGE_OWNER, "flistxattr temporary",
                  "fchmod temporary 640", "pwrite temporary", "fsync temporary", "close temporary",
                  "rename temporary obd.conf", "open .", "fsync .", "close ."));
}

TEST_F(SettingsFileCalls, LeaveTheFileOfAnotherOwnerWhereTheDiskIsFull) {
  ExpectUntouched(OfAnotherOwner(Request("500")), CHANGE_OWNER, {ENOSPC});
}

// EINVAL: a user namespace has no number for the owner.
TEST_F(SettingsFileCalls, RewriteTheFileOfAnOwnerThatCannotBeKept) {
  ExpectRewritten(OfAnotherOwner(Request("500")), CHANGE_OWNER, {EPERM, EINVAL});
}

TEST_F(SettingsFileCalls, ReplaceTheFileOfAnotherOfTheGroupThatTheFolderIsSharedBy) {
  const auto isReplaced = [](int folderMode, int fileMode) {
    SetMode(FOLDER, folderMode);
    SetMode(SETTINGS_FILE, fileMode);
    const Command request = WithFailure(OfAnotherOwner(Request("500")), CHANGE_OWNER, EPERM);
    const ino_t before = Inode(SETTINGS_FILE);
    ExpectStores(request);
    EXPECT_EQ(ReadText(SETTINGS_FILE), Settings("500"));
    EXPECT_EQ(fs::status(SETTINGS_FILE).permissions(), fs::perms(fileMode));
    return Inode(SETTINGS_FILE) != before;
  };
  EXPECT_TRUE(isReplaced(02775, 0664));
  EXPECT_THAT(StoreCalls(), Contains("fchown temporary 4294967295 4343"));
  EXPECT_FALSE(isReplaced(0775, 0664));
  EXPECT_FALSE(isReplaced(02775, 0644));
}

// ---- Each call.

// What the settings file is before the request, and what it may be afterwards.
struct Situation {
  std::string name;
  std::function<void()> prepare;
  std::string value = "500";  // of the request
  std::string before = OLD;   // read at the settings file's path
  std::string after = Settings(value);
};

void WriteOldFile() {
  WriteOld(SETTINGS_FILE);
}

void WriteOldFileInAReadOnlyFolder() {
  WriteOldFile();
  SetMode(FOLDER, 0555);
}

void LinkToOldFile() {
  WriteOld(FOLDER / "target");
  fs::create_symlink("target", SETTINGS_FILE);
}

const Situation USUAL = {"AFile", WriteOldFile, "50000"};
const Situation MISSING = {"NoFile", [] {}, "500", "", NEW_SETTINGS};
const Situation LINK = {"ALink", LinkToOldFile};
const Situation LONGER_IN_PLACE = {"LongerInPlace", WriteOldFileInAReadOnlyFolder, "50000"};
const Situation SHORTER_IN_PLACE = {"ShorterInPlace", WriteOldFileInAReadOnlyFolder, "5"};

class EachSettingsFileCall : public SettingsFileCalls {
 protected:
  // With few bytes at a time, so that a store is many calls.
  static Command Prepared(const Situation& situation) {
    ResetDevice();
    situation.prepare();
    return WithVariable(Watched(Request(situation.value)), "FAILING_FILE_CALLS_PIECE", "16");
  }

  // Makes the request again and again, each time with another of its calls chosen to fail.
  static void ChooseEachCall(
      const Situation& situation,
      const std::function<void(Command request, const std::string& call)>& run) {
    SCOPED_TRACE(situation.name);
    ExpectStores(Prepared(situation), situation.value);
    ASSERT_EQ(ReadText(SETTINGS_FILE), situation.after);
    const Texts calls = Calls();
    for (std::size_t number = 1; number <= calls.size(); ++number) {
      SCOPED_TRACE(std::to_string(number) + ": " + calls[number - 1]);
      const Command request = Prepared(situation);
      const bool wasLink = fs::is_symlink(SETTINGS_FILE);
      run(WithVariable(request, "FAILING_FILE_CALLS", std::to_string(number)), calls[number - 1]);
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
    ChooseEachCall(situation, [&](const Command& request, const std::string& call) {
      ExpectStores(WithVariable(request, "FAILING_FILE_CALLS_ERROR", std::to_string(EINTR)),
                   situation.value);
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

class FailingSettingsFileCalls
    : public EachSettingsFileCall,
      public testing::WithParamInterface<std::tuple<Situation, Failure>> {
 protected:
  // Each call fails, and with `more` all that follow it.
  static void FailEachCall(const std::string& more = "") {
    const auto& [situation, failure] = GetParam();
    const std::string error = std::to_string(failure.error);
    const std::string value = situation.value;
    ChooseEachCall(situation, [&](Command request, const std::string&) {
      request.environment["FAILING_FILE_CALLS"] += more;
      ExpectStores(WithVariable(request, "FAILING_FILE_CALLS_ERROR", error), value);
      EXPECT_THAT(Names(FOLDER), Not(Contains(EndsWith(".tmp"))));
    });
  }
};

const auto FAILURES =
    testing::Values(Failure{"NoSpace", ENOSPC}, Failure{"InputOutputError", EIO},
                    Failure{"NoPermission", EACCES}, Failure{"ReadOnlyFileSystem", EROFS});

TEST_P(FailingSettingsFileCalls, LeaveTheFileOldOrNew) {
  FailEachCall();
}

INSTANTIATE_TEST_SUITE_P(Settings, FailingSettingsFileCalls,
                         testing::Combine(testing::Values(USUAL, MISSING, LINK, LONGER_IN_PLACE,
                                                          SHORTER_IN_PLACE),
                                          FAILURES),
                         ParamName());

// Not in place: nothing could put the old content back.
using AllSettingsFileCallsFromOne = FailingSettingsFileCalls;

TEST_P(AllSettingsFileCallsFromOne, LeaveTheFileOldOrNew) {
  FailEachCall("-");
}

INSTANTIATE_TEST_SUITE_P(Settings, AllSettingsFileCallsFromOne,
                         testing::Combine(testing::Values(USUAL, MISSING, LINK), FAILURES),
                         ParamName());

}  // namespace
