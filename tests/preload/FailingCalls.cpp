// Stands in front of the C library's file calls and lets chosen ones fail. Preloaded into the
// unmodified program. Watched are the calls on paths below one folder, and on the descriptors that
// they open. What the test sets in the environment:
//
// FAILING_CALLS_FOLDER   the folder; without it nothing is watched
// FAILING_CALLS_TRACE    a file to which every watched call is appended, a line each
// FAILING_CALLS          "3": the third of the watched calls fails; "3-": and all that follow it
// FAILING_CALLS_ERROR    the errno that it fails with; without it the process is killed there
// FAILING_CALLS_PIECE    the most bytes that one read or write moves
// FAILING_CALLS_OWNER    who stat says owns the files, user and group; the files may then be given
//                        to anybody
//
// unlink is not among them: nobody could tidy up without it.

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace {

int callCount = 0;

// The watched descriptors' files. Never destroyed: descriptors are closed to the very end.
std::map<int, std::string>& Names() {
  static auto* const names = new std::map<int, std::string>;
  return *names;
}

// The path within the watched folder; empty outside it.
std::string NameOf(const char* path) {
  const char* const folder = std::getenv("FAILING_CALLS_FOLDER");
  if (folder == nullptr) {
    return "";
  }
  const std::string text = path;
  const std::string start = std::string(folder) + "/";
  if (text == folder) {
    return ".";
  }
  return text.compare(0, start.size(), start) == 0 ? text.substr(start.size()) : "";
}

void Record(const std::string& call) {
  const char* const path = std::getenv("FAILING_CALLS_TRACE");
  if (path == nullptr) {
    return;
  }
  if (std::FILE* const file = std::fopen(path, "a")) {
    std::fprintf(file, "%s\n", call.c_str());
    std::fclose(file);
  }
}

bool IsChosen(int number) {
  const char* const choice = std::getenv("FAILING_CALLS");
  if (choice == nullptr) {
    return false;
  }
  char* end = nullptr;
  const long first = std::strtol(choice, &end, 10);
  return *end == '-' ? number >= first : number == first;
}

// Whether this watched call must fail; errno says why.
bool Fails(const std::string& call) {
  Record(call);
  if (!IsChosen(++callCount)) {
    return false;
  }
  const char* const error = std::getenv("FAILING_CALLS_ERROR");
  if (error == nullptr) {
    raise(SIGKILL);
  } else {
    errno = std::atoi(error);
  }
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
  const char* const most = std::getenv("FAILING_CALLS_PIECE");
  const bool isWhole = most == nullptr || Names().count(descriptor) == 0;
  return isWhole ? size : std::min<std::size_t>(size, std::strtoul(most, nullptr, 10));
}

std::string Octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%o", mode);
  return text;
}

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
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
  static const auto real = Real<decltype(open)>("open");
  if (FailsOn(path, "open", (flags & O_CREAT) != 0 ? " " + Octal(mode) : "")) {
    return -1;
  }
  const int descriptor = real(path, flags, mode);
  if (descriptor >= 0 && !NameOf(path).empty()) {
    Names()[descriptor] = NameOf(path);
  }
  return descriptor;
}

// One that fails has closed all the same.
int close(int descriptor) {
  static const auto real = Real<decltype(close)>("close");
  const bool fails = FailsOn(descriptor, "close");
  const int error = errno;
  Names().erase(descriptor);
  const int result = real(descriptor);
  errno = fails ? error : errno;
  return fails ? -1 : result;
}

ssize_t read(int descriptor, void* data, size_t size) {
  static const auto real = Real<decltype(read)>("read");
  return FailsOn(descriptor, "read") ? -1 : real(descriptor, data, Piece(descriptor, size));
}

ssize_t pwrite(int descriptor, const void* data, size_t size, off_t offset) {
  static const auto real = Real<decltype(pwrite)>("pwrite");
  return FailsOn(descriptor, "pwrite") ? -1
                                       : real(descriptor, data, Piece(descriptor, size), offset);
}

int fsync(int descriptor) {
  static const auto real = Real<decltype(fsync)>("fsync");
  return FailsOn(descriptor, "fsync") ? -1 : real(descriptor);
}

int ftruncate(int descriptor, off_t length) noexcept {
  static const auto real = Real<decltype(ftruncate)>("ftruncate");
  return FailsOn(descriptor, "ftruncate") ? -1 : real(descriptor, length);
}

int posix_fallocate(int descriptor, off_t offset, off_t length) {
  static const auto real = Real<decltype(posix_fallocate)>("posix_fallocate");
  return FailsOn(descriptor, "posix_fallocate") ? errno : real(descriptor, offset, length);
}

int fchmod(int descriptor, mode_t mode) noexcept {
  static const auto real = Real<decltype(fchmod)>("fchmod");
  return FailsOn(descriptor, "fchmod", " " + Octal(mode)) ? -1 : real(descriptor, mode);
}

int fchown(int descriptor, uid_t user, gid_t group) noexcept {
  static const auto real = Real<decltype(fchown)>("fchown");
  const std::string owner = " " + std::to_string(user) + " " + std::to_string(group);
  if (FailsOn(descriptor, "fchown", owner)) {
    return -1;
  }
  return std::getenv("FAILING_CALLS_OWNER") != nullptr ? 0 : real(descriptor, user, group);
}

int flock(int descriptor, int operation) noexcept {
  static const auto real = Real<decltype(flock)>("flock");
  const std::string kind = (operation & LOCK_SH) != 0 ? " shared" : " exclusive";
  return FailsOn(descriptor, "flock", kind) ? -1 : real(descriptor, operation);
}

int fstat(int descriptor, struct stat* status) noexcept {
  static const auto real = Real<int(int, struct stat*)>("fstat");
  return FailsOn(descriptor, "fstat") ? -1 : real(descriptor, status);
}

int stat(const char* path, struct stat* status) noexcept {
  static const auto real = Real<int(const char*, struct stat*)>("stat");
  if (FailsOn(path, "stat")) {
    return -1;
  }
  const int result = real(path, status);
  const char* const owner = std::getenv("FAILING_CALLS_OWNER");
  if (owner != nullptr && !NameOf(path).empty()) {
    std::sscanf(owner, "%u %u", &status->st_uid, &status->st_gid);
  }
  return result;
}

int lstat(const char* path, struct stat* status) noexcept {
  static const auto real = Real<int(const char*, struct stat*)>("lstat");
  return FailsOn(path, "lstat") ? -1 : real(path, status);
}

ssize_t readlink(const char* path, char* target, size_t size) noexcept {
  static const auto real = Real<decltype(readlink)>("readlink");
  return FailsOn(path, "readlink") ? -1 : real(path, target, size);
}

int rename(const char* from, const char* to) noexcept {
  static const auto real = Real<decltype(rename)>("rename");
  return FailsOn(from, "rename", " " + NameOf(to)) ? -1 : real(from, to);
}

}  // extern "C"
