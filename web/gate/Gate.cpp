// Stands between the web server and a CGI program: waits until one of a few places is free, sets
// the time limit, and becomes the program.
//
//   cgi-gate PROGRAM
//
// What follows PROGRAM is left out, so a file that a web server can start needs one line:
//
//   #!/usr/libexec/vemo-web/cgi-gate /usr/libexec/vemo-web/setobdconf.cgi
//
// The web server says in the environment, which the program does not get to see:
//
//   CGI_GATE_SLOT_FILE      the file in which the slots are locked; made when it is missing
//   CGI_GATE_SLOTS          programs that may run at once
//   CGI_GATE_QUEUE_TIMEOUT  seconds to wait for a slot
//   CGI_GATE_RUN_TIMEOUT    seconds that a program may run
//   CGI_GATE_CDS_ARCHIVE    optional: the folder of the Java VM's CDS archive, see ClassArchive.h
//   CGI_GATE_MAX_BODY       optional, for a web server that starts programs before it has the body:
//   the body is
//                           read before a slot is taken, and the program gets it whole; one of more
//                           bytes is answered "413 Content Too Large", one in chunks "411 Length
//                           Required", one that is cut or does not come in time "400 Bad Request"
//   CGI_GATE_CLIENT_SLOTS   optional: requests that one client address may have here at a time,
//   queued or
//                           running, or 0 for no limit; more are answered "503 Service Unavailable"
//                           at once. Loopback is not counted: it may be a proxy
//   CGI_GATE_FORK           optional, for a web server that kills programs whose client has gone:
//   when set, the
//                           program runs in a process of its own, and the gate ends with its exit
//                           status
//
// A request with a "#" in its address is answered "400 Bad Request": web servers differ on where
// its path ends, so they may have judged another one than the program gets.
//
// Nobody has to watch the program: the kernel keeps the alarm and the lock for it over the exec,
// ends it with SIGALRM when its time is over, and gives the place free when it ends, however that
// is. Who came first goes first: each waits for the one before it, and sleeps until that one has
// gone. Who gets no place is answered "503 Service Unavailable", and "500" when the gate or the
// program cannot start; the reason is on standard error. The page is the web server's for that
// status, DOCUMENT_ROOT/errors/503.html, where it is there.
//
// In C, but for the names: no library is to be loaded for so short a life.

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

constexpr char FILE_VARIABLE[] = "CGI_GATE_SLOT_FILE";
constexpr char PLACES_VARIABLE[] = "CGI_GATE_SLOTS";
constexpr char PATIENCE_VARIABLE[] = "CGI_GATE_QUEUE_TIMEOUT";
constexpr char LIMIT_VARIABLE[] = "CGI_GATE_RUN_TIMEOUT";
constexpr char ARCHIVE_VARIABLE[] = "CGI_GATE_CDS_ARCHIVE";
constexpr char BODY_VARIABLE[] = "CGI_GATE_MAX_BODY";
constexpr char CLIENT_VARIABLE[] = "CGI_GATE_CLIENT_SLOTS";
constexpr char APART_VARIABLE[] = "CGI_GATE_FORK";

constexpr long MOST_PLACES = 1000;
constexpr long MOST_BYTES = 65536;  // what a pipe holds that is written at once
constexpr long MOST_SECONDS = 24L * 60 * 60;

// The file's bytes are locked, not written, and what stands there means nothing: one a place, then
// one for each request of each client address, then one for each moment since the machine started,
// in nanoseconds: the ticket of who came to the queue then.
constexpr off_t FIRST_PLACE = 1;
constexpr off_t FIRST_CLIENT = FIRST_PLACE + MOST_PLACES;
constexpr off_t FIRST_TICKET = 1LL << 60;
constexpr off_t NO_TICKET = -1;

