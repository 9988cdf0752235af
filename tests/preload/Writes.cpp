// Counts the writes to one file. Preloaded into the unmodified program. What the test sets in the
// environment:
//
// WATCHED_FILE   the file; there when the first write is made
// WRITES_RECORD  a file to which the size of every write to it is appended, a line each

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Record.h"

namespace {

bool IsWatched(int descriptor) {
  struct stat watched;
  struct stat written;
  return stat(Setting("WATCHED_FILE").c_str(), &watched) == 0 && fstat(descriptor, &written) == 0 &&
         watched.st_dev == written.st_dev && watched.st_ino == written.st_ino;
}

}  // namespace

extern "C" ssize_t write(int descriptor, const void* bytes, size_t size) {
  if (IsWatched(descriptor)) {
    Record("WRITES_RECORD", std::to_string(size));
  }
  return syscall(SYS_write, descriptor, bytes, size);
}
