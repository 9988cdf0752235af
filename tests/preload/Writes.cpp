// Counts the writes to one file. Preloaded into the unmodified program. What the test sets in the
// environment:
//
// WATCHED_FILE   the file; there when the first write is made
// WRITES_RECORD  a file to which the size of every write to it is appended, a line each

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

bool IsWatched(int descriptor) {
  struct stat watched;
  struct stat written;
  return stat(std::getenv("WATCHED_FILE"), &watched) == 0 && fstat(descriptor, &written) == 0 &&
         watched.st_dev == written.st_dev && watched.st_ino == written.st_ino;
}

void Record(size_t size) {
  if (std::FILE* const record = std::fopen(std::getenv("WRITES_RECORD"), "a")) {
    std::fprintf(record, "%zu\n", size);
    std::fclose(record);
  }
}

}  // namespace

extern "C" ssize_t write(int descriptor, const void* bytes, size_t size) {
  if (IsWatched(descriptor)) {
    Record(size);
  }
  return syscall(SYS_write, descriptor, bytes, size);
}
