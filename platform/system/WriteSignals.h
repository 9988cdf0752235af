// Turns the signals that a failed write raises into plain errors.
#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>

// While it lives, a write of this thread to a pipe without a reader fails with EPIPE, and one over
// the limit on the size of files with EFBIG, and neither SIGPIPE nor SIGXFSZ ends the process.
// Signals that the caller had blocked, or that were pending, stay so; errno is kept.
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
  // A signal that the caller had blocked may have been pending before: it is not consumed.
  void LeaveToCaller(int signal) {
    if (sigismember(&before_, signal) == 1) {
      sigdelset(&refusals_, signal);
    }
  }

  sigset_t refusals_;
  sigset_t before_;
};