// Milliseconds after which the head of the queue looks again. The end of a program wakes it sooner;
// one that closes the file gives its place back without. Where the kernel does not let programs be
// watched, the pauses grow from the first to the last.
constexpr int LONGEST_PAUSE = 1000;
constexpr int FIRST_PAUSE = 2;
constexpr int LAST_PAUSE = 50;

volatile std::sig_atomic_t isPatienceOver = 0;

void EndPatience(int) {
  isPatienceOver = 1;
}

// The web server's own page for the status, of its folder errors.
bool PrintPageFor(const char* status) {
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
  static char text[MOST_BYTES];
  const size_t length = std::fread(text, 1, sizeof text, page);
  return length > 0 && std::fwrite(text, 1, length, stdout) == length;
}

[[noreturn]] void Refuse(const char* status, const char* reason) {
  std::fprintf(stderr, "cgi-gate: %s\n", reason);
  std::printf("Status: %s\r\nContent-Type: text/html;charset=iso-8859-1\r\n%s\r\n", status,
              std::strncmp(status, "503", 3) == 0 ? "Retry-After: 10\r\n" : "");
  if (!PrintPageFor(status)) {
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

// Opens those of 0, 1 and 2 that are closed on /dev/null: else the next file that is opened would
// become one of them, and the program would write there.
void OpenStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) == -1 && open("/dev/null", O_RDWR) != descriptor) {
      Fail("/dev/null");
    }
  }
}

long Number(const char* variable, long most) {
  const char* const text = std::getenv(variable);
  char* end = nullptr;
  const long number = text == nullptr ? 0 : std::strtol(text, &end, 10);
  if (number < 1 || number > most || *end != '\0') {
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

// Whether the byte was free.
bool Lock(int file, off_t byte) {
  struct flock lock = LockOf(F_WRLCK, byte);
  if (fcntl(file, F_SETLK, &lock) == 0) {
    return true;
  }
  if (errno != EAGAIN && errno != EACCES) {
    Fail("no lock");
  }
  return false;
}

void Unlock(int file, off_t byte) {
  struct flock lock = LockOf(F_UNLCK, byte);
  fcntl(file, F_SETLK, &lock);
}

// One of the others' locks in these bytes, whichever the kernel comes upon; F_UNLCK: there is none.
struct flock FindLock(int file, off_t begin, off_t end) {
  struct flock lock = LockOf(F_WRLCK, begin, end - begin);
  if (fcntl(file, F_GETLK, &lock) == -1) {
    Fail("no lock");
  }
  return lock;
}

bool TakeAPlace(int file, off_t first, long places) {
  for (long place = 0; place < places; ++place) {
    if (Lock(file, first + place)) {
      return true;
    }
  }
  return false;
}

// A number of the client's own, or -1 for one that is not counted. Two IPv6 addresses may share
// one.
off_t ClientNumber(const char* address) {
  constexpr off_t IP4_ADDRESSES = 1LL << 32;
  constexpr std::uint64_t IP6_NUMBERS = (1ULL << 40) - 87;  // prime: all of the bits tell
  constexpr char MAPPED[] = "::ffff:";
  if (std::strncmp(address, MAPPED, sizeof MAPPED - 1) == 0) {
    address += sizeof MAPPED - 1;
  }
  // Without the interface: fe80::1%eth0.
  char alone[INET6_ADDRSTRLEN] = "";
  std::snprintf(alone, sizeof alone, "%.*s", static_cast<int>(std::strcspn(address, "%")), address);
  in_addr ip4;
  if (inet_pton(AF_INET, alone, &ip4) == 1) {
    const std::uint32_t number = ntohl(ip4.s_addr);
    return number >> 24 == IN_LOOPBACKNET ? -1 : static_cast<off_t>(number);
  }
  in6_addr ip6;
  if (inet_pton(AF_INET6, alone, &ip6) != 1 || IN6_IS_ADDR_LOOPBACK(&ip6)) {
    return -1;
  }
  std::uint64_t halves[2];
  std::memcpy(halves, &ip6, sizeof halves);
  return IP4_ADDRESSES + static_cast<off_t>((halves[0] ^ halves[1]) % IP6_NUMBERS);
}

void TakeAPlaceOfTheClient(int file, long places) {
  const char* const address = std::getenv("REMOTE_ADDR");
  const off_t client = address == nullptr ? -1 : ClientNumber(address);
  if (client != -1 && !TakeAPlace(file, FIRST_CLIENT + client * MOST_PLACES, places)) {
    Refuse("503 Service Unavailable", "too many requests of one client");
  }
}

// SIGALRM after these seconds, and then again at this interval unless it is 0.
void SetTimer(long seconds, long interval) {
  const itimerval timer = {{interval, 0}, {seconds, 0}};
  setitimer(ITIMER_REAL, &timer, nullptr);
}

void BeginPatience(long seconds) {
  struct sigaction action = {};
  action.sa_handler = EndPatience;
  sigaction(SIGALRM, &action, nullptr);
  // The web server may hand it on blocked.
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
  // Again and again: a signal between a look at the flag and a call that waits would be lost.
  SetTimer(seconds, 1);
}

// What is announced, and no more, into a pipe that becomes the standard input.
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
    Refuse("400 Bad Request", "no length");
  }
  if (length > most) {
    Refuse("413 Content Too Large", "the body is too large");
  }
  static char buffer[MOST_BYTES];
  for (long received = 0; received < length;) {
    const ssize_t count = read(STDIN_FILENO, buffer + received, length - received);
    if (count == 0 || (count == -1 && (errno != EINTR || isPatienceOver != 0))) {
      Refuse("400 Bad Request", "the body is not there");
    }
    received += count > 0 ? count : 0;
  }
  int body[2];
  if (pipe(body) == -1 || write(body[1], buffer, length) != length ||
      dup2(body[0], STDIN_FILENO) == -1) {
    Fail("no pipe");
  }
  close(body[0]);
  close(body[1]);
}

