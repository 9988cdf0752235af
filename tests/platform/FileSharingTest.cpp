// The file that others use at the same moment: no texts are mixed, what is kept of the file that is
// replaced, and what killed processes left behind. That nothing is locked is a test of the whole
// program.

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <future>
#include <thread>

#include "FileTest.h"
#include "Sandbox.h"

namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;

class FileSharing : public FileTest {
 protected:
  void SetUp() override {
    FileTest::SetUp();
    WriteText(path, OLD);
  }

  // The file; closed, and with that unlocked, when the pointer goes.
  std::shared_ptr<const int> Open(int flags = O_RDWR) const {
    const auto close = [](const int* descriptor) {
      ::close(*descriptor);
      delete descriptor;
    };
    return {new int(open(path.c_str(), flags | O_CLOEXEC)), close};
  }

  std::future<bool> Replacing(const std::string& text) const {
    return std::async(std::launch::async, ReplaceFile, path, text);
  }

  std::string Read() const {
    std::string text;
    EXPECT_EQ(ReadFile(path, text), ReadResult::kRead);
    return text;
  }
};

// ---- Rewriting in place

// Texts of several lengths, each of one letter: a mix shows.
TEST_F(FileSharing, ManyRewritersLeaveTheTextOfOneOfThem) {
  AllowNewFiles(false);
  const std::vector<std::string> texts = {std::string(1000, 'a'), std::string(51000, 'b'),
                                          std::string(101000, 'c'), std::string(151000, 'd')};
  for (int round = 0; round < 200; ++round) {
    std::vector<std::future<bool>> results;
    for (const std::string& text : texts) {
      results.push_back(Replacing(text));
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
    WriteText(path, NEW + OLD);
    std::promise<void> begun;
    auto text = std::async(std::launch::async, [&] {
      begun.set_value();
      return Read();
    });
    begun.get_future().wait();
    for (int touch = 0; touch < TOUCHES; ++touch) {
      utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    fs::resize_file(path, NEW.size());
    whole += text.get() == NEW;
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
  const std::string text = Read();
  isRead = true;
  toucher.get();
  EXPECT_EQ(text, OLD);
}

// The kernel signals the holder of a lease that another process wants the file.
TEST_F(FileSharing, ALeaseIsWaitedForByAReaderAndByARewriter) {
  AllowNewFiles(false);
  signal(SIGIO, SIG_IGN);
  const auto isWaiting = [](const auto& result) {
    return result.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
  };
  {
    const auto holder = Open();
    ASSERT_EQ(fcntl(*holder, F_SETLEASE, F_WRLCK), 0);
    auto text = std::async(std::launch::async, [&] { return Read(); });
    EXPECT_TRUE(isWaiting(text));
    EXPECT_EQ(fcntl(*holder, F_SETLEASE, F_UNLCK), 0);
    EXPECT_EQ(text.get(), OLD);
  }
  const auto holder = Open(O_RDONLY);
  ASSERT_EQ(fcntl(*holder, F_SETLEASE, F_RDLCK), 0);
  auto replaced = Replacing(NEW);
  EXPECT_TRUE(isWaiting(replaced));
  EXPECT_EQ(fcntl(*holder, F_SETLEASE, F_UNLCK), 0);
  EXPECT_TRUE(replaced.get());
  EXPECT_EQ(ReadText(path), NEW);
  signal(SIGIO, SIG_DFL);
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

TEST_F(FileSharing, LeftoversOfEndedProcessesAreRemovedAndNothingElse) {
  const std::string process = EndedProcess();
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

// A list that gives the user 1000, who runs the tests, the right to read by name; owner, group and
// mask as usual. The layout is the kernel's.
std::string AccessList(std::uint16_t mask) {
  struct Entry {
    std::uint16_t tag;
    std::uint16_t rights;
    std::uint32_t id;
  };
  constexpr std::uint32_t VERSION = 2;
  constexpr std::uint32_t NOBODY = ~0u;
  const std::array<Entry, 5> entries = {{{0x01, 6, NOBODY},
                                         {0x02, 4, 1000},
                                         {0x04, 0, NOBODY},
                                         {0x10, mask, NOBODY},
                                         {0x20, 0, NOBODY}}};
  std::string list(reinterpret_cast<const char*>(&VERSION), sizeof VERSION);
  return list.append(reinterpret_cast<const char*>(entries.data()), sizeof entries);
}

class ListedFile : public FileSharing {
 protected:
  void SetUp() override {
    FileSharing::SetUp();
    SKIP_WHERE_TRACED("the file system of /tmp may know no access control lists");
  }

  void GiveTheFolderADefaultList() const {
    SetAttribute(folder, "system.posix_acl_default", AccessList(7));
  }

  static void SetAttribute(const fs::path& path, const char* name, const std::string& value) {
    ASSERT_EQ(setxattr(path.c_str(), name, value.data(), value.size(), 0), 0) << strerror(errno);
  }

  // Empty when there is none.
  std::string List() const {
    std::string value(4096, '\0');
    const ssize_t size =
        getxattr(path.c_str(), "system.posix_acl_access", value.data(), value.size());
    return value.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0);
  }
};

TEST_F(ListedFile, GetsNoReadersFromTheFoldersDefaultList) {
  fs::permissions(path, fs::perms(0640));
  GiveTheFolderADefaultList();
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(List(), "");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0640));
}

TEST_F(ListedFile, KeepsItsOwnList) {
  SetAttribute(path, "system.posix_acl_access", AccessList(5));
  const std::string before = List();
  const fs::perms permissions = fs::status(path).permissions();
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_EQ(List(), before);
  EXPECT_EQ(fs::status(path).permissions(), permissions);
}

TEST_F(ListedFile, GetsTheFoldersDefaultListWhenItIsNew) {
  fs::remove(path);
  GiveTheFolderADefaultList();
  EXPECT_TRUE(ReplaceFile(path, NEW));
  EXPECT_NE(List(), "");
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
    EXPECT_THAT(Names(folder), ElementsAre("file"));
  }
}

}  // namespace
