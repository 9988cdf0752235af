// The file that nobody else uses. Its modes, a full disk, and each call that fails, are tests of
// the whole program.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>

#include "FileTest.h"
#include "Sandbox.h"
#include "SmallDisk.h"

namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;

using FileReplacement = FileTest;

// A text that needs room of its own on every file system.
std::string OfLength(std::size_t length) {
  std::string text;
  while (text.size() < length) {
    text += std::to_string(text.size()) + "\n";
  }
  text.resize(length);
  return text;
}

TEST_F(FileReplacement, MakesAMissingFileWithTheModeOfTheUmask) {
  for (const int mask : {022, 027, 0}) {
    const mode_t before = umask(static_cast<mode_t>(mask));
    EXPECT_TRUE(ReplaceFile(path, NEW));
    umask(before);
    EXPECT_EQ(ReadText(path), NEW);
    EXPECT_EQ(Status().st_mode & 07777, 0666u & ~static_cast<unsigned>(mask));
    fs::remove(path);
  }
}

// A file system gives a time of no 32 bits, and with it, where they were too few, no answer at all.
TEST_F(FileReplacement, ReplacesAFileDatedAfter2038) {
  WriteText(path, OLD);
  const timespec date = {2209032000, 0};
  const timespec dates[] = {date, date};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), dates, 0), 0);
  ASSERT_EQ(Status().st_mtime, date.tv_sec) << "This file system has no such date";
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

TEST_F(FileReplacement, MakesNoFileThatCouldNotBeRead) {
  WriteText(path, OLD);
  EXPECT_FALSE(ReplaceFile(path, std::string((32 << 20) + 1, 'x')));
  EXPECT_EQ(ReadText(path), OLD);
}

// The temporary file is beside the target: the folder of the first link takes none.
TEST_F(FileReplacement, FollowsAChainOfAbsoluteAndRelativeLinks) {
  WriteText(elsewhere / "target", OLD);
  fs::create_symlink(elsewhere / "link", path);
  fs::create_symlink("../replaced/other", elsewhere / "link");
  fs::create_symlink("../elsewhere/target", folder / "other");
  AllowNewFiles(false);
  const ino_t before = Status().st_ino;
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_NE(Status().st_ino, before);
  EXPECT_EQ(fs::read_symlink(path), elsewhere / "link");
  EXPECT_EQ(fs::read_symlink(elsewhere / "link"), "../replaced/other");
  EXPECT_EQ(fs::read_symlink(folder / "other"), "../elsewhere/target");
  EXPECT_EQ(ReadText(elsewhere / "target"), NEW);
}

TEST_F(FileReplacement, FollowsAsManyLinksAsTheSystemDoes) {
  WriteText(folder / "link0", OLD);
  for (int i = 1; i <= 41; ++i) {
    fs::create_symlink("link" + std::to_string(i - 1), folder / ("link" + std::to_string(i)));
  }
  EXPECT_TRUE(ReplaceFile(folder / "link40", NEW));
  EXPECT_EQ(ReadText(folder / "link0"), NEW);
  EXPECT_FALSE(ReplaceFile(folder / "link41", OLD));
  EXPECT_EQ(ReadText(folder / "link0"), NEW);
}

TEST_F(FileReplacement, MakesTheMissingTargetOfALink) {
  fs::create_symlink("../elsewhere/target", path);
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(ReadText(elsewhere / "target"), NEW);
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

TEST_F(FileReplacement, RefusesWhatLiesBelowAFileOrInAFolderThatMayNotBeSearched) {
  WriteText(path, OLD);
  EXPECT_FALSE(ReplaceFile(path / "below", NEW));
  fs::permissions(folder, fs::perms(0600));
  EXPECT_FALSE(ReplaceFile(path, NEW));
  AllowNewFiles(true);
  EXPECT_EQ(ReadText(path), OLD);
}

// ---- Where the folder takes no temporary file

using RewritingInPlace = FileTest;

TEST_F(RewritingInPlace, ReplacesTheContentByALongerAShorterAndOneOfTheSameLength) {
  WriteText(path, OLD);
  AllowNewFiles(false);
  const ino_t number = Status().st_ino;
  for (const std::string& text :
       {NEW, ""s, NEW, OfLength(300000), NEW, OLD, OfLength(OLD.size())}) {
    EXPECT_TRUE(ReplaceFile(path, text));
    EXPECT_EQ(ReadText(path), text);
    EXPECT_EQ(Status().st_ino, number) << "still the same file";
  }
}

TEST_F(RewritingInPlace, NeedsAFileThatIsThereAndMayBeReadAndWritten) {
  WriteText(path, OLD);
  AllowNewFiles(false);
  EXPECT_FALSE(ReplaceFile(folder / "missing", NEW));
  for (const int mode : {0, 0200, 0400}) {
    fs::permissions(path, fs::perms(mode));
    EXPECT_FALSE(ReplaceFile(path, NEW));
  }
  fs::permissions(path, fs::perms(0600));
  EXPECT_EQ(ReadText(path), OLD);
  EXPECT_THAT(Names(folder), ElementsAre("file"));
}

TEST_F(RewritingInPlace, OnAFullDiskLeavesTheOldContentOrShortensIt) {
  SKIP_WHERE_TRACED(SmallDisk::NEED);
  SmallDisk disk;
  const fs::path file = disk.Path() / "file";
  WriteText(file, NEW);
  disk.Fill();
  fs::permissions(disk.Path(), fs::perms(0555));
  EXPECT_FALSE(ReplaceFile(file, OfLength(20000)));
  EXPECT_EQ(ReadText(file), NEW);
  EXPECT_TRUE(ReplaceFile(file, OLD));
  EXPECT_EQ(ReadText(file), OLD);
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

TEST_F(FileReading, GivesTheWholeText) {
  for (const std::string& content : {""s, OLD, "a\0b\r\n"s, OfLength(65535), OfLength(65536),
                                     OfLength(65537), OfLength(1000000)}) {
    WriteText(path, content);
    EXPECT_EQ(Read(path), ReadResult::kRead);
    EXPECT_EQ(text, content);
  }
}

// Sparse ones. If their length were taken for less, a piece of the file would be stored.
TEST_F(FileReading, RefusesAFileOfAbsurdSize) {
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
  EXPECT_EQ(text.size(), 32U << 20);
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

}  // namespace
