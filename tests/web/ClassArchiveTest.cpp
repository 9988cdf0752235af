// The class archive: made by one command from a request, used while it fits, and never in the way.
// `class-archive run` does with it what the gate in front of the programs does.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <string>
#include <vector>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "Request.h"
#include "Sandbox.h"

namespace {

using std::filesystem::path;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr char TOOL[] = "/srv/vemo/bin/class-archive";
constexpr char OPTIONS[] = "/tmp/shipped.options";
const path FOLDER = "/app/class-archive";
const path ARCHIVE = FOLDER / "classes.jsa";
const path RECORD = FOLDER / "record";
// A Java VM that can be changed: the program's own one, linked but for the library and the
// launcher.
const path VM = "/tmp/vm";
const path LIBRARY = VM / "lib/server/libjvm.so";

// The VM that the program is linked to.
path OwnVm() {
  const Result linked = Execute({{PROGRAM}, {{"LD_TRACE_LOADED_OBJECTS", "1"}}});
  const size_t end = linked.output.find("/lib/server/libjvm.so (");
  const size_t begin = linked.output.rfind(' ', end) + 1;
  return linked.output.substr(begin, end - begin);
}

void CopyVm() {
  namespace fs = std::filesystem;
  const path own = fs::canonical(OwnVm());
  fs::remove_all(VM);
  fs::create_directories(VM / "bin");
  fs::create_directories(VM / "lib/server");
  for (const auto& entry : fs::directory_iterator(own / "lib")) {
    if (entry.path().filename() == "libjli.so") {
      // The launcher takes the folder of this one for its home.
      fs::copy_file(entry.path(), VM / "lib/libjli.so");
    } else if (entry.path().filename() != "server") {
      fs::create_symlink(entry.path(), VM / "lib" / entry.path().filename());
    }
  }
  for (const auto& entry : fs::directory_iterator(own)) {
    if (!fs::exists(VM / entry.path().filename())) {
      fs::create_symlink(entry.path(), VM / entry.path().filename());
    }
  }
  fs::copy_file(own / "bin/java", VM / "bin/java");
  for (const char* name : {"libjvm.so", "classes.jsa"}) {
    fs::copy_file(own / "lib/server" / name, VM / "lib/server" / name);
  }
}

// One takes a second; on a busy machine much longer, and several wait for one another.
constexpr std::chrono::seconds MAKING(150);

Command Making(const path& folder = FOLDER, const std::string& program = PROGRAM) {
  Command making = {{"/srv/vemo/make-class-archive", program, OPTIONS, "/srv/vemo/java", folder},
                    {{"PATH", "/usr/bin:/bin"}, {"LD_LIBRARY_PATH", LIBRARY.parent_path()}}};
  making.limit = MAKING;
  return making;
}

Result Make(const path& folder = FOLDER, const std::string& program = PROGRAM) {
  return Execute(Making(folder, program));
}

// At a terminal where nobody answers.
Result ExecuteAtTerminal(Command command) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_EQ(unlockpt(master), 0);
  const std::string terminal = ptsname(master);
  command.prepare = [&] {
    setsid();  // so that it becomes the one of the process
    dup2(open(terminal.c_str(), O_RDWR), STDIN_FILENO);
  };
  const Result result = Execute(command);
  close(master);
  return result;
}

// The request as the gate would start it.
Command Request() {
  Command request = Get("CanDetectTimeout=500");
  request.words = {TOOL, "run", FOLDER, PROGRAM};
  request.environment["JAVA_OPTIONS"] = std::string("-XX:VMOptionsFile=") + OPTIONS;
  request.environment["JAVA_CLASSPATH"] = "/build/tests/java/mapping";
  request.environment["LD_LIBRARY_PATH"] = LIBRARY.parent_path();
  return request;
}

std::set<std::string> Names(const path& folder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.insert(entry.path().filename());
  }
  return names;
}

