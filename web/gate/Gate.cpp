// Stands between the web server and a CGI program: limits how many programs run at once and for how
// long. It waits for a free slot, sets the run timeout, and becomes the program.
//
//   cgi-gate PROGRAM
//
// Arguments after PROGRAM are ignored, so one line makes a file that a web server can start:
//
//   #!/usr/libexec/vemo-web/cgi-gate /usr/libexec/vemo-web/setobdconf.cgi
//
// The web server configures it by environment variables, which the program does not get:
//
//   CGI_GATE_SLOT_FILE      the file whose locks are the slots; created when missing
//   CGI_GATE_SLOTS          programs that may run at once
//   CGI_GATE_QUEUE_TIMEOUT  seconds to wait for a slot
//   CGI_GATE_RUN_TIMEOUT    seconds that a program may run
//   CGI_GATE_CDS_ARCHIVE    optional: the folder of the Java VM's CDS archive, see ClassArchive.h
//   CGI_GATE_MAX_BODY       optional: largest body in bytes. For a web server that starts programs
//                           before it has received the body: the gate reads the whole body before
//                           it takes a slot. It refuses a larger body with "413 Content Too
//                           Large", a chunked one with "411 Length Required", and an incomplete or
//                           late one with "400 Bad Request"
//   CGI_GATE_CLIENT_SLOTS   optional: requests that one client address may have queued or running
//                           at a time; 0: no limit. The gate refuses more with "503 Service
//                           Unavailable" at once. Loopback is not counted: it may be a proxy
//   CGI_GATE_FORK           optional: when set, the program runs in a process of its own, and the
//                           gate ends with its status. For a web server that kills programs when
//                           their client disconnects
//
// A request with a "#" in its address is refused with "400 Bad Request". Web servers differ on
// where its path ends, so they may have checked another path than the program gets.
//
// No supervisor is needed. The alarm and the locks survive exec: the kernel ends the program with
// SIGALRM after the run timeout, and frees its slot when it ends, however it ends. The queue is
// first come, first served: each request sleeps until the one before it has left the queue. The
// gate answers "503 Service Unavailable" after the queue timeout, and "500 Internal Server Error"
// when the gate or the program cannot start. It writes the reason to standard error. The page is
// the web server's error page, DOCUMENT_ROOT/errors/STATUS.html, if there is one.
//
// No C++ runtime: linked statically and started for every request, the gate has to start fast.

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "ClassArchive.h"

namespace {

constexpr char SLOT_FILE_VARIABLE[] = "CGI_GATE_SLOT_FILE";
constexpr char SLOTS_VARIABLE[] = "CGI_GATE_SLOTS";
constexpr char QUEUE_TIMEOUT_VARIABLE[] = "CGI_GATE_QUEUE_TIMEOUT";
constexpr char RUN_TIMEOUT_VARIABLE[] = "CGI_GATE_RUN_TIMEOUT";
constexpr char CDS_ARCHIVE_VARIABLE[] = "CGI_GATE_CDS_ARCHIVE";
constexpr char MAX_BODY_VARIABLE[] = "CGI_GATE_MAX_BODY";
constexpr char CLIENT_SLOTS_VARIABLE[] = "CGI_GATE_CLIENT_SLOTS";
constexpr char FORK_VARIABLE[] = "CGI_GATE_FORK";

constexpr long MAX_SLOTS = 1000;
constexpr long MAX_BYTES = 65536;  // a pipe takes as much in one write
constexpr long MAX_SECONDS = 24L * 60 * 60;

// The slot file is never written: only locks on its bytes have a meaning. Each byte from FIRST_SLOT
// on is a slot. Then come MAX_SLOTS bytes for each client address, one a request. Then comes one
// byte for each nanosecond since the machine started: the ticket of the request that entered the
// queue then.
constexpr off_t FIRST_SLOT = 1;
constexpr off_t FIRST_CLIENT_SLOT = FIRST_SLOT + MAX_SLOTS;
constexpr off_t FIRST_TICKET = 1LL << 60;
constexpr off_t NO_TICKET = -1;

// Milliseconds that the head of the queue waits between two attempts. The end of a program wakes it
// earlier. A program that closes the slot file frees its slot without ending, so the wait is
// bounded.
constexpr int MAX_WAIT = 1000;
// Where the kernel does not let us watch the programs: the first pause, doubled up to the longest.
constexpr int FIRST_PAUSE = 2;
constexpr int MAX_PAUSE = 50;

volatile std::sig_atomic_t isQueueTimeoutOver = 0;

void HandleQueueTimeout(int) {
  isQueueTimeoutOver = 1;
}

// Prints the web server's own error page for the status; false: it has none.
bool PrintErrorPage(const char* status) {
  const char* const documents = std::getenv("DOCUMENT_ROOT");
  char path[4096];
  if (documents == nullptr || std::snprintf(path, sizeof path, "%s/errors/%.3s.html", documents,
                                            status) >= static_cast<int>(sizeof path)) {
    return false;
  }
  std::FILE* const page = std::fopen(path, "re");
  if (page == nullptr) {
    return false;
  }
  static char text[MAX_BYTES];
  const size_t length = std::fread(text, 1, sizeof text, page);
  return length > 0 && std::fwrite(text, 1, length, stdout) == length;
}

[[noreturn]] void Refuse(const char* status, const char* reason) {
  std::fprintf(stderr, "cgi-gate: %s\n", reason);
  std::printf("Status: %s\r\nContent-Type: text/html;charset=iso-8859-1\r\n%s\r\n", status,
              std::strncmp(status, "503", 3) == 0 ? "Retry-After: 10\r\n" : "");
  if (!PrintErrorPage(status)) {
    std::printf("<!DOCTYPE html><title>%s</title><h1>%s</h1>\n", status, status);
  }
  std::fflush(stdout);
  _exit(EXIT_FAILURE);
}

[[noreturn]] void Fail(const char* what) {
  char reason[256];
  std::snprintf(reason, sizeof reason, "%s: %s", what, std::strerror(errno));
  Refuse("500 Internal Server Error", reason);
}

// Opens /dev/null for each closed standard descriptor. Otherwise the next opened file would get
// that number, and the program would write into it.
void OpenStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) == -1 && open("/dev/null", O_RDWR) != descriptor) {
      Fail("/dev/null");
    }
  }
}

