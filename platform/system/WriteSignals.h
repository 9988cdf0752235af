// Refusals of a write that the kernel makes a signal of.
#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>
#include <initializer_list>

// While it lives, a write of this thread to a pipe without a reader, or beyond the limit on the
// size of files, fails with EPIPE or EFBIG as any other write does, instead of ending the process.
// What the caller had blocked, or pending, stays so; errno does too.
class WriteSignals {
 public:
  WriteSignals() {
    sigset_t refusals;
    sigemptyset(&refusals);
    sigaddset(&refusals, SIGPIPE);
    sigaddset(&refusals, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &refusals, &before_);
  }

  ~WriteSignals() {
    const int error = errno;
    // One that the caller had blocked is the caller's to take: it may have been there before.
    sigset_t raised;
    sigemptyset(&raised);
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
      if (sigismember(&before_, signal) == 0) {
        sigaddset(&raised, signal);
      }
    }
    const timespec now = {0, 0};
    while (sigtimedwait(&raised, nullptr, &now) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
  }

  WriteSignals(const WriteSignals&) = delete;
  WriteSignals& operator=(const WriteSignals&) = delete;

 private:
  sigset_t before_;
};
