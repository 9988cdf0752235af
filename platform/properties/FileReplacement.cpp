#include "FileReplacement.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <thread>

#include "Descriptor.h"
#include "FileAttributes.h"
#include "WriteSignals.h"

namespace file_replacement {
namespace {

namespace fs = std::filesystem;

// Removes a file when it goes out of scope, unless it was kept.
class RemovedFile {
 public:
  explicit RemovedFile(const fs::path& path) : path_(path) {}
  ~RemovedFile() {
    if (!kept_) {
      unlink(path_.c_str());
    }
  }
  RemovedFile(const RemovedFile&) = delete;
  RemovedFile& operator=(const RemovedFile&) = delete;

  void Keep() { kept_ = true; }

 private:
  fs::path path_;
  bool kept_ = false;
};

// The size that the file tells saves copying; it may grow while it is read.
bool ReadAll(int descriptor, std::string& text) {
  struct stat status {};
  fstat(descriptor, &status);
  // A 32-bit machine cannot hold it: its length is none there, or a wrong one.
  if (static_cast<std::uintmax_t>(status.st_size) >= text.max_size()) {
    return false;
  }
  text.resize(static_cast<std::size_t>(status.st_size) + 1);
  std::size_t length = 0;
  while (true) {
    if (text.size() == length) {
      text.resize(2 * length);
    }
    const ssize_t count = read(descriptor, text.data() + length, text.size() - length);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      text.clear();
      return false;
    }
    if (count == 0) {
      text.resize(length);
      return true;
    }
    length += static_cast<std::size_t>(count);
  }
}

// Writes the text over the beginning of the file.
bool WriteAll(int descriptor, const std::string& text) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = pwrite(descriptor, text.data() + written, text.size() - written,
                                 static_cast<off_t>(written));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return false;
    }
    written += static_cast<std::size_t>(count);
  }
  return true;
}

// Follows the links that `path` ends in, to a file that may be missing. False when they go in a
// circle or cannot be read.
bool ResolveLinks(fs::path& path) {
  constexpr int MOST_LINKS = 40;
  for (int links = 0; links <= MOST_LINKS; ++links) {
    // Not the standard library's: that of a 32-bit machine asks for the file's times as well, and
    // fails where one is after 2038.
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length < 0) {
      // No link, or nothing there.
      return errno == EINVAL || errno == ENOENT;
    }
    path = path.parent_path() / std::string(target, static_cast<std::size_t>(length));
  }
  return false;
}

// Whether the folder says no, as against a disk that is full or broken, where rewriting in place
// would put the old content at risk for nothing.
bool IsRefusal(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == EBUSY || error == EXDEV;
}

// --- Locks
//
// A lock is taken where two processes could meet in one file: by whoever rewrites the settings file
// in place, and whoever reads it; and on a temporary file by its maker, who needs it, so that the
// next store can tell a file that a killed process left behind.

// Waits for whoever has the file, but not for ever: whoever may read it can lock it. False when it
// is still locked then. On a file system that knows no locks there is none: that must not keep
// anybody from their settings.
bool Lock(int descriptor, int operation) {
  constexpr auto PAUSE = std::chrono::milliseconds(1);
  constexpr int MOST_PAUSES = 10000;
  for (int pause = 0; pause < MOST_PAUSES; ++pause) {
    if (flock(descriptor, operation | LOCK_NB) == 0 || (errno != EWOULDBLOCK && errno != EINTR)) {
      return true;
    }
    std::this_thread::sleep_for(PAUSE);
  }
  return false;
}

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool IsRemoved(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && status.st_nlink == 0;
}

// --- Temporary files