long ReadNumber(const char* variable, long max) {
  const char* const text = std::getenv(variable);
  char* end = nullptr;
  const long number = text == nullptr ? 0 : std::strtol(text, &end, 10);
  if (number < 1 || number > max || *end != '\0') {
    errno = EINVAL;
    Fail(variable);
  }
  return number;
}

struct flock LockOf(short type, off_t byte, off_t length = 1) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = length;
  return lock;
}

// True: the byte was free and is locked now.
bool Lock(int file, off_t byte) {
  struct flock lock = LockOf(F_WRLCK, byte);
  if (fcntl(file, F_SETLK, &lock) == 0) {
    return true;
  }
  if (errno != EAGAIN && errno != EACCES) {
    Fail("cannot lock the slot file");
  }
  return false;
}

void Unlock(int file, off_t byte) {
  struct flock lock = LockOf(F_UNLCK, byte);
  fcntl(file, F_SETLK, &lock);
}

// Any lock of another process on these bytes; F_UNLCK: there is none.
struct flock FindLock(int file, off_t begin, off_t end) {
  struct flock lock = LockOf(F_WRLCK, begin, end - begin);
  if (fcntl(file, F_GETLK, &lock) == -1) {
    Fail("cannot lock the slot file");
  }
  return lock;
}

bool TakeSlot(int file, off_t first, long slots) {
  for (long slot = 0; slot < slots; ++slot) {
    if (Lock(file, first + slot)) {
      return true;
    }
  }
  return false;
}

// The client's number, or -1 for a client that is not counted. Two IPv6 addresses may share a
// number.
off_t ClientNumber(const char* address) {
  constexpr off_t IP4_ADDRESSES = 1LL << 32;
  // A prime, so that all bits of the address affect the number.
  constexpr std::uint64_t IP6_NUMBERS = (1ULL << 40) - 87;
  constexpr char MAPPED[] = "::ffff:";
  if (std::strncmp(address, MAPPED, sizeof MAPPED - 1) == 0) {
    address += sizeof MAPPED - 1;
  }
  // Cuts the interface off: fe80::1%eth0.
  char bare[INET6_ADDRSTRLEN] = "";
  std::snprintf(bare, sizeof bare, "%.*s", static_cast<int>(std::strcspn(address, "%")), address);
  in_addr ip4;
  if (inet_pton(AF_INET, bare, &ip4) == 1) {
    const std::uint32_t number = ntohl(ip4.s_addr);
    return number >> 24 == IN_LOOPBACKNET ? -1 : static_cast<off_t>(number);
  }
  in6_addr ip6;
  if (inet_pton(AF_INET6, bare, &ip6) != 1 || IN6_IS_ADDR_LOOPBACK(&ip6)) {
    return -1;
  }
  std::uint64_t halves[2];
  std::memcpy(halves, &ip6, sizeof halves);
  return IP4_ADDRESSES + static_cast<off_t>((halves[0] ^ halves[1]) % IP6_NUMBERS);
}

void TakeClientSlot(int file, long slots) {
  const char* const address = std::getenv("REMOTE_ADDR");
  const off_t client = address == nullptr ? -1 : ClientNumber(address);
  if (client != -1 && !TakeSlot(file, FIRST_CLIENT_SLOT + client * MAX_SLOTS, slots)) {
    Refuse("503 Service Unavailable", "too many requests of one client");
  }
}

