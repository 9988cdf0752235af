// Stands between the web server and a CGI program: waits until one of a few places is free, sets
// the time limit, and becomes the program.
//
//   cgi-gate PROGRAM
//
// The web server says in the environment, which the program does not get to see:
//
//   CGI_GATE_FILE      the file in which the places are locked; made when it is missing
//   CGI_GATE_PLACES    programs that may run at once
//   CGI_GATE_PATIENCE  seconds to wait for a place
//   CGI_GATE_LIMIT     seconds that a program may take
//   CGI_GATE_ARCHIVE   folder of the Java VM's class archive; need not be there, nor be said
//
// Nobody has to watch the program: the kernel keeps the alarm and the lock for it over the exec,
// ends it with SIGALRM when its time is over, and gives the place free when it ends, however that
// is. Who gets no place is answered "503 Service Unavailable", and "500" when the gate or the
// program cannot start; the reason is on standard error.
//
// In C, but for the names: no library is to be loaded for so short a life.

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "ClassArchive.h"

namespace {

constexpr char FILE_VARIABLE[] = "CGI_GATE_FILE";
constexpr char PLACES_VARIABLE[] = "CGI_GATE_PLACES";
constexpr char PATIENCE_VARIABLE[] = "CGI_GATE_PATIENCE";
constexpr char LIMIT_VARIABLE[] = "CGI_GATE_LIMIT";
constexpr char ARCHIVE_VARIABLE[] = "CGI_GATE_ARCHIVE";

constexpr long MOST_PLACES = 1000;
constexpr long MOST_SECONDS = 24 * 60 * 60;

// The file's bytes are locked, not written: the first for the head of the queue, then one a place.
constexpr off_t QUEUE = 0;
constexpr off_t FIRST_PLACE = 1;

volatile std::sig_atomic_t isPatienceOver = 0;

void EndPatience(int) {
  isPatienceOver = 1;
}

[[noreturn]] void Refuse(const char* status, const char* reason) {
  std::fprintf(stderr, "cgi-gate: %s\n", reason);
  std::printf(
      "Status: %s\r\nContent-Type: text/html\r\nRetry-After: 10\r\n\r\n"
      "<!DOCTYPE html><title>%s</title><h1>%s</h1>\n",
      status, status, status);
  std::fflush(stdout);
  _exit(EXIT_FAILURE);
}

[[noreturn]] void Fail(const char* what) {
  char reason[256];
  std::snprintf(reason, sizeof reason, "%s: %s", what, std::strerror(errno));
  Refuse("500 Internal Server Error", reason);
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

bool Lock(int file, off_t byte, int command) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return fcntl(file, command, &lock) == 0;
}

void Unlock(int file, off_t byte) {
  struct flock lock = {};
  lock.l_type = F_UNLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  fcntl(file, F_SETLK, &lock);
}

bool TakeAPlace(int file, long places) {
  for (long place = 0; place < places; ++place) {
    if (Lock(file, FIRST_PLACE + place, F_SETLK)) {
      return true;
    }
    if (errno != EAGAIN && errno != EACCES) {
      Fail("no lock");
    }
  }
  return false;
}

// SIGALRM after these seconds, and then again at this interval unless it is 0.
void SetTimer(long seconds, long interval) {
  const itimerval timer = {{interval, 0}, {seconds, 0}};
  setitimer(ITIMER_REAL, &timer, nullptr);
}

// Only the head of the queue looks out for a place, the others sleep behind it.
void WaitForAPlace(int file, long places, long patience) {
  struct sigaction action = {};
  action.sa_handler = EndPatience;
  sigaction(SIGALRM, &action, nullptr);
  // Again and again: a signal between a look at the flag and a call that waits would be lost.
  SetTimer(patience, 1);
  bool isHead = false;
  while (!isHead || !TakeAPlace(file, places)) {
    if (isPatienceOver != 0) {
      Refuse("503 Service Unavailable", "no place became free");
    }
    if (isHead) {
      const timespec pause = {0, 2 * 1000 * 1000};
      nanosleep(&pause, nullptr);
    } else {
      isHead = Lock(file, QUEUE, F_SETLKW);
      if (!isHead && errno != EINTR) {
        Fail("no lock");
      }
    }
  }
  Unlock(file, QUEUE);
}

// The web server may hand on signals that are ignored or blocked.
void SetLimit(long seconds) {
  std::signal(SIGALRM, SIG_DFL);
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
  SetTimer(seconds, 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
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
  WaitForAPlace(file, places, patience);
  SetLimit(limit);
  if (const char* const archive = std::getenv(ARCHIVE_VARIABLE)) {
    UseClassArchive(archive);
  }
  for (const char* variable :
       {FILE_VARIABLE, PLACES_VARIABLE, PATIENCE_VARIABLE, LIMIT_VARIABLE, ARCHIVE_VARIABLE}) {
    unsetenv(variable);
  }
  execv(argv[1], argv + 1);
  Fail(argv[1]);
}
