// Runs one command and prints what the kernel accounted for it, in one line:
//
//   WALL FIRST_BYTE CPU PEAK FAULTS STATUS
//
// microseconds from its start to its end and to its first byte of output, microseconds of CPU (user
// and system), peak memory in KiB, page faults, exit status (128 + signal). A small program of its
// own, since a child's peak begins with what its parent held.
//
//   bench-spawn INPUT COMMAND [ARGUMENT...]

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace {

using Clock = std::chrono::steady_clock;

long MicrosecondsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
}

long Microseconds(const timeval& time) {
  return time.tv_sec * 1000000L + time.tv_usec;
}

[[noreturn]] void Become(char** command, const char* input, int output) {
  dup2(open(input, O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  execv(command[0], command);
  std::perror(command[0]);
  _exit(127);
}

}  // namespace

int main(int argc, char** argv) {
  int ends[2];
  if (argc < 3 || pipe2(ends, O_CLOEXEC) != 0) {
    std::fprintf(stderr, "bench-spawn: INPUT COMMAND [ARGUMENT...]\n");
    return 2;
  }
  const auto start = Clock::now();
  const pid_t child = fork();
  if (child == 0) {
    Become(argv + 2, argv[1], ends[1]);
  }
  close(ends[1]);

  long firstByte = -1;
  static char buffer[1 << 16];
  while (read(ends[0], buffer, sizeof buffer) > 0) {
    if (firstByte < 0) {
      firstByte = MicrosecondsSince(start);
    }
  }
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  std::printf("%ld %ld %ld %ld %ld %d\n", MicrosecondsSince(start), firstByte,
              Microseconds(usage.ru_utime) + Microseconds(usage.ru_stime), usage.ru_maxrss,
              usage.ru_minflt + usage.ru_majflt,
              WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  return 0;
}