// Sends SIGALRM after these seconds, and then at this interval; 0: once.
void SetTimer(long seconds, long interval) {
  const itimerval timer = {{interval, 0}, {seconds, 0}};
  setitimer(ITIMER_REAL, &timer, nullptr);
}

void StartQueueTimeout(long seconds) {
  struct sigaction action = {};
  action.sa_handler = HandleQueueTimeout;
  sigaction(SIGALRM, &action, nullptr);
  // The web server may have left it blocked.
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
  // Repeated every second: a signal between the check of the flag and a blocking call would be
  // lost.
  SetTimer(seconds, 1);
}

// Moves the announced body, and nothing behind it, into a pipe that becomes the standard input.
void ReadBody(long most) {
  if (std::getenv("HTTP_TRANSFER_ENCODING") != nullptr) {
    Refuse("411 Length Required", "a body of unknown length");
  }
  const char* const text = std::getenv("CONTENT_LENGTH");
  if (text == nullptr || *text == '\0') {
    return;
  }
  char* end = nullptr;
  const long length = std::strtol(text, &end, 10);
  if (length < 0 || *end != '\0') {
    Refuse("400 Bad Request", "invalid Content-Length");
  }
  if (length > most) {
    Refuse("413 Content Too Large", "the body is too large");
  }
  static char buffer[MAX_BYTES];
  for (long received = 0; received < length;) {
    const ssize_t count = read(STDIN_FILENO, buffer + received, length - received);
    if (count == 0 || (count == -1 && (errno != EINTR || isQueueTimeoutOver != 0))) {
      Refuse("400 Bad Request", "the body is incomplete or late");
    }
    received += count > 0 ? count : 0;
  }
  int body[2];
  if (pipe(body) == -1 || write(body[1], buffer, length) != length ||
      dup2(body[0], STDIN_FILENO) == -1) {
    Fail("cannot make a pipe");
  }
  close(body[0]);
  close(body[1]);
}

void RefuseAfterQueueTimeout() {
  if (isQueueTimeoutOver != 0) {
    Refuse("503 Service Unavailable", "no slot became free");
  }
}

off_t DrawTicket(int file) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  off_t ticket = FIRST_TICKET + now.tv_sec * 1000000000LL + now.tv_nsec;
  while (!Lock(file, ticket)) {
    ++ticket;
  }
  return ticket;
}

// The latest ticket before this one that is still locked, by binary search: [begin, end) is what is
// left to search.
off_t TicketBefore(int file, off_t ticket) {
  off_t last = NO_TICKET;
  off_t begin = FIRST_TICKET;
  off_t end = ticket;
  for (off_t half = begin; begin < end; half = begin + (end - begin) / 2) {
    const struct flock lock = FindLock(file, half, end);
    if (lock.l_type == F_UNLCK) {
      end = half;
    } else {
      last = std::max(lock.l_start, half);
      begin = last + 1;
    }
  }
  return last;
}

// Returns when every earlier request has got a slot or has ended for any reason. Waits for the lock
// of the one just before: so each request that leaves the queue wakes only the next.
void WaitForTurn(int file, off_t ticket) {
  for (off_t before; (before = TicketBefore(file, ticket)) != NO_TICKET;) {
    struct flock lock = LockOf(F_RDLCK, before);
    RefuseAfterQueueTimeout();
    if (fcntl(file, F_SETLKW, &lock) == 0) {
      Unlock(file, before);
    } else if (errno != EINTR) {
      Fail("cannot lock the slot file");
    }
  }
}

// Sleeps until one of the programs in the slots ends; where the kernel does not let us watch all of
// them, at most for the pause.
void WaitForProgramEnd(int file, long slots, int pause) {
  static pollfd programs[MAX_SLOTS];
  nfds_t count = 0;
  int longest = MAX_WAIT;
  for (off_t slot = FIRST_SLOT; slot < FIRST_SLOT + slots; ++slot) {
    const struct flock lock = FindLock(file, slot, slot + 1);
    const int program =
        lock.l_type == F_UNLCK ? -1 : static_cast<int>(syscall(SYS_pidfd_open, lock.l_pid, 0));
    if (program != -1) {
      programs[count++] = {program, POLLIN, 0};
    } else {
      longest = lock.l_type == F_UNLCK ? 0 : std::min(longest, pause);
    }
  }
  poll(programs, count, longest);
  for (nfds_t i = 0; i < count; ++i) {
    close(programs[i].fd);
  }
}

void WaitForSlot(int file, long slots) {
  const off_t ticket = DrawTicket(file);
  WaitForTurn(file, ticket);
  for (int pause = FIRST_PAUSE; !TakeSlot(file, FIRST_SLOT, slots);
       pause = std::min(2 * pause, MAX_PAUSE)) {
    RefuseAfterQueueTimeout();
    WaitForProgramEnd(file, slots, pause);
  }
  Unlock(file, ticket);
}