void RefuseWhenPatienceIsOver() {
  if (isPatienceOver != 0) {
    Refuse("503 Service Unavailable", "no place became free");
  }
}

off_t DrawATicket(int file) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  off_t ticket = FIRST_TICKET + now.tv_sec * 1000000000LL + now.tv_nsec;
  while (!Lock(file, ticket)) {
    ++ticket;
  }
  return ticket;
}

// The last of the tickets before this one that are still held. From `begin` to `end` nothing is
// known; the upper half of that is asked for.
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

// Returns when everybody who came before has a place or is gone, however that was. The kernel wakes
// who waits when the one before it goes, and then only.
void WaitForTheTurn(int file, off_t ticket) {
  for (off_t before; (before = TicketBefore(file, ticket)) != NO_TICKET;) {
    struct flock lock = LockOf(F_RDLCK, before);
    RefuseWhenPatienceIsOver();
    if (fcntl(file, F_SETLKW, &lock) == 0) {
      Unlock(file, before);
    } else if (errno != EINTR) {
      Fail("no lock");
    }
  }
}

// Sleeps until one of the programs ends that have a place; for the pause where the kernel does not
// let all of them be watched.
void WaitForAnEnd(int file, long places, int pause) {
  static pollfd programs[MOST_PLACES];
  nfds_t count = 0;
  int longest = LONGEST_PAUSE;
  for (off_t place = FIRST_PLACE; place < FIRST_PLACE + places; ++place) {
    const struct flock lock = FindLock(file, place, place + 1);
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

void WaitForAPlace(int file, long places) {
  const off_t ticket = DrawATicket(file);
  WaitForTheTurn(file, ticket);
  for (int pause = FIRST_PAUSE; !TakeAPlace(file, FIRST_PLACE, places);
       pause = std::min(2 * pause, LAST_PAUSE)) {
    RefuseWhenPatienceIsOver();
    WaitForAnEnd(file, places, pause);
  }
  Unlock(file, ticket);
}

// The new time first: at the end of the old one there would be nobody to answer the client.
void SetLimit(long seconds) {
  SetTimer(seconds, 0);
  std::signal(SIGALRM, SIG_DFL);
}

// The web server hands the page on as it comes, and ends a program whose client has gone: in the
// middle of a change, perhaps. The program inherits that it does not listen.
void OutliveTheClient() {
  std::signal(SIGTERM, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
}

volatile pid_t apart = -1;

// Ends by the signal that ended the program, so that whoever waits for the gate sees it. Dumps no
// memory of its own.
[[noreturn]] void EndBy(int number) {
  prctl(PR_SET_DUMPABLE, 0);
  std::signal(number, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, number);
  sigprocmask(SIG_UNBLOCK, &only, nullptr);
  raise(number);
  _exit(EXIT_FAILURE);
}

// It takes note of that while it waits; then it outlives the client.
void HandOnTheEnd(int) {
  kill(apart, SIGTERM);
  _exit(EXIT_FAILURE);
}

// Returns in the process that becomes the program; the other stays for the web server, which may
// kill it.
void GoApart() {
  // Inherited as ignored, it would leave nobody to wait for.
  std::signal(SIGCHLD, SIG_DFL);
  sigset_t end;
  sigset_t before;
  sigemptyset(&end);
  sigaddset(&end, SIGTERM);
  sigprocmask(SIG_BLOCK, &end, &before);
  const pid_t child = fork();
  if (child == -1) {
    Fail("no process");
  }
  if (child == 0) {
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return;
  }
  apart = child;
  std::signal(SIGTERM, HandOnTheEnd);
  sigprocmask(SIG_UNBLOCK, &end, nullptr);
  // The page's end is the program's.
  close(STDIN_FILENO);
  close(STDOUT_FILENO);
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  if (WIFSIGNALED(status)) {
    EndBy(WTERMSIG(status));
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
  const long places = Number(PLACES_VARIABLE, MOST_PLACES);
  const long patience = Number(PATIENCE_VARIABLE, MOST_SECONDS);
  const long limit = Number(LIMIT_VARIABLE, MOST_SECONDS);
  const char* const path = std::getenv(FILE_VARIABLE);
  // Stays open in the program: with the descriptor the lock would go.
  const int file = path == nullptr ? -1 : open(path, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (file == -1) {
    Fail(FILE_VARIABLE);
  }
  if (std::getenv(APART_VARIABLE) != nullptr) {
    GoApart();
  }
  const char* const address = std::getenv("REQUEST_URI");
  if (address != nullptr && std::strchr(address, '#') != nullptr) {
    Refuse("400 Bad Request", "a # in the address");
  }
  const char* const ofClient = std::getenv(CLIENT_VARIABLE);
  if (ofClient != nullptr && std::strcmp(ofClient, "0") != 0) {
    TakeAPlaceOfTheClient(file, Number(CLIENT_VARIABLE, MOST_PLACES));
  }
  BeginPatience(patience);
  if (std::getenv(BODY_VARIABLE) != nullptr) {
    ReadBody(Number(BODY_VARIABLE, MOST_BYTES));
  }
  WaitForAPlace(file, places);
  SetLimit(limit);
  OutliveTheClient();
  if (const char* const archive = std::getenv(ARCHIVE_VARIABLE)) {
    UseClassArchive(archive);
  }
  for (const char* variable : {FILE_VARIABLE, PLACES_VARIABLE, PATIENCE_VARIABLE, LIMIT_VARIABLE,
                               ARCHIVE_VARIABLE, BODY_VARIABLE, CLIENT_VARIABLE, APART_VARIABLE}) {
    unsetenv(variable);
  }
  // Who asks may: with what, is no matter of the program's.
  unsetenv("HTTP_AUTHORIZATION");
  argv[2] = nullptr;
  execv(argv[1], argv + 1);
  Fail(argv[1]);
}
