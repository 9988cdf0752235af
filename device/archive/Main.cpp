// The class archive's record, from the command line:
//
//   class-archive record FOLDER FILE...
//   class-archive fits FOLDER
//   class-archive run FOLDER PROGRAM
//
// The first writes the record, of these files too. The second ends with status 0 if the archive
// fits; else with 1, and says what does not. The third becomes the program, with the archive if it
// fits.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ClassArchive.h"

int main(int argc, char** argv) {
  if (argc >= 4 && std::strcmp(argv[1], "record") == 0) {
    if (RecordClassArchive(argv[2], argv + 3, argc - 3)) {
      return EXIT_SUCCESS;
    }
    std::perror("class-archive: record");
    return EXIT_FAILURE;
  }
  if (argc == 3 && std::strcmp(argv[1], "fits") == 0) {
    const char* misfit = nullptr;
    if (ClassArchiveFits(argv[2], &misfit)) {
      return EXIT_SUCCESS;
    }
    std::fprintf(stderr, "class-archive: does not fit: %s\n", misfit);
    return EXIT_FAILURE;
  }
  if (argc == 4 && std::strcmp(argv[1], "run") == 0) {
    UseClassArchive(argv[2]);
    execv(argv[3], argv + 3);
    std::perror(argv[3]);
    return EXIT_FAILURE;
  }
  std::fprintf(stderr, "class-archive: record FOLDER FILE... | fits FOLDER | run FOLDER PROGRAM\n");
  return 2;
}
