// Turns the signals that a failed write raises into plain errors.
#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>

// While it lives, a write of this thread to a pipe without a reader fails with EPIPE, and one over
// the limit on the size of files with EFBIG, and neither SIGPIPE nor SIGXFSZ ends the process.
// Signals that the caller had blocked, or that were pending, stay so; errno is kept.
class BlockedWriteSignals {
 public:
  BlockedWriteSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGPIPE);
    sigaddset(&signals_, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
  }

  ~BlockedWriteSignals() {
    const int error = errno;
    LeaveToCaller(SIGPIPE);
    LeaveToCaller(SIGXFSZ);
    const timespec now = {0, 0};
    while (sigtimedwait(&signals_, nullptr, &now) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
  }

  BlockedWriteSignals(const BlockedWriteSignals&) = delete;
  BlockedWriteSignals& operator=(const BlockedWriteSignals&) = delete;

 private:
  // A signal that the caller had blocked may have been pending before: it is not consumed.
  void LeaveToCaller(int signal) {
    if (sigismember(&before_, signal) == 1) {
      sigdelset(&signals_, signal);
    }
  }

  sigset_t signals_;
  sigset_t before_;
};