// Arms the new timer before it resets the handler: else a late alarm of the queue timeout would
// kill us, and the client would get no answer.
void StartRunTimeout(long seconds) {
  SetTimer(seconds, 0);
  std::signal(SIGALRM, SIG_DFL);
}

// A web server that streams pages ends a program when its client disconnects, perhaps in the middle
// of a change. The program keeps ignoring these signals: ignored signals survive exec.
void OutliveClient() {
  std::signal(SIGTERM, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
}

volatile pid_t forkedProgram = -1;

// Ends by the signal that ended the program, so that the web server sees it. Writes no core dump:
// the program has written its own.
[[noreturn]] void EndBySignal(int number) {
  prctl(PR_SET_DUMPABLE, 0);
  std::signal(number, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, number);
  sigprocmask(SIG_UNBLOCK, &only, nullptr);
  raise(number);
  _exit(EXIT_FAILURE);
}

// The forked process ends if it is still queued. Once it has started the program, it ignores
// SIGTERM.
void ForwardTermination(int) {
  kill(forkedProgram, SIGTERM);
  _exit(EXIT_FAILURE);
}

// Returns in the child, which becomes the program. The parent stays for the web server, which may
// kill it.
void ForkProgram() {
  // Inherited as ignored, it would leave no status to wait for.
  std::signal(SIGCHLD, SIG_DFL);
  sigset_t end;
  sigset_t before;
  sigemptyset(&end);
  sigaddset(&end, SIGTERM);
  sigprocmask(SIG_BLOCK, &end, &before);
  const pid_t child = fork();
  if (child == -1) {
    Fail("cannot fork");
  }
  if (child == 0) {
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return;
  }
  forkedProgram = child;
  std::signal(SIGTERM, ForwardTermination);
  sigprocmask(SIG_UNBLOCK, &end, nullptr);
  // Closes our copies, so that the web server sees the end of the page when the program closes its
  // own.
  close(STDIN_FILENO);
  close(STDOUT_FILENO);
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  if (WIFSIGNALED(status)) {
    EndBySignal(WTERMSIG(status));
  }
  _exit(WEXITSTATUS(status));
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandardDescriptors();
  if (argc < 2) {
    errno = EINVAL;
    Fail("usage: cgi-gate PROGRAM");
  }
  const long slots = ReadNumber(SLOTS_VARIABLE, MAX_SLOTS);
  const long queueTimeout = ReadNumber(QUEUE_TIMEOUT_VARIABLE, MAX_SECONDS);
  const long runTimeout = ReadNumber(RUN_TIMEOUT_VARIABLE, MAX_SECONDS);
  const char* const path = std::getenv(SLOT_FILE_VARIABLE);
  // No O_CLOEXEC: the program has to keep the descriptor, since closing it would free the slot.
  const int file = path == nullptr ? -1 : open(path, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (file == -1) {
    Fail(SLOT_FILE_VARIABLE);
  }
  if (std::getenv(FORK_VARIABLE) != nullptr) {
    ForkProgram();
  }
  const char* const address = std::getenv("REQUEST_URI");
  if (address != nullptr && std::strchr(address, '#') != nullptr) {
    Refuse("400 Bad Request", "a # in the address");
  }
  const char* const clientSlots = std::getenv(CLIENT_SLOTS_VARIABLE);
  if (clientSlots != nullptr && std::strcmp(clientSlots, "0") != 0) {
    TakeClientSlot(file, ReadNumber(CLIENT_SLOTS_VARIABLE, MAX_SLOTS));
  }
  StartQueueTimeout(queueTimeout);
  if (std::getenv(MAX_BODY_VARIABLE) != nullptr) {
    ReadBody(ReadNumber(MAX_BODY_VARIABLE, MAX_BYTES));
  }
  WaitForSlot(file, slots);
  StartRunTimeout(runTimeout);
  OutliveClient();
  if (const char* const archive = std::getenv(CDS_ARCHIVE_VARIABLE)) {
    UseClassArchive(archive);
  }
  for (const char* variable :
       {SLOT_FILE_VARIABLE, SLOTS_VARIABLE, QUEUE_TIMEOUT_VARIABLE, RUN_TIMEOUT_VARIABLE,
        CDS_ARCHIVE_VARIABLE, MAX_BODY_VARIABLE, CLIENT_SLOTS_VARIABLE, FORK_VARIABLE}) {
    unsetenv(variable);
  }
  // The web server has checked the password; the program does not need it.
  unsetenv("HTTP_AUTHORIZATION");
  argv[2] = nullptr;
  execv(argv[1], argv + 1);
  Fail(argv[1]);
}
