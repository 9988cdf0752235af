#include "NvmClient.h"

#include <filesystem>

#include "CgiLog.h"
#include "Files.h"
#include "LogLine.h"

namespace {

std::string Statement(const std::string& level, int line, const std::string& message) {
  return level + " src/NvmManipulator " + std::to_string(line) + " " + message + "\n";
}

}  // namespace

void EmptyLog() {
  GetCgiLogHandler();
  std::filesystem::resize_file(LOG_FILE, 0);
}

std::string LogText() {
  std::string text;
  for (const std::string& line : LoggedLines()) {
    text += line + "\n";
  }
  return text;
}

std::string Debug(int line, const std::string& message) {
  return Statement("DEBUG", line, message);
}

std::string Error(int line, const std::string& message) {
  return Statement("ERROR", line, message);
}