class ClassArchive : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (IsTraced()) {
      return;
    }
    ResetDevice();
    CopyVm();
    WriteText(OPTIONS, ReadText("/srv/vemo/java.options"));
  }

  void SetUp() override {
    SKIP_WHERE_TRACED("a shell does not see what is executable in the sandbox alone");
    ResetDevice();
    std::filesystem::remove_all(FOLDER);
    made_ = Make();
    ASSERT_EQ(made_.exitStatus, 0) << made_.error;
    std::filesystem::remove(LOG_FILE);
  }

  static void ExpectServed(const Result& result) {
    EXPECT_EQ(result.output, SuccessPage("500"));
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.exitStatus, 0);
  }

  // The request is served, with the archive.
  static void ExpectUsed(const Command& request = Request()) {
    ExpectServed(Execute(request));
    EXPECT_THAT(ForeignLines(), ElementsAre("mapped " + ARCHIVE.string()));
    EXPECT_THAT(LoggedStatements(),
                Contains("DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: -XX:VMOptionsFile=" +
                         (FOLDER / "java.options").string()));
  }

  // The request is served, with the options that it came with and the VM's own archive.
  static void ExpectNotUsed(const Command& request = Request()) {
    ExpectServed(Execute(request));
    EXPECT_THAT(LoggedStatements(), Contains("DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: " +
                                             request.environment.at("JAVA_OPTIONS")));
    EXPECT_THAT(ForeignLines(), Not(Contains(HasSubstr(FOLDER.string()))));
  }

  // It says so, with this word.
  static void ExpectMisfit(const std::string& word) {
    Command fits = Request();
    fits.words = {TOOL, "fits", FOLDER};
    const Result result = Execute(fits);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.error, HasSubstr(word));
  }

  Result made_;
};

TEST_F(ClassArchive, IsMadeFromARequestAndUsed) {
  EXPECT_EQ(made_.output, "");
  EXPECT_EQ(made_.error, "");
  ExpectUsed();
}

TEST_F(ClassArchive, IsUsedBehindTheGate) {
  Command request = Request();
  request.words = {"/srv/vemo/bin/cgi-gate", PROGRAM};
  request.environment.insert({{"CGI_GATE_SLOT_FILE", "/tmp/gate"},
                              {"CGI_GATE_SLOTS", "1"},
                              {"CGI_GATE_QUEUE_TIMEOUT", "20"},
                              {"CGI_GATE_RUN_TIMEOUT", "20"},
                              {"CGI_GATE_CDS_ARCHIVE", FOLDER}});
  ExpectUsed(request);
}

TEST_F(ClassArchive, StoresNothingWhenItIsMade) {
  EXPECT_FALSE(std::filesystem::exists(SETTINGS_FILE));
}

TEST_F(ClassArchive, FitsEveryClassPath) {
  Command request = Request();
  request.environment["JAVA_CLASSPATH"] = "/nowhere:/build/tests/java/mapping";
  ExpectUsed(request);
}

TEST_F(ClassArchive, IsNotMadeAgainWhileItFits) {
  const auto time = std::filesystem::last_write_time(ARCHIVE);
  EXPECT_EQ(Make().exitStatus, 0);
  EXPECT_EQ(std::filesystem::last_write_time(ARCHIVE), time);
}

TEST_F(ClassArchive, MissingFolderDoesNoHarm) {
  std::filesystem::remove_all(FOLDER);
  ExpectMisfit("no record");
  ExpectNotUsed();
}

TEST_F(ClassArchive, MissingArchiveDoesNoHarm) {
  std::filesystem::remove(ARCHIVE);
  ExpectMisfit("classes.jsa");
  ExpectNotUsed();
}

TEST_F(ClassArchive, MissingOptionsDoNoHarm) {
  std::filesystem::remove(FOLDER / "java.options");
  ExpectMisfit("java.options");
  ExpectNotUsed();
}

TEST_F(ClassArchive, UnreadableArchiveDoesNoHarm) {
  std::filesystem::permissions(ARCHIVE, std::filesystem::perms::none);
  ExpectMisfit("classes.jsa");
  ExpectNotUsed();
}

TEST_F(ClassArchive, ArchiveCutShortDoesNoHarm) {
  std::filesystem::permissions(ARCHIVE, std::filesystem::perms::owner_all);
  std::filesystem::resize_file(ARCHIVE, std::filesystem::file_size(ARCHIVE) / 2);
  ExpectMisfit("classes.jsa");
  ExpectNotUsed();
}

TEST_F(ClassArchive, EmptyArchiveDoesNoHarm) {
  std::filesystem::permissions(ARCHIVE, std::filesystem::perms::owner_all);
  std::filesystem::resize_file(ARCHIVE, 0);
  ExpectMisfit("classes.jsa");
  ExpectNotUsed();
}

// Turns the bits of one byte around.
void Flip(const path& file, std::uintmax_t offset) {
  std::filesystem::permissions(file, std::filesystem::perms::owner_all);
  std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
  stream.seekg(static_cast<std::streamoff>(offset));
  const int byte = stream.get();
  stream.seekp(static_cast<std::streamoff>(offset));
  stream.put(static_cast<char>(~byte));
}

TEST_F(ClassArchive, ArchiveWrittenToDoesNoHarm) {
  Flip(ARCHIVE, std::filesystem::file_size(ARCHIVE) / 2);
  ExpectMisfit("classes.jsa");
  ExpectNotUsed();
}

