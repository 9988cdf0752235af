#include "NvmClient.h"

#include <filesystem>
#include <regex>

#include "CgiLog.h"
#include "Files.h"

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
  // Time, level, handler, process, file and line: at most this long.
  constexpr std::size_t COLUMNS = 120;
  static const std::regex columns(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  ([A-Z]+) +cgi +\d+ *(src/\w+) +(\d+) +)");
  std::string text;
  for (const std::string& line : Lines(ReadText(LOG_FILE))) {
    const std::string start = line.substr(0, COLUMNS);
    text +=
        std::regex_replace(start, columns, "$1 $2 $3 ", std::regex_constants::match_continuous) +
        line.substr(start.size()) + "\n";
  }
  return text;
}

std::string Debug(int line, const std::string& message) {
  return Statement("DEBUG", line, message);
}

std::string Error(int line, const std::string& message) {
  return Statement("ERROR", line, message);
}