// Opens a new file in the folder of `target`, locked; `path` becomes its path. -1, with errno set,
// when none can be made.
int OpenTemporaryFile(const fs::path& target, mode_t mode, fs::path& path) {
  constexpr int MOST_NAMES = 1000;
  for (int number = 0; number < MOST_NAMES; ++number) {
    path = target.parent_path() /
           (".ini-" + std::to_string(getpid()) + "-" + std::to_string(number) + ".tmp");
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (descriptor < 0 && errno != EEXIST) {
      return -1;
    }
    if (descriptor < 0) {
      continue;
    }
    // Another process may have taken it for one left behind, before it was locked.
    const bool isLost = flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (!isLost && !IsRemoved(descriptor)) {
      return descriptor;
    }
    close(descriptor);
  }
  errno = EEXIST;
  return -1;
}

bool IsTemporaryName(const char* name) {
  int length = 0;
  std::sscanf(name, ".ini-%*[0-9]-%*[0-9].tmp%n", &length);
  return length > 0 && name[length] == '\0';
}

// Removes the temporary files of processes that were killed. Those of living ones are locked.
void RemoveLeftovers(const fs::path& folder) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.empty() ? "." : folder.c_str()),
                                                    closedir);
  while (const dirent* const entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
    if (!IsTemporaryName(entry->d_name)) {
      continue;
    }
    const fs::path path = folder / entry->d_name;
    const Descriptor left(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    // While it was opened its maker may have renamed it, and made another of that name.
    struct stat opened {};
    struct stat named {};
    if (left.IsOpen() && flock(left.Get(), LOCK_EX | LOCK_NB) == 0 &&
        fstat(left.Get(), &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
        IsSameFile(opened, named)) {
      unlink(path.c_str());
    }
  }
}

// --- What the new file keeps of the old

// The owner first: changing it clears mode bits.
bool CopyOwner(int descriptor, const struct stat& original) {
  struct stat own {};
  if (fstat(descriptor, &own) != 0) {
    return false;
  }
  return (own.st_uid == original.st_uid && own.st_gid == original.st_gid) ||
         fchown(descriptor, original.st_uid, original.st_gid) == 0;
}

bool SyncFolder(const fs::path& folder) {
  const Descriptor descriptor(
      open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // EINVAL: a file system that knows no such thing.
  return descriptor.IsOpen() && (fsync(descriptor.Get()) == 0 || errno == EINVAL);
}

enum class RenameResult { kDone, kFailed, kRefused };

// `original` is null when there is no file to be replaced.
RenameResult ReplaceByRename(const fs::path& target, const struct stat* original,
                             const std::string& text) {
  // Nobody may read the new content who could not read the old.
  const mode_t firstMode = original != nullptr ? 0600 : 0666;
  fs::path path;
  Descriptor descriptor(OpenTemporaryFile(target, firstMode, path));
  if (!descriptor.IsOpen()) {
    return IsRefusal(errno) ? RenameResult::kRefused : RenameResult::kFailed;
  }
  RemovedFile temporary(path);

  if (original != nullptr) {
    if (!CopyOwner(descriptor.Get(), *original) || !CopyAttributes(descriptor.Get(), target) ||
        fchmod(descriptor.Get(), original->st_mode & 07777) != 0) {
      return RenameResult::kRefused;
    }
  }
  // Holds the lock when the file is closed, which must be before it is renamed.
  Descriptor lock(fcntl(descriptor.Get(), F_DUPFD_CLOEXEC, 0));
  // On the disk before it gets the name: else a power cut could leave an empty file of that name.
  if (!lock.IsOpen() || !WriteAll(descriptor.Get(), text) || fsync(descriptor.Get()) != 0 ||
      !descriptor.Close()) {
    return RenameResult::kFailed;
  }
  if (rename(path.c_str(), target.c_str()) != 0) {
    return IsRefusal(errno) ? RenameResult::kRefused : RenameResult::kFailed;
  }
  temporary.Keep();
  lock.Close();  // readers wait for it
  RemoveLeftovers(target.parent_path());
  return SyncFolder(target.parent_path()) ? RenameResult::kDone : RenameResult::kFailed;
}

// Extends the file, so that a full disk shows. True also on a file system that knows no such thing:
// the writing then has to find out.
bool TakeRoom(int descriptor, off_t from, off_t to) {
  int error = EINTR;
  for (int attempt = 0; error == EINTR && attempt < 100; ++attempt) {
    error = posix_fallocate(descriptor, from, to - from);
  }
  return error == 0 || error == EOPNOTSUPP || error == EINVAL;
}

void PutBack(int descriptor, const std::string& original) {
  if (WriteAll(descriptor, original) &&
      ftruncate(descriptor, static_cast<off_t>(original.size())) == 0) {
    fsync(descriptor);
  }
}

// Opens the file, when it is this process's turn; -1 when it cannot be opened. While a process
// waits, another may put a new file in the place of this one.
int OpenForRewriting(const fs::path& target) {
  constexpr int MOST_TURNS = 100;
  Descriptor descriptor(-1);
  for (int turn = 0; turn < MOST_TURNS; ++turn) {
    descriptor.Reset(open(target.c_str(), O_RDWR | O_CLOEXEC));
    if (!descriptor.IsOpen()) {
      return -1;
    }
    if (!Lock(descriptor.Get(), LOCK_EX)) {
      return -1;
    }
    struct stat opened {};
    struct stat named {};
    if (fstat(descriptor.Get(), &opened) != 0 || stat(target.c_str(), &named) != 0) {
      return -1;
    }
    if (IsSameFile(opened, named)) {
      return descriptor.Release();
    }
  }
  return -1;
}

bool RewriteInPlace(const fs::path& target, const std::string& text) {
  Descriptor descriptor(OpenForRewriting(target));
  std::string original;
  if (!descriptor.IsOpen() || !ReadAll(descriptor.Get(), original)) {
    return false;
  }
  const auto length = static_cast<off_t>(text.size());
  const auto originalLength = static_cast<off_t>(original.size());

  // Room first: a full disk shows while the old content still stands. Length last: a reader never
  // finds less than it needs.
  const bool hasRoom =
      length <= originalLength || TakeRoom(descriptor.Get(), originalLength, length);
  if (!hasRoom || !WriteAll(descriptor.Get(), text) || ftruncate(descriptor.Get(), length) != 0) {
    PutBack(descriptor.Get(), original);
    return false;
  }
  const bool isSynced = fsync(descriptor.Get()) == 0;
  return descriptor.Close() && isSynced;
}

}  // namespace

ReadResult ReadFile(const std::string& path, std::string& text) {
  text.clear();
  // Non-blocking: opening a named pipe would wait for a writer. A file that another process holds a
  // lease on is waited for, until the kernel has taken the lease back.
  Descriptor descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!descriptor.IsOpen() && errno == EWOULDBLOCK) {
    descriptor.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  if (!descriptor.IsOpen()) {
    return errno == ENOENT ? ReadResult::kMissing : ReadResult::kUnreadable;
  }
  struct stat status {};
  if (fstat(descriptor.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return ReadResult::kUnreadable;
  }
  Lock(descriptor.Get(), LOCK_SH);  // whoever keeps it longer than we wait is none of us
  return ReadAll(descriptor.Get(), text) ? ReadResult::kRead : ReadResult::kUnreadable;
}

bool ReplaceFile(const std::string& path, const std::string& text) {
  const WriteSignals noSignals;
  fs::path target(path);
  if (!ResolveLinks(target)) {
    return false;
  }
  struct stat original {};
  const bool exists = stat(target.c_str(), &original) == 0;
  if (exists ? !S_ISREG(original.st_mode) : errno != ENOENT) {
    return false;
  }
  switch (ReplaceByRename(target, exists ? &original : nullptr, text)) {
    case RenameResult::kDone:
      return true;
    case RenameResult::kRefused:
      return exists && RewriteInPlace(target, text);
    case RenameResult::kFailed:
      break;
  }
  return false;
}

}  // namespace file_replacement
