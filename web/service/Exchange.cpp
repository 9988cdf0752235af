// exchange ONE OTHER: two files swap their names, at one moment for whoever looks them up. A mount
// on either goes along, where replacing a file by renaming would take the mount away first.

#include <fcntl.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "Usage: exchange ONE OTHER\n");
    return EXIT_FAILURE;
  }
  if (renameat2(AT_FDCWD, argv[1], AT_FDCWD, argv[2], RENAME_EXCHANGE) != 0) {
    std::perror(argv[1]);
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
