// exchange ONE OTHER: swaps the names of two files atomically. A mount on either file moves with
// it. A plain rename over the log, which is a mount point in the service's namespace, would unmount
// it there, and the service would see no log.

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
