#include "LogClient.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "LogEvent.h"
#include "LogLayout.h"
#include "WriteSignals.h"

namespace {

// Moves a descriptor out of the range of the standard three. Returns -1, with errno set and the
// original closed, when no other is free.
int AboveStandardDescriptors(int descriptor) {
  if (descriptor < 0 || descriptor > STDERR_FILENO) {
    return descriptor;
  }
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  close(descriptor);
  errno = error;
  return moved;
}

// Does not wait for a reader of a named pipe. Waits when another process holds a lease on the file,
// until the kernel has broken it.
// Contract and known issues: docs/kept-as-is.md, `OpenForWriting`.
int OpenForWriting(const std::string& path, int flags) {
  constexpr mode_t MODE = 0666;
  int descriptor = open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC, MODE);
  if (descriptor < 0 && errno == EWOULDBLOCK) {
    descriptor = open(path.c_str(), flags | O_CLOEXEC, MODE);
  }
  descriptor = AboveStandardDescriptors(descriptor);
  if (descriptor >= 0) {
    fcntl(descriptor, F_SETFL, flags);  // from now on a write waits while a pipe is full
  }
  return descriptor;
}

// Overwrites the last byte that was written with a line end, since the disk has no room for one
// more: otherwise the next process would append its line to this one. O_APPEND is off meanwhile:
// with it, pwrite ignores the offset.
void EndCutLine(int descriptor) {
  const off_t end = lseek(descriptor, 0, SEEK_CUR);
  const int flags = fcntl(descriptor, F_GETFL);
  if (end > 0 && flags != -1 && fcntl(descriptor, F_SETFL, flags & ~O_APPEND) == 0) {
    if (pwrite(descriptor, "\n", 1, end - 1) < 0) {
      // The line stays cut.
    }
    fcntl(descriptor, F_SETFL, flags);
  }
}

// Writes the whole text, with one `write` unless a signal or a full disk cuts it short. On failure
// returns false, with errno set and the number of bytes that arrived in `written`.
bool WriteAll(int descriptor, const std::string& text, std::size_t& written) {
  const BlockedWriteSignals blocked;
  written = 0;
  while (written < text.size()) {
    const ssize_t count = write(descriptor, text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return false;
    }
    written += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

void LogClient::SetLayout(LogLayout* layout) {
  layout_ = layout;
}

std::string LogClient::Format(const LogEvent& event) const {
  if (layout_ == nullptr) {
    return event.message + '\n';
  }
  std::ostringstream text;
  layout_->FormatAndAppend(text, event);
  return text.str();
}

LogClientFile::LogClientFile(const std::string& path, bool append) : path_(path) {
  descriptor_ = OpenForWriting(path, O_WRONLY | O_CREAT | O_APPEND | (append ? 0 : O_TRUNC));
  if (descriptor_ < 0) {
    ReportOnce("Can't open log file ", errno);
  }
}

LogClientFile::~LogClientFile() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

void LogClientFile::HandleEvent(const LogEvent& event) {
  std::size_t written = 0;
  if (descriptor_ < 0 || WriteAll(descriptor_, Format(event), written)) {
    return;
  }
  const int error = errno;
  if (written > 0) {
    EndCutLine(descriptor_);
  }
  ReportOnce("Can't write log file ", error);
}

void LogClientFile::ReportOnce(const char* what, int error) {
  if (reported_) {
    return;
  }
  reported_ = true;
  std::size_t written = 0;
  WriteAll(STDERR_FILENO, what + path_ + ": " + strerror(error) + "\n", written);
}
