// The file that others use at the same moment: nobody waits for a lock, no texts are mixed, what is
// kept of the file that is replaced, and what killed processes left behind.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <future>
#include <thread>

#include "FileReplacement.h"
#include "Files.h"
#include "Sandbox.h"

namespace {

using file_replacement::ReadFile;
using file_replacement::ReadResult;
using file_replacement::ReplaceFile;

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr char OLD[] = "the old content\n";
constexpr char NEW[] = "the new content, which is longer\n";
constexpr std::chrono::milliseconds A_MOMENT(100);

// An open file; closed, and with that unlocked, at the end.
class OpenFile {
 public:
  explicit OpenFile(const fs::path& path, int flags = O_RDWR)
      : descriptor_(open(path.c_str(), flags | O_CREAT | O_CLOEXEC, 0600)) {
    EXPECT_NE(descriptor_, -1) << path;
  }
  ~OpenFile() { close(descriptor_); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  // All of it, by both kinds of lock.
  void Lock() const {
    EXPECT_EQ(flock(descriptor_, LOCK_EX), 0);
    struct flock records {};
    records.l_type = F_WRLCK;
    EXPECT_EQ(fcntl(descriptor_, F_OFD_SETLK, &records), 0);
  }
  void Write(const std::string& text) const {
    EXPECT_EQ(pwrite(descriptor_, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  }
  void Cut(std::size_t length) const {
    EXPECT_EQ(ftruncate(descriptor_, static_cast<off_t>(length)), 0);
  }
  int Lease(int type) const { return fcntl(descriptor_, F_SETLEASE, type); }

 private:
  int descriptor_;
};

template <typename Result>
bool IsWaiting(const std::future<Result>& result) {
  return result.wait_for(A_MOMENT) == std::future_status::timeout;
}

class FileSharing : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(folder);
    WriteText(path, OLD);
  }
  void TearDown() override {
    AllowNewFiles(true);
    fs::remove_all(folder);
  }

  // Without new files in the folder, the file is rewritten in place.
  void AllowNewFiles(bool isAllowed) const {
    fs::permissions(folder, fs::perms(isAllowed ? 0755 : 0555));
  }

  std::future<bool> Replacing(const std::string& text) const {
    return std::async(std::launch::async, ReplaceFile, path, text);
  }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  const fs::path folder = "/tmp/shared";
  const fs::path path = folder / "file";
};

// ---- Locks of others

// The lock is held to the end of the test.
TEST_F(FileSharing, AnothersLockKeepsNobodyFromReadingRenamingOrRewriting) {
  for (const bool isNewFileAllowed : {true, false}) {
    WriteText(path, OLD);
    AllowNewFiles(isNewFileAllowed);
    const OpenFile stranger(path);
    stranger.Lock();
    EXPECT_TRUE(ReplaceFile(path, NEW));
    std::string text;
    EXPECT_EQ(ReadFile(path, text), ReadResult::kRead);
    EXPECT_EQ(text, NEW);
  }
}

// ---- Rewriting in place

// Texts of several lengths, each of one letter: a mix shows.
TEST_F(FileSharing, ManyRewritersLeaveTheTextOfOneOfThem) {
  AllowNewFiles(false);
  constexpr std::size_t WRITERS = 4;
  constexpr int ROUNDS = 200;
  std::array<std::string, WRITERS> texts;
  for (std::size_t i = 0; i < WRITERS; ++i) {
    texts[i] = std::string(1000 + 50000 * i, static_cast<char>('a' + i));
  }
  for (int round = 0; round < ROUNDS; ++round) {
    std::array<std::future<bool>, WRITERS> results;
    for (std::size_t i = 0; i < WRITERS; ++i) {
      results[i] = Replacing(texts[i]);
    }
    for (std::future<bool>& result : results) {
      EXPECT_TRUE(result.get());
    }
    ASSERT_THAT(texts, testing::Contains(ReadText(path)));
  }
}

// Between the writing of a shorter text and the cutting of the length stands a mix of both. On a
// busy machine a rewriter may be kept from going on for longer than a reader waits, now and then.
TEST_F(FileSharing, AReaderWaitsUntilTheFileHasSettled) {
  AllowNewFiles(false);
  constexpr int ROUNDS = 20;
  constexpr int TOUCHES = 10;
  int whole = 0;
  for (int round = 0; round < ROUNDS; ++round) {
    const OpenFile rewriter(path);
    rewriter.Write(std::string(NEW) + OLD);
    std::promise<void> begun;
    std::string text;
    auto read = std::async(std::launch::async, [&] {
      begun.set_value();
      return ReadFile(path, text);
    });
    begun.get_future().wait();
    for (int touch = 0; touch < TOUCHES; ++touch) {
      utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    rewriter.Cut(std::string(NEW).size());
    EXPECT_EQ(read.get(), ReadResult::kRead);
    whole += text == NEW;
  }
  EXPECT_GE(whole, ROUNDS / 2);
}

TEST_F(FileSharing, AFileThatNeverSettlesIsReadAllTheSame) {
  AllowNewFiles(false);
  std::atomic<bool> isRead = false;
  auto toucher = std::async(std::launch::async, [&] {
    while (!isRead) {
      utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
    }
  });
  std::string text;
  EXPECT_EQ(ReadFile(path, text), ReadResult::kRead);
  isRead = true;
  toucher.get();
  EXPECT_EQ(text, OLD);
}

// ---- Leases

class LeasedFile : public FileSharing {
 protected:
  // The kernel signals the holder that another process wants the file.
  void SetUp() override {
    FileSharing::SetUp();
    signal(SIGIO, SIG_IGN);
  }
  void TearDown() override {
    signal(SIGIO, SIG_DFL);
    FileSharing::TearDown();
  }
};

TEST_F(LeasedFile, IsReadWhenTheLeaseIsGivenBack) {
  const OpenFile holder(path);
  ASSERT_EQ(holder.Lease(F_WRLCK), 0);
  std::string text;
  auto read = std::async(std::launch::async, [&] { return ReadFile(path, text); });
  EXPECT_TRUE(IsWaiting(read));
  EXPECT_EQ(holder.Lease(F_UNLCK), 0);
  EXPECT_EQ(read.get(), ReadResult::kRead);
  EXPECT_EQ(text, OLD);
}

TEST_F(LeasedFile, IsRewrittenWhenTheLeaseIsGivenBack) {
  AllowNewFiles(false);
  const OpenFile holder(path, O_RDONLY);
  ASSERT_EQ(holder.Lease(F_RDLCK), 0);
  auto replaced = Replacing(NEW);
  EXPECT_TRUE(IsWaiting(replaced));
  EXPECT_EQ(holder.Lease(F_UNLCK), 0);
  EXPECT_TRUE(replaced.get());
  EXPECT_EQ(ReadText(path), NEW);
}

// ---- Temporary files that killed processes left

// The number of a process that has ended.
std::string EndedProcess() {
  const pid_t process = fork();
  if (process == 0) {
    _exit(0);
  }
  waitpid(process, nullptr, 0);
  return std::to_string(process);
}

TEST_F(FileSharing, LeftoversAreRemoved) {
  const std::string process = EndedProcess();
  WriteText(folder / (".ini-" + process + "-0.tmp"), "left");
  WriteText(folder / (".ini-" + process + "-17.tmp"), "left");
  fs::permissions(folder / (".ini-" + process + "-17.tmp"), fs::perms(0444));
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(ReadText(path), NEW);
  EXPECT_THAT(Names(), ElementsAre("file"));
}

// The first process of the sandbox may not be signalled by us everywhere, and lives.
TEST_F(FileSharing, TheTemporaryFileOfALivingProcessStays) {
  WriteText(folder / ".ini-1-0.tmp", "another's");
  WriteText(folder / (".ini-" + std::to_string(getpid()) + "-0.tmp"), "another thread's");
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(ReadText(path), NEW);
  EXPECT_EQ(Names().size(), 3U);
}

TEST_F(FileSharing, WhatHasAnotherNameStays) {
  const std::string process = EndedProcess();
  const std::vector<std::string> others = {".ini-a-0.tmp",
                                           ".ini-" + process + "-0.tmp~",
                                           "ini-" + process + "-0.tmp",
                                           ".ini-" + process + "-0",
                                           ".ini- " + process + "-+2.tmp",
                                           ".ini-" + process + ".tmp",
                                           ".ini--.tmp",
                                           ".ini-9999999999-0.tmp"};
  for (const std::string& other : others) {
    WriteText(folder / other, "another's");
  }
  fs::create_symlink("file", folder / (".ini-" + process + "-0.tmp"));
  fs::create_directory(folder / (".ini-" + process + "-1.tmp"));
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(Names().size(), others.size() + 3);
  EXPECT_EQ(ReadText(path), NEW);
}

// ---- Access control lists

// A list that gives the user 1000, who runs the tests, these rights by name; owner, group and mask
// as usual. The layout is the kernel's.
std::string AccessList(std::uint16_t userRights, std::uint16_t mask) {
  struct Entry {
    std::uint16_t tag;
    std::uint16_t rights;
    std::uint32_t id;
  };
  constexpr std::uint32_t VERSION = 2;
  constexpr std::uint32_t NOBODY = ~0u;
  const std::array<Entry, 5> entries = {{{0x01, 6, NOBODY},
                                         {0x02, userRights, 1000},
                                         {0x04, 0, NOBODY},
                                         {0x10, mask, NOBODY},
                                         {0x20, 0, NOBODY}}};
  std::string list(reinterpret_cast<const char*>(&VERSION), sizeof VERSION);
  return list.append(reinterpret_cast<const char*>(entries.data()), sizeof entries);
}

constexpr char NO_LISTS[] = "the file system of /tmp may know no access control lists";
constexpr char ACCESS_LIST[] = "system.posix_acl_access";
constexpr char DEFAULT_ACCESS_LIST[] = "system.posix_acl_default";

void SetAttribute(const fs::path& path, const char* name, const std::string& value) {
  ASSERT_EQ(setxattr(path.c_str(), name, value.data(), value.size(), 0), 0) << strerror(errno);
}

// Empty when there is none.
std::string AttributeOf(const fs::path& path, const char* name) {
  std::string value(4096, '\0');
  const ssize_t size = getxattr(path.c_str(), name, value.data(), value.size());
  value.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return value;
}

TEST_F(FileSharing, TheFoldersDefaultListGivesTheNewFileNoReaders) {
  SKIP_WHERE_TRACED(NO_LISTS);
  fs::permissions(path, fs::perms(0640));
  SetAttribute(folder, DEFAULT_ACCESS_LIST, AccessList(4, 7));
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(AttributeOf(path, ACCESS_LIST), "");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0640));
}

TEST_F(FileSharing, TheFilesOwnListIsKept) {
  SKIP_WHERE_TRACED(NO_LISTS);
  SetAttribute(path, ACCESS_LIST, AccessList(4, 5));
  const std::string before = AttributeOf(path, ACCESS_LIST);
  const fs::perms permissions = fs::status(path).permissions();
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(AttributeOf(path, ACCESS_LIST), before);
  EXPECT_EQ(fs::status(path).permissions(), permissions);
}

TEST_F(FileSharing, AMissingFileGetsTheFoldersDefaultList) {
  SKIP_WHERE_TRACED(NO_LISTS);
  fs::remove(path);
  SetAttribute(folder, DEFAULT_ACCESS_LIST, AccessList(4, 7));
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_NE(AttributeOf(path, ACCESS_LIST), "");
}

// ---- A limit on the size of files

// In a process of its own: the limit stays.
void ReplaceBeyondTheLimit(const fs::path& path) {
  const rlimit limit = {20, 20};
  setrlimit(RLIMIT_FSIZE, &limit);
  const bool isReplaced = ReplaceFile(path, NEW);
  sigset_t pending;
  sigset_t blocked;
  sigpending(&pending);
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  const bool isLeftClean = !sigismember(&pending, SIGXFSZ) && !sigismember(&blocked, SIGXFSZ);
  _exit(isReplaced ? 1 : isLeftClean ? 0 : 2);
}

TEST_F(FileSharing, ALimitOnTheSizeOfFilesIsAFailureAndNoSignalByRenamingAndInPlace) {
  for (const bool isNewFileAllowed : {true, false}) {
    AllowNewFiles(isNewFileAllowed);
    EXPECT_EXIT(ReplaceBeyondTheLimit(path), testing::ExitedWithCode(0), "");
    EXPECT_EQ(ReadText(path), OLD);
    EXPECT_THAT(Names(), ElementsAre("file"));
  }
}

}  // namespace
