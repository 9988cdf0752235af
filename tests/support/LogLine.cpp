#include "LogLine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <regex>

#include "Files.h"

namespace {

// Where the process id stands, and where the message begins behind the six columns.
constexpr std::size_t PROCESS_ID = 53;
constexpr std::size_t MESSAGE = 90;

// Nothing of a line that no statement wrote.
std::optional<LogLine> Parse(const std::string& line) {
  static const std::regex columns(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  [A-Z]+ +\w+ +\d+ *[a-z]+/[\w/]+ +\d+ +)");
  // An id of more than six digits pushes the rest to the right.
  const std::size_t idEnd = std::min(line.find_first_not_of("0123456789", PROCESS_ID), line.size());
  const std::size_t pushed = std::max(idEnd, PROCESS_ID + 6) - (PROCESS_ID + 6);
  if (line.size() < MESSAGE + pushed ||
      !std::regex_match(line.substr(0, MESSAGE + pushed), columns)) {
    return std::nullopt;
  }
  const auto column = [&line](std::size_t from, std::size_t width) {
    const std::string padded = line.substr(from, width);
    return padded.substr(0, padded.find_last_not_of(' ') + 1);
  };
  return LogLine{column(0, 26),
                 column(28, 10),
                 column(38, 15),
                 std::stoi(column(PROCESS_ID, 6 + pushed)),
                 column(59 + pushed, 25),
                 std::stoi(column(84 + pushed, 6)),
                 line.substr(MESSAGE + pushed)};
}

// Of the lines of the log text the statements, as their Summary, and the others.
std::vector<std::string> Select(const std::string& log, bool statements, bool others) {
  std::vector<std::string> selected;
  for (const std::string& line : Lines(log)) {
    const auto statement = Parse(line);
    if (statement ? statements : others) {
      selected.push_back(statement ? Summary(*statement) : line);
    }
  }
  return selected;
}

}  // namespace

LogLine ParseLogLine(const std::string& line) {
  const auto parsed = Parse(line);
  EXPECT_TRUE(parsed) << "not a log line: " << line;
  return parsed.value_or(LogLine());
}

std::string Summary(const LogLine& line) {
  return line.level + " " + line.fileName + " " + std::to_string(line.line) + " " + line.message;
}

std::vector<std::string> LoggedStatements() {
  return Select(ReadText(LOG_FILE), true, false);
}

std::vector<std::string> LoggedLines() {
  return Select(ReadText(LOG_FILE), true, true);
}

std::vector<std::string> ForeignLines() {
  return Select(ReadText(LOG_FILE), false, true);
}
