// Runs one command and prints what the kernel accounted for it, in one line:
//
//   WALL FIRST_BYTE CPU PEAK STATUS OUTPUT FAULTS INSTRUCTIONS
//
// microseconds from its start to its end and to its first byte of output, microseconds of CPU (user
// and system), peak memory in KiB, exit status (128 + signal), bytes of output, page faults,
// instructions outside the kernel (-1 where the machine does not count them). A small program of
// its own, since a child's peak begins with what its parent held.
//
//   bench-spawn [--input FILE] -- COMMAND [ARGUMENT...]

#include <fcntl.h>
#include <linux/perf_event.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

long Microseconds(Clock::duration duration) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(duration).count());
}

long Microseconds(const timeval& time) {
  return time.tv_sec * 1000000L + time.tv_usec;
}

// Counts the instructions of that process and of its threads and children, from its exec on; -1
// where that cannot be had.
int OpenCounter(pid_t process) {
  perf_event_attr attributes{};
  attributes.type = PERF_TYPE_HARDWARE;
  attributes.size = sizeof attributes;
  attributes.config = PERF_COUNT_HW_INSTRUCTIONS;
  attributes.disabled = 1;
  attributes.inherit = 1;
  attributes.enable_on_exec = 1;
  attributes.exclude_kernel = 1;
  attributes.exclude_hv = 1;
  return static_cast<int>(
      syscall(SYS_perf_event_open, &attributes, process, -1, -1, PERF_FLAG_FD_CLOEXEC));
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
  const char* input = "/dev/null";
  int next = 1;
  if (next + 1 < argc && std::strcmp(argv[next], "--input") == 0) {
    input = argv[next + 1];
    next += 2;
  }
  if (next + 1 >= argc || std::strcmp(argv[next], "--") != 0) {
    std::fprintf(stderr, "bench-spawn: [--input FILE] -- COMMAND [ARGUMENT...]\n");
    return 2;
  }
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    std::perror("pipe2");
    return 1;
  }
  int gate[2];
  if (pipe2(gate, O_CLOEXEC) != 0) {
    std::perror("pipe2");
    return 1;
  }
  const pid_t child = fork();
  if (child == 0) {
    // Waits for the counter: the parent closes the gate.
    close(gate[1]);
    char nothing = 0;
    (void)!read(gate[0], &nothing, 1);
    Become(argv + next + 1, input, ends[1]);
  }
  close(ends[1]);
  const int counter = OpenCounter(child);
  const auto start = Clock::now();
  close(gate[1]);

  long firstByte = -1;
  long bytes = 0;
  static char chunk[1 << 16];
  for (ssize_t count; (count = read(ends[0], chunk, sizeof chunk)) > 0; bytes += count) {
    if (firstByte < 0) {
      firstByte = Microseconds(Clock::now() - start);
    }
  }
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  const long wall = Microseconds(Clock::now() - start);
  std::int64_t instructions = -1;
  if (counter == -1 || read(counter, &instructions, sizeof instructions) != sizeof instructions) {
    instructions = -1;
  }
  std::printf("%ld %ld %ld %ld %d %ld %ld %lld\n", wall, firstByte,
              Microseconds(usage.ru_utime) + Microseconds(usage.ru_stime), usage.ru_maxrss,
              WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), bytes,
              usage.ru_minflt + usage.ru_majflt, static_cast<long long>(instructions));
  return 0;
}
