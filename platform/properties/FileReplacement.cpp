#include "FileReplacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace file_replacement {
namespace {

namespace fs = std::filesystem;

// Owns a file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool IsOpen() const { return number_ >= 0; }
  int Get() const { return number_; }

  // The last word on whether what was written arrived, on file systems that report late.
  bool Close() {
    const int number = number_;
    number_ = -1;
    return number < 0 || close(number) == 0;
  }

 private:
  int number_;
};

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
    std::error_code error;
    const fs::path target = fs::read_symlink(path, error);
    if (error) {
      // No link, or nothing there.
      return error == std::errc::invalid_argument || error == std::errc::no_such_file_or_directory;
    }
    path = path.parent_path() / target;
  }
  return false;
}

// Whether the folder says no, as against a disk that is full or broken, where rewriting in place
// would put the old content at risk for nothing.
bool IsRefusal(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == EBUSY || error == EXDEV;
}

// Opens a new file in the folder of `target`; `path` becomes its path. -1, with errno set, when
// none can be made.
int OpenTemporaryFile(const fs::path& target, mode_t mode, fs::path& path) {
  constexpr int MOST_NAMES = 1000;
  for (int number = 0; number < MOST_NAMES; ++number) {
    path = target.parent_path() /
           (".ini-" + std::to_string(getpid()) + "-" + std::to_string(number) + ".tmp");
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (descriptor >= 0 || errno != EEXIST) {
      return descriptor;
    }
  }
  return -1;
}

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
    if (!CopyOwner(descriptor.Get(), *original) ||
        fchmod(descriptor.Get(), original->st_mode & 07777) != 0) {
      return RenameResult::kRefused;
    }
  }
  // On the disk before it gets the name: else a power cut could leave an empty file of that name.
  if (!WriteAll(descriptor.Get(), text) || fsync(descriptor.Get()) != 0 || !descriptor.Close()) {
    return RenameResult::kFailed;
  }
  if (rename(path.c_str(), target.c_str()) != 0) {
    return IsRefusal(errno) ? RenameResult::kRefused : RenameResult::kFailed;
  }
  temporary.Keep();
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

bool RewriteInPlace(const fs::path& target, const std::string& text) {
  Descriptor descriptor(open(target.c_str(), O_RDWR | O_CLOEXEC));
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
  // Non-blocking: opening a named pipe would wait for a writer.
  const Descriptor descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!descriptor.IsOpen()) {
    return errno == ENOENT ? ReadResult::kMissing : ReadResult::kUnreadable;
  }
  struct stat status {};
  const bool isRegular = fstat(descriptor.Get(), &status) == 0 && S_ISREG(status.st_mode);
  return isRegular && ReadAll(descriptor.Get(), text) ? ReadResult::kRead : ReadResult::kUnreadable;
}

bool ReplaceFile(const std::string& path, const std::string& text) {
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
