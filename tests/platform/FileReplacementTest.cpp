#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <sstream>

#include "FileReplacement.h"
#include "Files.h"
#include "Sandbox.h"
#include "SmallDisk.h"

namespace {

using file_replacement::ReadFile;
using file_replacement::ReadResult;
using file_replacement::ReplaceFile;

namespace fs = std::filesystem;
using std::string_literals::operator""s;
using testing::IsEmpty;

const std::string OLD = "the old content\n";
const std::string NEW = "the new content, which is longer\n";

struct stat StatusOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status;
}

int ModeOf(const fs::path& path) {
  return static_cast<int>(StatusOf(path).st_mode & 07777);
}

// A text that needs room of its own on every file system.
std::string OfLength(std::size_t length) {
  std::string text;
  while (text.size() < length) {
    text += std::to_string(text.size()) + "\n";
  }
  text.resize(length);
  return text;
}

// Every test leaves behind no temporary file and no open descriptor.
class FileReplacement : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(folder);
    fs::create_directories(elsewhere);
  }
  void TearDown() override {
    fs::permissions(folder, fs::perms(0755));
    EXPECT_THAT(TemporaryFiles(folder), IsEmpty());
    EXPECT_THAT(TemporaryFiles(elsewhere), IsEmpty());
    EXPECT_EQ(OpenDescriptors(), descriptors);
    fs::remove_all(folder);
    fs::remove_all(elsewhere);
  }

  static std::vector<std::string> TemporaryFiles(const fs::path& folder) {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      if (entry.path().extension() == ".tmp") {
        names.push_back(entry.path().filename());
      }
    }
    return names;
  }

  const std::ptrdiff_t descriptors = OpenDescriptors();
  const fs::path folder = "/tmp/replaced";
  const fs::path elsewhere = "/tmp/elsewhere";
  const fs::path path = folder / "file";
};

TEST_F(FileReplacement, MakesAMissingFileWithTheModeOfTheUmask) {
  for (const int mask : {022, 027, 0}) {
    const mode_t before = umask(static_cast<mode_t>(mask));
    EXPECT_TRUE(ReplaceFile(path, NEW));
    umask(before);
    EXPECT_EQ(ReadText(path), NEW);
    EXPECT_EQ(ModeOf(path), 0666 & ~mask);
    fs::remove(path);
  }
}

TEST_F(FileReplacement, MakesNoFolder) {
  EXPECT_FALSE(ReplaceFile(folder / "missing" / "file", NEW));
  EXPECT_FALSE(fs::exists(folder / "missing"));
}

TEST_F(FileReplacement, ReplacesTheContent) {
  for (const std::string& text : {NEW, "short"s, ""s, "a\0b\r\n"s, OfLength(300000), OLD}) {
    EXPECT_TRUE(ReplaceFile(path, text));
    EXPECT_EQ(ReadText(path), text);
  }
}

// A file system gives a time of no 32 bits, and with it, where they were too few, no answer at all.
TEST_F(FileReplacement, ReplacesAFileDatedAfter2038) {
  WriteText(path, OLD);
  const timespec date = {2209032000, 0};
  const timespec dates[] = {date, date};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), dates, 0), 0);
  struct stat status;
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

TEST_F(FileReplacement, MakesNoFileThatCouldNotBeRead) {
  WriteText(path, OLD);
  EXPECT_FALSE(ReplaceFile(path, std::string((32 << 20) + 1, 'x')));
  EXPECT_EQ(ReadText(path), OLD);
}

TEST_F(FileReplacement, KeepsTheMode) {
  WriteText(path, OLD);
  for (const int mode : {0600, 0644, 0666, 0751, 0444}) {
    fs::permissions(path, fs::perms(mode));
    EXPECT_TRUE(ReplaceFile(path, NEW));
    EXPECT_EQ(ModeOf(path), mode);
  }
}

TEST_F(FileReplacement, LeavesTheOldContentToItsReaders) {
  WriteText(path, OLD);
  std::ifstream reader(path);
  EXPECT_TRUE(ReplaceFile(path, NEW));
  std::ostringstream read;
  read << reader.rdbuf();
  EXPECT_EQ(read.str(), OLD);
}

