#include "LogClient.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "LogEvent.h"
#include "LogLayout.h"

namespace {

// Moves a descriptor out of the range of the standard three. Returns -1, with errno set and the
// original closed, when there is no other to be had.
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

// Writes it all. One `write` does unless a signal or a full disk cuts it short.
bool WriteAll(int descriptor, const std::string& text) {
  std::size_t written = 0;
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
  const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (append ? 0 : O_TRUNC);
  descriptor_ = AboveStandardDescriptors(open(path.c_str(), flags, 0666));
  if (descriptor_ < 0) {
    ReportOnce("open", errno);
  }
}

LogClientFile::~LogClientFile() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

void LogClientFile::HandleEvent(const LogEvent& event) {
  if (descriptor_ >= 0 && !WriteAll(descriptor_, Format(event))) {
    ReportOnce("write", errno);
  }
}

void LogClientFile::ReportOnce(const char* operation, int error) {
  if (reported_) {
    return;
  }
  reported_ = true;
  WriteAll(STDERR_FILENO, "Can't " + std::string(operation) + " log file " + path_ + ": " +
                              strerror(error) + "\n");
}
