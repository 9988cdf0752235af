#include "CapturedOutput.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "Files.h"

namespace {

constexpr char FILE_NAME[] = "/tmp/captured-output";

}  // namespace

CapturedOutput::CapturedOutput() {
  std::fflush(stdout);
  original_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int file = open(FILE_NAME, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  dup2(file, STDOUT_FILENO);
  close(file);
}

CapturedOutput::~CapturedOutput() {
  std::fflush(stdout);
  dup2(original_, STDOUT_FILENO);
  close(original_);
}

std::string CapturedOutput::Text() const {
  std::fflush(stdout);
  return ReadText(FILE_NAME);
}