TEST_F(FileReplacement, FollowsAChainOfAbsoluteAndRelativeLinks) {
  WriteText(folder / "target", OLD);
  fs::create_symlink(elsewhere / "link", path);
  fs::create_symlink("../replaced/other", elsewhere / "link");
  fs::create_symlink("target", folder / "other");
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(fs::read_symlink(path), elsewhere / "link");
  EXPECT_EQ(fs::read_symlink(elsewhere / "link"), "../replaced/other");
  EXPECT_EQ(fs::read_symlink(folder / "other"), "target");
  EXPECT_EQ(ReadText(folder / "target"), NEW);
}

TEST_F(FileReplacement, FollowsAsManyLinksAsTheSystemDoes) {
  WriteText(folder / "link0", OLD);
  for (int i = 1; i <= 41; ++i) {
    std::filesystem::create_symlink("link" + std::to_string(i - 1),
                                    folder / ("link" + std::to_string(i)));
  }
  EXPECT_TRUE(ReplaceFile(folder / "link40", NEW));
  EXPECT_EQ(ReadText(folder / "link0"), NEW);
  EXPECT_FALSE(ReplaceFile(folder / "link41", OLD));
  EXPECT_EQ(ReadText(folder / "link0"), NEW);
}

TEST_F(FileReplacement, PutsTheTemporaryFileBesideTheTargetOfALink) {
  WriteText(elsewhere / "target", OLD);
  fs::create_symlink(elsewhere / "target", path);
  fs::permissions(folder, fs::perms(0555));
  const auto before = StatusOf(elsewhere / "target").st_ino;
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_NE(StatusOf(elsewhere / "target").st_ino, before);
}

TEST_F(FileReplacement, MakesTheMissingTargetOfALink) {
  fs::create_symlink("../elsewhere/target", path);
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(ReadText(elsewhere / "target"), NEW);
}

TEST_F(FileReplacement, RefusesLinksThatLeadNowhere) {
  fs::create_symlink("missing/target", path);
  EXPECT_FALSE(ReplaceFile(path, NEW));
  EXPECT_TRUE(fs::is_symlink(path));
  fs::create_symlink("other", folder / "circle");
  fs::create_symlink("circle", folder / "other");
  EXPECT_FALSE(ReplaceFile(folder / "circle", NEW));
  EXPECT_TRUE(fs::is_symlink(folder / "circle"));
  EXPECT_TRUE(fs::is_symlink(folder / "other"));
}

TEST_F(FileReplacement, RefusesAFolderANamedPipeAndASocket) {
  fs::create_directories(path);
  EXPECT_FALSE(ReplaceFile(path, NEW));
  EXPECT_TRUE(fs::is_directory(path));

  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0666), 0);
  EXPECT_FALSE(ReplaceFile(folder / "pipe", NEW));
  EXPECT_TRUE(fs::is_fifo(folder / "pipe"));

  sockaddr_un address{AF_UNIX, {}};
  (folder / "socket").native().copy(address.sun_path, sizeof address.sun_path);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(descriptor);
  EXPECT_FALSE(ReplaceFile(folder / "socket", NEW));
  EXPECT_TRUE(fs::is_socket(folder / "socket"));
}

TEST_F(FileReplacement, RefusesWhatLiesBelowAFile) {
  WriteText(path, OLD);
  EXPECT_FALSE(ReplaceFile(path / "below", NEW));
  EXPECT_EQ(ReadText(path), OLD);
}

TEST_F(FileReplacement, RefusesAFolderThatMayNotBeSearched) {
  WriteText(path, OLD);
  fs::permissions(folder, fs::perms(0600));
  EXPECT_FALSE(ReplaceFile(path, NEW));
  fs::permissions(folder, fs::perms(0755));
  EXPECT_EQ(ReadText(path), OLD);
}

TEST_F(FileReplacement, LeavesTheOldContentOrNothingOnAFullDisk) {
  SKIP_WHERE_TRACED(SmallDisk::NEED);
  SmallDisk disk;
  WriteText(disk.Path() / "file", OLD);
  EXPECT_FALSE(ReplaceFile(disk.Path() / "file", OfLength(SmallDisk::SIZE))) << "half of it fits";
  disk.Fill();
  EXPECT_FALSE(ReplaceFile(disk.Path() / "file", NEW));
  EXPECT_FALSE(ReplaceFile(disk.Path() / "new", NEW));
  EXPECT_EQ(ReadText(disk.Path() / "file"), OLD);
  EXPECT_FALSE(fs::exists(disk.Path() / "new"));
  EXPECT_THAT(TemporaryFiles(disk.Path()), IsEmpty());
}