// What no time stamp tells, the next start of the device finds.
TEST_F(ClassArchive, DamageBehindTheSystemsBackIsFoundAtTheNextStart) {
  struct stat before = {};
  ASSERT_EQ(stat(ARCHIVE.c_str(), &before), 0);
  Flip(ARCHIVE, std::filesystem::file_size(ARCHIVE) / 2);
  const timespec times[] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, ARCHIVE.c_str(), times, 0), 0);
  EXPECT_EQ(Make().exitStatus, 0);
  struct stat after = {};
  ASSERT_EQ(stat(ARCHIVE.c_str(), &after), 0);
  EXPECT_NE(after.st_ino, before.st_ino);
  std::filesystem::remove(LOG_FILE);
  ExpectUsed();
}

TEST_F(ClassArchive, AnotherArchiveInItsPlaceDoesNoHarm) {
  std::filesystem::remove(ARCHIVE);
  std::filesystem::copy_file(VM / "lib/server/classes.jsa", ARCHIVE);
  ExpectMisfit("classes.jsa");
  ExpectNotUsed();
}

TEST_F(ClassArchive, IsNotUsedWithAChangedVm) {
  std::filesystem::last_write_time(LIBRARY, std::filesystem::file_time_type::clock::now());
  ExpectMisfit("libjvm.so");
  ExpectNotUsed();
  EXPECT_EQ(Make().exitStatus, 0);
  std::filesystem::remove(LOG_FILE);
  ExpectUsed();
}

// What was there is read-only, and at a terminal mv asks.
TEST_F(ClassArchive, IsMadeAnewAtATerminal) {
  std::filesystem::last_write_time(LIBRARY, std::filesystem::file_time_type::clock::now());
  const Result made = ExecuteAtTerminal(Making());
  EXPECT_EQ(made.error, "");
  EXPECT_EQ(made.exitStatus, 0);
  std::filesystem::remove(LOG_FILE);
  ExpectUsed();
}

TEST_F(ClassArchive, IsMadeAnewWithoutStandardInput) {
  std::filesystem::last_write_time(LIBRARY, std::filesystem::file_time_type::clock::now());
  Command making = Making();
  making.prepare = [] { close(STDIN_FILENO); };
  const Result made = Execute(making);
  EXPECT_EQ(made.error, "");
  EXPECT_EQ(made.exitStatus, 0);
  std::filesystem::remove(LOG_FILE);
  ExpectUsed();
}

TEST_F(ClassArchive, IsNotUsedWithoutItsVm) {
  const path aside = LIBRARY.string() + ".aside";
  std::filesystem::rename(LIBRARY, aside);
  ExpectMisfit("libjvm.so");
  ExpectNotUsed();
  std::filesystem::rename(aside, LIBRARY);
}

TEST_F(ClassArchive, IsNotUsedWithAnotherVmInFront) {
  Command request = Request();
  request.environment.erase("LD_LIBRARY_PATH");
  ExpectNotUsed(request);
}

TEST_F(ClassArchive, IsNotUsedWithChangedOptions) {
  const std::string options = ReadText(OPTIONS);
  WriteText(OPTIONS, options + "-Dvemo.greeting=other\n");
  ExpectMisfit("shipped.options");
  ExpectNotUsed();
  WriteText(OPTIONS, options);
}

TEST_F(ClassArchive, IsNotUsedWithOtherOptions) {
  Command request = Request();
  request.environment["JAVA_OPTIONS"] = "-Xmx16m";
  ExpectNotUsed(request);
}

TEST_F(ClassArchive, RecordCutAnywhereFitsNothing) {
  const std::string record = ReadText(RECORD);
  ASSERT_THAT(record, HasSubstr("\nend\n"));
  for (size_t length = 0; length < record.size(); ++length) {
    WriteText(RECORD, record.substr(0, length));
    Command fits = Request();
    fits.words = {TOOL, "fits", FOLDER};
    EXPECT_EQ(Execute(fits).exitStatus, 1) << length;
  }
  ExpectNotUsed();
}

TEST_F(ClassArchive, RecordOfAnotherFormFitsNothing) {
  const std::string record = ReadText(RECORD);
  for (const std::string& other :
       {std::string("end\n"), record + record, record + "more", std::string(1 << 20, 'x'),
        "x" + record, std::string(100, '\0'), record + '\0'}) {
    WriteText(RECORD, other);
    Command fits = Request();
    fits.words = {TOOL, "fits", FOLDER};
    EXPECT_EQ(Execute(fits).exitStatus, 1) << other.substr(0, 100);
  }
}

// Its record vouches for the files of the folder that it is a copy of.
TEST_F(ClassArchive, CopiedFolderFitsNothing) {
  const path aside = "/app/aside";
  std::filesystem::copy(FOLDER, aside);
  Command request = Request();
  request.words[2] = aside;
  ExpectNotUsed(request);
}

