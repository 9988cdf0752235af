// Interposes the C library's file calls and makes chosen ones fail. Preloaded into the unmodified
// program. It watches the calls on paths below one folder, and on the descriptors that they open.
// The test sets in the environment:
//
// FAILING_FILE_CALLS_FOLDER  the folder; without it no call is watched
// FAILING_FILE_CALLS_TRACE   the file to which every watched call is appended, one a line
// FAILING_FILE_CALLS         "3": the third watched call fails; "3-": it and all later ones fail
// FAILING_FILE_CALLS_ERROR   the errno of the failure; without it the process is killed there
// FAILING_FILE_CALLS_PIECE   the most bytes that one read or write moves
// FAILING_FILE_CALLS_OWNER   the user and group that stat reports for the files; then giving a file
//                            to any owner succeeds
//
// unlink never fails: otherwise nothing could be cleaned up.

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <map>

#include "Record.h"

namespace {

int callCount = 0;

// The files of the watched descriptors. Never destroyed: descriptors are still closed while the
// process ends.
std::map<int, std::string>& Names() {
  static auto* const names = new std::map<int, std::string>;
  return *names;
}

// The path within the watched folder; empty outside it.
std::string NameOf(const char* path) {
  const std::string folder = Setting("FAILING_FILE_CALLS_FOLDER");
  const std::string text = path;
  if (folder.empty() || text.rfind(folder, 0) != 0) {
    return "";
  }
  const std::string rest = text.substr(folder.size());
  return rest.empty() ? "." : rest[0] == '/' ? rest.substr(1) : "";
}

bool IsChosen(int number) {
  const std::string choice = Setting("FAILING_FILE_CALLS");
  const int first = std::atoi(choice.c_str());
  return !choice.empty() && (choice.back() == '-' ? number >= first : number == first);
}

// Records the call. True: it has to fail, and errno is set.
bool Fails(const std::string& call) {
  Record("FAILING_FILE_CALLS_TRACE", call);
  if (!IsChosen(++callCount)) {
    return false;
  }
  const std::string error = Setting("FAILING_FILE_CALLS_ERROR");
  if (error.empty()) {
    raise(SIGKILL);
  }
  errno = std::atoi(error.c_str());
  return true;
}

bool FailsOn(int descriptor, const std::string& call, const std::string& arguments = "") {
  const auto name = Names().find(descriptor);
  return name != Names().end() && Fails(call + " " + name->second + arguments);
}

bool FailsOn(const char* path, const std::string& call, const std::string& arguments = "") {
  const std::string name = NameOf(path);
  return !name.empty() && Fails(call + " " + name + arguments);
}

std::size_t Piece(int descriptor, std::size_t size) {
  const std::string most = Setting("FAILING_FILE_CALLS_PIECE");
  const bool isWhole = most.empty() || Names().count(descriptor) == 0;
  return isWhole ? size : std::min<std::size_t>(size, std::stoul(most));
}

std::string Octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%o", mode);
  return text;
}

// The C library's function with the same symbol. That is not always the name in the source: on
// 32-bit machines the calls with 64-bit offsets and times have other symbols.
template <typename Function>
Function* Real(Function* own) {
  Dl_info symbol = {};
  dladdr(reinterpret_cast<void*>(own), &symbol);
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol.dli_sname));
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  if (FailsOn(path, "open", (flags & O_CREAT) != 0 ? " " + Octal(mode) : "")) {
    return -1;
  }
  const int descriptor = Real(open)(path, flags, mode);
  if (descriptor >= 0 && !NameOf(path).empty()) {
    Names()[descriptor] = NameOf(path);
  }
  return descriptor;
}

// A close that fails has closed the descriptor nevertheless.
int close(int descriptor) {
  const bool fails = FailsOn(descriptor, "close");
  const int error = errno;
  Names().erase(descriptor);
  const int result = Real(close)(descriptor);
  errno = fails ? error : errno;
  return fails ? -1 : result;
}

ssize_t pread(int descriptor, void* data, size_t size, off_t offset) {
  size = Piece(descriptor, size);
  return FailsOn(descriptor, "pread") ? -1 : Real(pread)(descriptor, data, size, offset);
}

ssize_t write(int descriptor, const void* data, size_t size) {
  const bool fails = FailsOn(descriptor, "write", " " + std::to_string(size));
  return fails ? -1 : Real(write)(descriptor, data, Piece(descriptor, size));
}

ssize_t pwrite(int descriptor, const void* data, size_t size, off_t offset) {
  size = Piece(descriptor, size);
  return FailsOn(descriptor, "pwrite") ? -1 : Real(pwrite)(descriptor, data, size, offset);
}

int fsync(int descriptor) {
  return FailsOn(descriptor, "fsync") ? -1 : Real(fsync)(descriptor);
}

int ftruncate(int descriptor, off_t length) noexcept {
  return FailsOn(descriptor, "ftruncate") ? -1 : Real(ftruncate)(descriptor, length);
}

int posix_fallocate(int descriptor, off_t offset, off_t length) {
  return FailsOn(descriptor, "posix_fallocate") ? errno
                                                : Real(posix_fallocate)(descriptor, offset, length);
}

int fchmod(int descriptor, mode_t mode) noexcept {
  return FailsOn(descriptor, "fchmod", " " + Octal(mode)) ? -1 : Real(fchmod)(descriptor, mode);
}

int fchown(int descriptor, uid_t user, gid_t group) noexcept {
  const std::string owner = " " + std::to_string(user) + " " + std::to_string(group);
  if (FailsOn(descriptor, "fchown", owner)) {
    return -1;
  }
  return Setting("FAILING_FILE_CALLS_OWNER").empty() ? Real(fchown)(descriptor, user, group) : 0;
}

ssize_t flistxattr(int descriptor, char* names, size_t size) noexcept {
  return FailsOn(descriptor, "flistxattr") ? -1 : Real(flistxattr)(descriptor, names, size);
}

int fstat(int descriptor, struct stat* status) noexcept {
  return FailsOn(descriptor, "fstat") ? -1 : Real(fstat)(descriptor, status);
}

int stat(const char* path, struct stat* status) noexcept {
  if (FailsOn(path, "stat")) {
    return -1;
  }
  const int result = Real(stat)(path, status);
  const std::string owner = Setting("FAILING_FILE_CALLS_OWNER");
  if (!owner.empty() && !NameOf(path).empty()) {
    std::sscanf(owner.c_str(), "%u %u", &status->st_uid, &status->st_gid);
  }
  return result;
}

int lstat(const char* path, struct stat* status) noexcept {
  return FailsOn(path, "lstat") ? -1 : Real(lstat)(path, status);
}

ssize_t readlink(const char* path, char* target, size_t size) noexcept {
  return FailsOn(path, "readlink") ? -1 : Real(readlink)(path, target, size);
}

int rename(const char* from, const char* to) noexcept {
  return FailsOn(from, "rename", " " + NameOf(to)) ? -1 : Real(rename)(from, to);
}

}  // extern "C"
