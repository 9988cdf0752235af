// Stores one value after the other in the settings file, in the machine whose power is cut.
//
//   store-values DISK OFFSET LIE USERS [PROGRAM]
//
// The number of each store that is done, 0 before the first, goes to DISK at OFFSET, which is past
// the file system, and then to standard output. So the disk's log of writes shows, between the
// writes of the stores, what was known to be stored at that moment.
//
// USERS, their numbers with commas between, store in turn; but for root they are of the group 1002.
// With PROGRAM each store is a whole request to it. Else the library stores, and a store that fails
// ends it all. With the LIE "file" or "folder", fsync does nothing to such, and says that it did.

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "PropertiesIni.h"

namespace {

constexpr char PATH[] = "/app/tarn-belox/runvex/obd.conf";
constexpr gid_t SHARED_GROUP = 1002;
// Far more than a machine gets done before its power is cut.
constexpr long MOST_STORES = 1000000;

std::string lie;

// Of ever another length, so that all that follows the value moves. power_cut.py knows it too.
std::string Value(long number) {
  return std::to_string(number) + std::string(static_cast<std::size_t>(number * 7919 % 3000), 'x');
}

bool Report(int disk, off_t offset, long number) {
  alignas(4096) static char sector[512];
  std::memset(sector, 0, sizeof sector);
  std::snprintf(sector, sizeof sector, "%ld\n", number);
  if (pwrite(disk, sector, sizeof sector, offset) != sizeof sector) {
    return false;
  }
  std::printf("done %ld\n", number);
  return std::fflush(stdout) == 0;
}

bool StoreByLibrary(const std::string& value) {
  PropertiesIni settings;
  if (!settings.Load(PATH)) {
    return false;
  }
  settings.SetProperty("SETTINGS", "VEMODCanDetectTimeout", value);
  return settings.Store(PATH, "");
}

// Becomes the program.
[[noreturn]] void Request(char* program, const std::string& value) {
  setenv("REQUEST_METHOD", "GET", 1);
  setenv("QUERY_STRING", ("CanDetectTimeout=" + value).c_str(), 1);
  dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
  execl(program, program, nullptr);
  _exit(127);
}

// In a process of its own, as that user.
bool StoreAs(uid_t user, char* program, const std::string& value) {
  const pid_t child = fork();
  if (child == 0) {
    if (user != 0 && (setgroups(1, &SHARED_GROUP) != 0 || setgid(user) != 0 || setuid(user) != 0)) {
      _exit(1);
    }
    if (program != nullptr) {
      Request(program, value);
    }
    _exit(StoreByLibrary(value) ? 0 : 1);
  }
  int status = -1;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace

// Names that the linker gives, with --wrap=fsync.
extern "C" int __real_fsync(int descriptor);
extern "C" int __wrap_fsync(int descriptor) {
  struct stat status {};
  fstat(descriptor, &status);
  const bool isLie = lie == (S_ISDIR(status.st_mode) ? "folder" : "file");
  return isLie ? 0 : __real_fsync(descriptor);
}

int main(int argc, char** argv) {
  if (argc < 5) {
    return 2;
  }
  const int disk = open(argv[1], O_WRONLY | O_DIRECT | O_CLOEXEC);
  const off_t offset = std::atol(argv[2]);
  lie = argv[3];
  std::vector<uid_t> users;
  std::istringstream numbers(argv[4]);
  for (std::string user; std::getline(numbers, user, ',');) {
    users.push_back(static_cast<uid_t>(std::stoul(user)));
  }
  char* const program = argc > 5 ? argv[5] : nullptr;
  if (disk < 0 || users.empty() || !Report(disk, offset, 0)) {
    std::perror("store-values");
    return 1;
  }
  for (long number = 1; number <= MOST_STORES; ++number) {
    const uid_t user = users[static_cast<std::size_t>(number) % users.size()];
    if (!StoreAs(user, program, Value(number)) || !Report(disk, offset, number)) {
      std::printf("store %ld failed\n", number);
      return 1;
    }
  }
  return 0;
}
