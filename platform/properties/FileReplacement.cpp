#include "FileReplacement.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <thread>

#include "Descriptor.h"
#include "FileAttributes.h"
#include "WriteSignals.h"

namespace file_replacement {
namespace {

namespace fs = std::filesystem;

// Removes a file when it goes out of scope, unless Keep was called.
class TemporaryFile {
 public:
  explicit TemporaryFile(const fs::path& path) : path_(path) {}
  ~TemporaryFile() {
    if (!kept_) {
      unlink(path_.c_str());
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  void Keep() { kept_ = true; }

 private:
  fs::path path_;
  bool kept_ = false;
};

// Far more than any settings file needs. A larger file, for example a sparse one, must not exhaust
// the memory.
constexpr std::size_t MAX_BYTES = 32U << 20;

// The file's size as fstat reports it saves copying; the file may still grow while it is read.
bool ReadAll(int descriptor, std::string& text) {
  text.clear();
  struct stat status {};
  fstat(descriptor, &status);
  if (status.st_size > static_cast<off_t>(MAX_BYTES)) {
    return false;
  }
  text.resize(static_cast<std::size_t>(status.st_size) + 1);
  std::size_t length = 0;
  while (length <= MAX_BYTES) {
    if (text.size() == length) {
      text.resize(2 * length);
    }
    const ssize_t count =
        pread(descriptor, &text[length], text.size() - length, static_cast<off_t>(length));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      break;
    }
    if (count == 0) {
      text.resize(length);
      return true;
    }
    length += static_cast<std::size_t>(count);
  }
  text.clear();
  return false;
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

// Follows the symbolic links at the end of `path`, to a file that may be missing. Returns false
// when they form a loop or cannot be read.
bool ResolveLinks(fs::path& path) {
  constexpr int MAX_LINKS = 40;
  for (int links = 0; links <= MAX_LINKS; ++links) {
    // Not std::filesystem's: on 32-bit machines it also asks for the file's times, and fails when
    // one is after 2038.
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length < 0) {
      // EINVAL: not a link. ENOENT: no such file.
      return errno == EINVAL || errno == ENOENT;
    }
    path = path.parent_path() / std::string(target, static_cast<std::size_t>(length));
  }
  return false;
}

fs::path FolderOf(const fs::path& file) {
  fs::path folder = file.parent_path();
  if (folder.empty()) {
    folder = ".";
  }
  return folder;
}

// Whether the error denies permission. On a full or broken disk, rewriting in place would only put
// the old content at risk.
bool IsPermissionDenied(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == EBUSY || error == EXDEV;
}

// --- Temporary files

// Opens a new file in the folder and puts its path into `path`. Returns -1, with errno set, on
// failure. Processes in two containers can have the same ID, so the name also holds the time.
int OpenTemporaryFile(const fs::path& folder, mode_t mode, fs::path& path) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  char name[64];
  std::snprintf(name, sizeof name, ".ini-%d-%ld.tmp", static_cast<int>(getpid()),
                static_cast<long>(now.tv_nsec));
  path = folder / name;
  return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
}

// Whether the file is a temporary file of ours and its process has ended. A process of another user
// may not be signalled (EPERM), but lives.
bool IsLeftover(const char* name) {
  char process[10] = "";
  int length = 0;
  std::sscanf(name, ".ini-%9[0-9]-%*[0-9].tmp%n", process, &length);
  return length > 0 && name[length] == '\0' && kill(std::atoi(process), 0) != 0 && errno == ESRCH;
}

// Removes the temporary files of processes that were killed.
void RemoveLeftovers(const fs::path& folder) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
  while (const dirent* const entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
    // A link is not ours.
    if (entry->d_type != DT_LNK && IsLeftover(entry->d_name)) {
      unlink((folder / entry->d_name).c_str());
    }
  }
}

// --- What the new file keeps of the old

// Whether the file belongs to its group rather than to one user: the folder has the set-group-ID
// bit, the group is the folder's and has the owner's rights. An access control list could narrow
// these, so there must be none.
bool BelongsToItsGroup(const fs::path& file, const struct stat& status) {
  struct stat folder {};
  return stat(FolderOf(file).c_str(), &folder) == 0 && (folder.st_mode & S_ISGID) != 0 &&
         folder.st_gid == status.st_gid &&
         ((status.st_mode & S_IRWXU) >> 3) == (status.st_mode & S_IRWXG) &&
         getxattr(file.c_str(), "system.posix_acl_access", nullptr, 0) < 0;
}

// Must run before the mode is set: changing the owner clears mode bits.
bool CopyOwner(int descriptor, const fs::path& file, const struct stat& original) {
  struct stat own;
  if (fstat(descriptor, &own) != 0) {
    return false;
  }
  if ((own.st_uid == original.st_uid && own.st_gid == original.st_gid) ||
      fchown(descriptor, original.st_uid, original.st_gid) == 0) {
    return true;
  }
  if (errno == EPERM && BelongsToItsGroup(file, original)) {
    constexpr auto SAME_USER = static_cast<uid_t>(-1);
    return fchown(descriptor, SAME_USER, original.st_gid) == 0;
  }
  // The user namespace has no ID for the owner, so nobody here may give the file away: permission
  // is denied.
  if (errno == EINVAL) {
    errno = EPERM;
  }
  return false;
}

bool SyncFolder(const fs::path& folder) {
  const Descriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // EINVAL: the file system cannot flush folders.
  return descriptor.IsOpen() && (fsync(descriptor.Get()) == 0 || errno == EINVAL);
}

enum class RenameResult {
  kDone,
  kFailed,
  kDenied,  // no permission for a step
  kLost,    // another process took or removed the temporary file
};

RenameResult FailedWith(int error) {
  return IsPermissionDenied(error) ? RenameResult::kDenied : RenameResult::kFailed;
}

// `original` is null when there is no file to replace.
RenameResult ReplaceByRename(const fs::path& target, const struct stat* original,
                             const std::string& text) {
  // 0600 until the old mode is set, so that nobody reads the new content who could not read the
  // old.
  const mode_t firstMode = original != nullptr ? 0600 : 0666;
  const fs::path folder = FolderOf(target);
  fs::path path;
  Descriptor descriptor(OpenTemporaryFile(folder, firstMode, path));
  if (!descriptor.IsOpen()) {
    return errno == EEXIST ? RenameResult::kLost : FailedWith(errno);
  }
  TemporaryFile temporary(path);

  if (original != nullptr) {
    if (!CopyOwner(descriptor.Get(), target, *original) ||
        !CopyAttributes(descriptor.Get(), target) ||
        fchmod(descriptor.Get(), original->st_mode & 07777) != 0) {
      return FailedWith(errno);
    }
  }
  // Flushed before the rename: otherwise a power cut could leave an empty file of the right name.
  if (!WriteAll(descriptor.Get(), text) || fsync(descriptor.Get()) != 0 || !descriptor.Close()) {
    return RenameResult::kFailed;
  }
  if (rename(path.c_str(), target.c_str()) != 0) {
    return errno == ENOENT ? RenameResult::kLost : FailedWith(errno);
  }
  temporary.Keep();
  RemoveLeftovers(folder);
  return SyncFolder(folder) ? RenameResult::kDone : RenameResult::kFailed;
}

// --- In place

// Extends the file, so that a full disk shows. Also returns true when the file system cannot
// allocate ahead: the write then fails instead.
bool AllocateSpace(int descriptor, off_t from, off_t to) {
  int error = EINTR;
  for (int attempt = 0; error == EINTR && attempt < 100; ++attempt) {
    error = posix_fallocate(descriptor, from, to - from);
  }
  return error == 0 || error == EOPNOTSUPP || error == EINVAL;
}

bool WriteInPlace(int descriptor, const std::string& text) {
  struct stat status;
  const auto length = static_cast<off_t>(text.size());
  // Allocates first: a full disk shows while the old content is untouched. Truncates last: a reader
  // never finds less than one of the two texts.
  return fstat(descriptor, &status) == 0 &&
         (length <= status.st_size || AllocateSpace(descriptor, status.st_size, length)) &&
         WriteAll(descriptor, text) && ftruncate(descriptor, length) == 0;
}

bool RewriteInPlace(const fs::path& target, const std::string& text) {
  Descriptor descriptor(open(target.c_str(), O_RDWR | O_CLOEXEC));
  std::string original;
  if (!descriptor.IsOpen() || !ReadAll(descriptor.Get(), original)) {
    return false;
  }
  // Two processes that rewrite the file at the same time can mix their texts. Each writes again
  // until it reads its own text back, so the last one to write leaves its own text whole.
  constexpr int MAX_ATTEMPTS = 50;
  bool isWhole = false;
  for (int attempt = 0; attempt < MAX_ATTEMPTS && !isWhole; ++attempt) {
    // A pause of random length, so that two processes do not stay in step.
    const auto chance = std::chrono::steady_clock::now().time_since_epoch().count() % 7;
    std::this_thread::sleep_for(std::chrono::microseconds(100) * attempt * (chance + 1));
    if (!WriteInPlace(descriptor.Get(), text)) {
      WriteInPlace(descriptor.Get(), original);
      fsync(descriptor.Get());
      return false;
    }
    std::string found;
    isWhole = ReadAll(descriptor.Get(), found) && found == text;
  }
  const bool isSynced = fsync(descriptor.Get()) == 0;
  return descriptor.Close() && isSynced && isWhole;
}

// Whether the file may be one that can only be rewritten in place.
bool IsRewritten(int descriptor, const struct stat& status, fs::path path) {
#ifdef STATX_ATTR_MOUNT_ROOT
  struct statx file;
  if (statx(descriptor, "", AT_EMPTY_PATH, 0, &file) == 0 &&
      (file.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
    return true;
  }
#endif
  return status.st_uid != geteuid() || status.st_gid != getegid() || !ResolveLinks(path) ||
         access(FolderOf(path).c_str(), W_OK) != 0;
}

// Whether another process may be rewriting the file in place at this moment.
bool IsUnsettled(int descriptor, const std::string& path) {
  constexpr long JUST_NOW = 30L * 1000 * 1000;  // a few ticks of the clock that stamps files
  struct stat status;
  timespec now;
  if (fstat(descriptor, &status) != 0 || clock_gettime(CLOCK_REALTIME, &now) != 0) {
    return false;
  }
  const auto seconds = now.tv_sec - status.st_mtim.tv_sec;
  const long nanoseconds = now.tv_nsec - status.st_mtim.tv_nsec;
  return ((seconds == 0 && nanoseconds >= 0 && nanoseconds < JUST_NOW) ||
          (seconds == 1 && nanoseconds < JUST_NOW - 1000L * 1000 * 1000)) &&
         IsRewritten(descriptor, status, path);
}

}  // namespace

ReadResult ReadFile(const std::string& path, std::string& text) {
  text.clear();
  // O_NONBLOCK: opening a named pipe would wait for a writer. EWOULDBLOCK: another process holds a
  // lease on the file; opened again, it waits until the kernel has broken the lease.
  Descriptor descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!descriptor.IsOpen() && errno == EWOULDBLOCK) {
    descriptor.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  if (!descriptor.IsOpen()) {
    return errno == ENOENT ? ReadResult::kMissing : ReadResult::kUnreadable;
  }
  struct stat status;
  if (fstat(descriptor.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return ReadResult::kUnreadable;
  }
  constexpr int MAX_PAUSES = 100;
  for (int pause = 0; ReadAll(descriptor.Get(), text); ++pause) {
    if (pause == MAX_PAUSES || !IsUnsettled(descriptor.Get(), path)) {
      return ReadResult::kRead;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return ReadResult::kUnreadable;
}

bool ReplaceFile(const std::string& path, const std::string& text) {
  const BlockedWriteSignals blocked;
  fs::path target(path);
  if (text.size() > MAX_BYTES || !ResolveLinks(target)) {
    return false;
  }
  struct stat original {};
  const bool exists = stat(target.c_str(), &original) == 0;
  if (exists ? !S_ISREG(original.st_mode) : errno != ENOENT) {
    return false;
  }
  // A process in another container may remove our temporary file as a leftover.
  constexpr int MAX_ATTEMPTS = 10;
  RenameResult result = RenameResult::kLost;
  for (int attempt = 0; attempt < MAX_ATTEMPTS && result == RenameResult::kLost; ++attempt) {
    result = ReplaceByRename(target, exists ? &original : nullptr, text);
  }
  return result == RenameResult::kDone ||
         (result == RenameResult::kDenied && exists && RewriteInPlace(target, text));
}

}  // namespace file_replacement