// Nothing waits for a pipe.
TEST_F(ClassArchive, RecordThatIsNoFileFitsNothing) {
  std::filesystem::remove(RECORD);
  ASSERT_EQ(mkfifo(RECORD.c_str(), S_IRUSR | S_IWUSR), 0);
  ExpectNotUsed();
}

TEST_F(ClassArchive, MakingThatWasCutShortLeavesTheRequestWithout) {
  std::filesystem::remove(RECORD);
  WriteText(FOLDER / "new/classes.jsa", "torn");
  ExpectNotUsed();
  EXPECT_EQ(Make().exitStatus, 0);
  EXPECT_FALSE(std::filesystem::exists(FOLDER / "new"));
  std::filesystem::remove(LOG_FILE);
  ExpectUsed();
}

// What it has started runs on, and is waited for.
TEST_F(ClassArchive, MakingThatWasKilledIsMadeUpFor) {
  for (const char* begun : {"new/options", "new/list", "new/empty", "new/java.options"}) {
    std::filesystem::remove(RECORD);
    {
      const BackgroundProcess making(Making());
      EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(FOLDER / begun); }, MAKING))
          << begun;
    }
    const Result made = Make();
    EXPECT_EQ(made.error, "") << begun;
    EXPECT_EQ(made.exitStatus, 0) << begun;
    std::filesystem::remove(LOG_FILE);
    ExpectUsed();
  }
}

TEST_F(ClassArchive, IsMadeOnceBySeveralAtOnce) {
  for (int round = 0; round < 5; ++round) {
    std::filesystem::remove_all(FOLDER);
    std::filesystem::remove(LOG_FILE);
    std::vector<std::future<Result>> makers;
    for (int i = 0; i < 5; ++i) {
      makers.push_back(std::async(std::launch::async, [] { return Make(); }));
    }
    for (std::future<Result>& maker : makers) {
      const Result made = maker.get();
      EXPECT_EQ(made.error, "");
      EXPECT_EQ(made.exitStatus, 0);
    }
    EXPECT_THAT(LoggedStatements(), Contains(HasSubstr("src/SetObdConf 30 main")).Times(1));
    EXPECT_THAT(Names(FOLDER),
                UnorderedElementsAre("classes.jsa", "java.options", "record", "sum"));
    std::filesystem::remove(LOG_FILE);
    ExpectUsed();
  }
}

TEST_F(ClassArchive, LockIsNotWaitedForForEver) {
  const int folder = open(FOLDER.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(folder, LOCK_EX), 0);
  Command lock = {{TOOL, "lock", "1"}};
  lock.prepare = [] { dup2(open(FOLDER.c_str(), O_RDONLY | O_DIRECTORY), STDIN_FILENO); };
  Result locked = Execute(lock);
  EXPECT_EQ(locked.exitStatus, 1);
  EXPECT_THAT(locked.error, HasSubstr("another one"));
  close(folder);
  EXPECT_EQ(Execute(lock).exitStatus, 0);
}

TEST_F(ClassArchive, IsMadeWithOptionsWhoseLastLineHasNoEnd) {
  const std::string options = ReadText(OPTIONS);
  WriteText(OPTIONS, options + "-Dvemo.greeting=other");
  const Result made = Make();
  EXPECT_EQ(made.error, "");
  EXPECT_EQ(made.exitStatus, 0);
  std::filesystem::remove(LOG_FILE);
  ExpectUsed();
  WriteText(OPTIONS, options);
}

TEST_F(ClassArchive, MakingWithOptionsThatTheVmRefusesNamesThemAndTheVmsWords) {
  const std::string options = ReadText(OPTIONS);
  WriteText(OPTIONS, options + "-Xmx1k\n");
  const Result failed = Make();
  EXPECT_EQ(failed.exitStatus, 1);
  EXPECT_THAT(failed.error, HasSubstr(OPTIONS));
  EXPECT_THAT(failed.error, HasSubstr("heap size"));
  WriteText(OPTIONS, options);
}

TEST_F(ClassArchive, MakingThatFailsSaysWhyAndLeavesNoRecord) {
  std::filesystem::remove(ARCHIVE);
  const Result failed = Make(FOLDER, "/bin/true");
  EXPECT_EQ(failed.exitStatus, 1);
  EXPECT_THAT(failed.error, HasSubstr("finds no Java VM"));
  EXPECT_FALSE(std::filesystem::exists(RECORD));
  ExpectNotUsed();
}

TEST_F(ClassArchive, FolderThatCannotBeWrittenIsNoArchive) {
  EXPECT_EQ(Make("/srv/vemo/class-archive").exitStatus, 1);
}

}  // namespace