// Where the folder takes no temporary file.
class RewritingInPlace : public FileReplacement {
 protected:
  // Replaces, in a folder that is not writable, a file with the one text by the other.
  void Rewrite(const std::string& before, const std::string& text) {
    fs::permissions(folder, fs::perms(0755));
    WriteText(path, before);
    fs::permissions(folder, fs::perms(0555));
    const auto number = StatusOf(path).st_ino;
    EXPECT_TRUE(ReplaceFile(path, text));
    EXPECT_EQ(ReadText(path), text);
    EXPECT_EQ(StatusOf(path).st_ino, number) << "still the same file";
  }
};

TEST_F(RewritingInPlace, ReplacesTheContentByALongerAShorterAndOneOfTheSameLength) {
  Rewrite(OLD, NEW);
  Rewrite("", NEW);
  Rewrite(OLD, OfLength(300000));
  Rewrite(NEW, OLD);
  Rewrite(NEW, "");
  Rewrite(OfLength(300000), NEW);
  Rewrite("content 1\n", "content 2\n");
}

TEST_F(RewritingInPlace, KeepsTheModeAndOtherNamesOfTheFile) {
  WriteText(path, OLD);
  fs::permissions(path, fs::perms(0640));
  fs::create_hard_link(path, elsewhere / "other name");
  Rewrite(OLD, NEW);
  EXPECT_EQ(ModeOf(path), 0640);
  EXPECT_EQ(ReadText(elsewhere / "other name"), NEW);
}

TEST_F(RewritingInPlace, FollowsALink) {
  WriteText(elsewhere / "target", OLD);
  fs::create_symlink(elsewhere / "target", path);
  fs::permissions(elsewhere, fs::perms(0555));
  EXPECT_TRUE(ReplaceFile(path, NEW));
  fs::permissions(elsewhere, fs::perms(0755));
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(ReadText(elsewhere / "target"), NEW);
}

TEST_F(RewritingInPlace, NeedsAFileThatIsThereAndMayBeReadAndWritten) {
  WriteText(path, OLD);
  fs::permissions(folder, fs::perms(0555));
  EXPECT_FALSE(ReplaceFile(folder / "missing", NEW));
  EXPECT_FALSE(fs::exists(folder / "missing"));
  for (const int mode : {0, 0200, 0400}) {
    fs::permissions(path, fs::perms(mode));
    EXPECT_FALSE(ReplaceFile(path, NEW));
  }
  fs::permissions(path, fs::perms(0600));
  EXPECT_EQ(ReadText(path), OLD);
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

class FileReading : public FileReplacement {
 protected:
  ReadResult Read() { return ReadFile(path, text); }
  std::string text = "what was there before";
};

TEST_F(FileReading, GivesTheWholeText) {
  for (const std::string& content : {""s, OLD, "a\0b\r\n"s, OfLength(65535), OfLength(65536),
                                     OfLength(65537), OfLength(1000000)}) {
    WriteText(path, content);
    EXPECT_EQ(Read(), ReadResult::kRead);
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
    EXPECT_EQ(Read(), ReadResult::kUnreadable);
    EXPECT_EQ(text, "");
  }
  fs::resize_file(path, 32 << 20);
  EXPECT_EQ(Read(), ReadResult::kRead);
  EXPECT_EQ(text.size(), 32U << 20);
}

TEST_F(FileReading, TellsAMissingFile) {
  EXPECT_EQ(Read(), ReadResult::kMissing);
  EXPECT_EQ(text, "");
  fs::create_symlink("missing", path);
  EXPECT_EQ(Read(), ReadResult::kMissing);
}

TEST_F(FileReading, TakesNothingButARegularFileThatMayBeRead) {
  WriteText(path, OLD);
  fs::permissions(path, fs::perms(0200));
  fs::create_symlink("circle", folder / "circle");
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0666), 0);  // its writer is not waited for
  for (const fs::path& other :
       {path, folder, folder / "circle", folder / "pipe", fs::path("/dev/zero"), path / "below"}) {
    text = "what was there before";
    EXPECT_EQ(ReadFile(other, text), ReadResult::kUnreadable) << other;
    EXPECT_EQ(text, "");
  }
}

}  // namespace
