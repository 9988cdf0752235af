// Refusals of a write that the kernel makes a signal of.
#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>

// While it lives, a write of this thread to a pipe without a reader, or beyond the limit on the
// size of files, fails with EPIPE or EFBIG as any other write does, instead of ending the process.
// What the caller had blocked, or pending, stays so; errno does too.
class WriteSignals {
 public:
  WriteSignals() {
    sigemptyset(&refusals_);
    sigaddset(&refusals_, SIGPIPE);
    sigaddset(&refusals_, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &refusals_, &before_);
  }

  ~WriteSignals() {
    const int error = errno;
    LeaveToCaller(SIGPIPE);
    LeaveToCaller(SIGXFSZ);
    const timespec now = {0, 0};
    while (sigtimedwait(&refusals_, nullptr, &now) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
  }

  WriteSignals(const WriteSignals&) = delete;
  WriteSignals& operator=(const WriteSignals&) = delete;

 private:
  // One that the caller had blocked may have been there before.
  void LeaveToCaller(int signal) {
    if (sigismember(&before_, signal) == 1) {
      sigdelset(&refusals_, signal);
    }
  }

  sigset_t refusals_;
  sigset_t before_;
};
