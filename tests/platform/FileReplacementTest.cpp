// The settings file: what is kept of a file that is replaced, and what killed processes left
// behind. Modes, a full disk, leases, others that use the file, and each call that fails, are tests
// of the whole program.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <future>

#include "FileReplacement.h"
#include "Files.h"
#include "Sandbox.h"

namespace {

using file_replacement::ReadFile;
using file_replacement::ReadResult;
using file_replacement::ReplaceFile;
using std::string_literals::operator""s;

namespace fs = std::filesystem;

const std::string OLD = "the old content\n";
const std::string NEW = "the new content, which is longer\n";

std::vector<std::string> Names(const fs::path& folder) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

// Every test leaves behind no temporary file and no open descriptor.
class FileTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(folder);
    fs::create_directories(elsewhere);
  }
  void TearDown() override {
    AllowNewFiles(true);
    for (const fs::path& one : {folder, elsewhere}) {
      EXPECT_THAT(Names(one), testing::Each(testing::Not(testing::EndsWith(".tmp"))));
      fs::remove_all(one);
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
  }

  // Without new files in the folder, the file is rewritten in place.
  void AllowNewFiles(bool isAllowed) const {
    fs::permissions(folder, fs::perms(isAllowed ? 0755 : 0555));
  }

  const std::ptrdiff_t descriptors = OpenDescriptors();
  const fs::path folder = "/tmp/replaced";
  const fs::path elsewhere = "/tmp/elsewhere";
  const fs::path path = folder / "file";
};

using FileReplacement = FileTest;

// A file system gives a time of no 32 bits, and with it, where they were too few, no answer at all.
TEST_F(FileReplacement, ReplacesAFileDatedAfter2038) {
  WriteText(path, OLD);
  const timespec date = {2209032000, 0};
  const timespec dates[] = {date, date};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), dates, 0), 0);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  ASSERT_EQ(status.st_mtime, date.tv_sec) << "This file system has no such date";
  std::string text;
  EXPECT_EQ(ReadFile(path, text), ReadResult::kRead);
  EXPECT_EQ(text, OLD);
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(ReadText(path), NEW);
}

TEST_F(FileReplacement, FindsTheFileOfTheWorkingFolder) {
  const fs::path before = fs::current_path();
  fs::current_path(folder);
  EXPECT_TRUE(ReplaceFile("file", OLD));
  EXPECT_TRUE(ReplaceFile("file", NEW));
  fs::current_path(before);
  EXPECT_EQ(ReadText(path), NEW);
}

// The temporary file is beside the target: the folder of the links takes none. The target is not
// rewritten in place either: it is read-only.
TEST_F(FileReplacement, FollowsAsManyLinksAsTheSystemDoesAndMakesTheirMissingTarget) {
  const fs::path target = elsewhere / "target";
  fs::create_symlink("../elsewhere/target", folder / "link1");
  fs::create_symlink(folder / "link1", folder / "link2");
  for (int i = 3; i <= 41; ++i) {
    fs::create_symlink("link" + std::to_string(i - 1), folder / ("link" + std::to_string(i)));
  }
  AllowNewFiles(false);
  for (const std::string& text : {OLD, NEW}) {
    EXPECT_TRUE(ReplaceFile(folder / "link40", text));
    EXPECT_EQ(ReadText(target), text);
    fs::permissions(target, fs::perms(0444));
  }
  EXPECT_FALSE(ReplaceFile(folder / "link41", OLD));
  EXPECT_EQ(ReadText(target), NEW);
}

TEST_F(FileReplacement, RefusesWhatIsNoFileAndLeavesItAsItIs) {
  fs::create_directory(folder / "folder");
  fs::create_symlink("missing/target", folder / "link");
  fs::create_symlink("circle", folder / "circle");
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0666), 0);
  sockaddr_un address{AF_UNIX, {}};
  (folder / "socket").native().copy(address.sun_path, sizeof address.sun_path);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(descriptor);
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const fs::file_type before = fs::symlink_status(entry).type();
    EXPECT_FALSE(ReplaceFile(entry.path(), NEW)) << entry;
    EXPECT_EQ(fs::symlink_status(entry).type(), before) << entry;
  }
}

TEST_F(FileReplacement, NeedsAFolderThatIsOneAndThatMayBeSearchedOrAFileThatMayBeReadAndWritten) {
  WriteText(path, OLD);
  for (const int mode : {0, 0200, 0400}) {
    AllowNewFiles(false);
    fs::permissions(path, fs::perms(mode));
    EXPECT_FALSE(ReplaceFile(path, NEW));
  }
  EXPECT_FALSE(ReplaceFile(folder / "missing", NEW));
  fs::permissions(path, fs::perms(0600));
  EXPECT_FALSE(ReplaceFile(path / "below", NEW));
  fs::permissions(folder, fs::perms(0600));
  EXPECT_FALSE(ReplaceFile(path, NEW));
  AllowNewFiles(true);
  EXPECT_EQ(ReadText(path), OLD);
}

// Rewriting in place. Texts of several lengths, each of one letter: a mix shows.
TEST_F(FileReplacement, ByManyAtTheSameTimeLeavesTheTextOfOneOfThem) {
  WriteText(path, OLD);
  AllowNewFiles(false);
  const std::vector<std::string> texts = {std::string(1000, 'a'), std::string(401000, 'b'),
                                          std::string(801000, 'c'), std::string(1201000, 'd')};
  for (int round = 0; round < 200; ++round) {
    std::vector<std::future<bool>> results;
    for (const std::string& text : texts) {
      results.push_back(std::async(std::launch::async, ReplaceFile, path, text));
    }
    for (std::future<bool>& result : results) {
      EXPECT_TRUE(result.get());
    }
    ASSERT_THAT(texts, testing::Contains(ReadText(path)));
  }
}

