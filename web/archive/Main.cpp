// The CDS archive's record, from the command line:
//
//   class-archive record FOLDER FILE...
//   class-archive fits FOLDER
//   class-archive run FOLDER PROGRAM
//   class-archive lock SECONDS
//
// "record" writes the record of the archive and of these files. "fits" ends with status 0 if the
// archive fits; else with 1 and the first mismatch on standard error. "run" becomes the program,
// with the archive if it fits. "lock" locks its standard input, which a shell keeps open; it waits
// at most so many seconds for others.

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ClassArchive.h"

namespace {

bool LockInput(unsigned seconds) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  alarm(seconds);
  return flock(STDIN_FILENO, LOCK_EX) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 4 && std::strcmp(argv[1], "record") == 0) {
    if (RecordClassArchive(argv[2], argv + 3, argc - 3)) {
      return EXIT_SUCCESS;
    }
    std::perror("class-archive: record");
    return EXIT_FAILURE;
  }
  if (argc == 3 && std::strcmp(argv[1], "fits") == 0) {
    const char* mismatch = nullptr;
    if (ClassArchiveFits(argv[2], &mismatch)) {
      return EXIT_SUCCESS;
    }
    std::fprintf(stderr, "class-archive: does not fit: %s\n", mismatch);
    return EXIT_FAILURE;
  }
  if (argc == 4 && std::strcmp(argv[1], "run") == 0) {
    UseClassArchive(argv[2]);
    execv(argv[3], argv + 3);
    std::perror(argv[3]);
    return EXIT_FAILURE;
  }
  const long seconds = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0;
  if (seconds > 0 && std::strcmp(argv[1], "lock") == 0) {
    if (LockInput(static_cast<unsigned>(seconds))) {
      return EXIT_SUCCESS;
    }
    std::fprintf(stderr, "class-archive: lock: %s\n",
                 errno == EINTR ? "another one holds it" : std::strerror(errno));
    return EXIT_FAILURE;
  }
  std::fprintf(
      stderr,
      "class-archive: record FOLDER FILE... | fits FOLDER | run FOLDER PROGRAM | lock SECONDS\n");
  return 2;
}
