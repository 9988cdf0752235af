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
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

using Clock = std::chrono::steady_clock;

static long MicrosecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

int main(int, char** argv) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return 2;
  }
  const auto start = Clock::now();
  const pid_t child = fork();
  if (child == 0) {
    dup2(open(argv[1], O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    execv(argv[2], argv + 2);
    std::perror(argv[2]);
    _exit(127);
  }
  close(ends[1]);
  static char buffer[1 << 16];
  const bool hasOutput = read(ends[0], buffer, sizeof buffer) > 0;
  const long firstByte = hasOutput ? MicrosecondsSince(start) : -1;
  while (read(ends[0], buffer, sizeof buffer) > 0) {
  }
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  const long wall = MicrosecondsSince(start);
  timeval cpu;
  timeradd(&usage.ru_utime, &usage.ru_stime, &cpu);
  std::printf("%ld %ld %ld %ld %ld %d\n", wall, firstByte, cpu.tv_sec * 1000000L + cpu.tv_usec,
              usage.ru_maxrss, usage.ru_minflt + usage.ru_majflt,
              WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  return 0;
}