// ---- Reading

class FileReading : public FileTest {
 protected:
  ReadResult Read(const fs::path& file) {
    text = "what was there before";
    return ReadFile(file, text);
  }
  std::string text;
};

// Sparse ones. If their length were taken for less, a piece of the file would be stored.
TEST_F(FileReading, RefusesAFileOfAbsurdSizeWhichIsNotMadeEither) {
  WriteText(path, OLD);
  for (const std::uintmax_t size :
       {(32ULL << 20) + 1, 1ULL << 31, (1ULL << 32) - 1, (1ULL << 32) + OLD.size(), 1ULL << 40}) {
    SCOPED_TRACE(size);
    fs::resize_file(path, size);
    EXPECT_EQ(Read(path), ReadResult::kUnreadable);
    EXPECT_EQ(text, "");
  }
  fs::resize_file(path, 32 << 20);
  EXPECT_EQ(Read(path), ReadResult::kRead);
  EXPECT_EQ(text, OLD + std::string((32U << 20) - OLD.size(), '\0'));
  EXPECT_FALSE(ReplaceFile(path, text + "x"));
  EXPECT_EQ(fs::file_size(path), text.size());
}

TEST_F(FileReading, TellsAMissingFileFromWhatIsNoRegularFileThatMayBeRead) {
  WriteText(path, OLD);
  fs::permissions(path, fs::perms(0200));
  fs::create_symlink("missing", folder / "link");
  fs::create_symlink("circle", folder / "circle");
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0666), 0);  // its writer is not waited for
  for (const fs::path& missing : {folder / "missing", folder / "link"}) {
    EXPECT_EQ(Read(missing), ReadResult::kMissing) << missing;
    EXPECT_EQ(text, "");
  }
  for (const fs::path& other :
       {path, folder, folder / "circle", folder / "pipe", fs::path("/dev/zero"), path / "below"}) {
    EXPECT_EQ(Read(other), ReadResult::kUnreadable) << other;
    EXPECT_EQ(text, "");
  }
  fs::permissions(folder, fs::perms(0600));
  EXPECT_EQ(Read(folder / "missing"), ReadResult::kUnreadable) << "the folder is not searched";
}

// ---- Temporary files that killed processes left

TEST_F(FileReplacement, LeftoversOfEndedProcessesAreRemovedAndNothingElse) {
  WriteText(path, OLD);
  const std::string process = "4194305";  // the kernel gives none so high
  fs::create_directory(folder / (".ini-" + process + "-1.tmp"));
  fs::create_symlink("file", folder / (".ini-" + process + "-2.tmp"));
  for (const std::string& other : {
           ".ini-a-0.tmp"s,
           ".ini-" + process + "-0.tmp~",
           "ini-" + process + "-0.tmp",
           ".ini-" + process + "-0",
           ".ini- " + process + "-+2.tmp",
           ".ini-" + process + ".tmp",
           ".ini--.tmp"s,
           ".ini-9999999999-0.tmp"s,
           ".ini-" + std::to_string(getpid()) + "-0.tmp",
           // The first process of the sandbox may not be signalled by us everywhere, and lives.
           ".ini-1-0.tmp"s,
       }) {
    WriteText(folder / other, "another's");
  }
  const std::vector<std::string> others = Names(folder);
  WriteText(folder / (".ini-" + process + "-0.tmp"), "left");
  WriteText(folder / (".ini-" + process + "-17.tmp"), "left");
  fs::permissions(folder / (".ini-" + process + "-17.tmp"), fs::perms(0444));
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(ReadText(path), NEW);
  EXPECT_THAT(Names(folder), testing::UnorderedElementsAreArray(others));
  fs::remove_all(folder);
  fs::create_directory(folder);
}

// ---- Access control lists

constexpr char ACCESS_LIST[] = "system.posix_acl_access";
constexpr char DEFAULT_LIST[] = "system.posix_acl_default";
// One that gives the user 1000, who runs the tests, the right to read by name, with a mask against
// writing. The layout is the kernel's: a version, then a tag, rights and a number for each entry.
const std::string LIST =
    "\2\0\0\0"
    "\x01\0\6\0\xff\xff\xff\xff"
    "\x02\0\4\0\xe8\x03\0\0"
    "\x04\0\0\0\xff\xff\xff\xff"
    "\x10\0\5\0\xff\xff\xff\xff"
    "\x20\0\0\0\xff\xff\xff\xff"s;

class ListedFile : public FileTest {
 protected:
  void SetUp() override {
    FileTest::SetUp();
    WriteText(path, OLD);
    if (IsTraced()) {
      GTEST_SKIP() << "Where namespaces are refused, /tmp may know no access control lists";
    }
  }

  static void GiveList(const fs::path& path, const char* name) {
    ASSERT_EQ(setxattr(path.c_str(), name, LIST.data(), LIST.size(), 0), 0) << strerror(errno);
  }

  // Empty when there is none.
  std::string List() const {
    std::string value(4096, '\0');
    const ssize_t size = getxattr(path.c_str(), ACCESS_LIST, value.data(), value.size());
    return value.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0);
  }
};

TEST_F(ListedFile, GetsTheFoldersDefaultListOnlyWhenItIsNew) {
  fs::permissions(path, fs::perms(0640));
  GiveList(folder, DEFAULT_LIST);
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(List(), "");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0640));
  fs::remove(path);
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_NE(List(), "");
}

TEST_F(ListedFile, KeepsItsOwnList) {
  GiveList(path, ACCESS_LIST);
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(List(), LIST);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0650));
}

}  // namespace
