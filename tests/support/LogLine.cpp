#include "LogLine.h"

#include <gtest/gtest.h>

#include <regex>

#include "Files.h"

namespace {

// Where the message begins: behind the six columns and their padding.
constexpr std::size_t MESSAGE = 90;

bool IsStatement(const std::string& line) {
  static const std::regex columns(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  [A-Z]+ +\w+ +\d+ +src/\w+ +\d+ +)");
  return line.size() >= MESSAGE && std::regex_match(line.substr(0, MESSAGE), columns);
}

std::string Column(const std::string& line, std::size_t from, std::size_t width) {
  const std::string padded = line.substr(from, width);
  return padded.substr(0, padded.find_last_not_of(' ') + 1);
}

}  // namespace

LogLine ParseLogLine(const std::string& line) {
  LogLine parsed;
  if (!IsStatement(line)) {
    ADD_FAILURE() << "not a log line: " << line;
    return parsed;
  }
  parsed.dateTime = line.substr(0, 26);
  parsed.level = Column(line, 28, 10);
  parsed.handler = Column(line, 38, 15);
  parsed.processId = std::stoi(Column(line, 53, 6));
  parsed.fileName = Column(line, 59, 25);
  parsed.line = std::stoi(Column(line, 84, 6));
  parsed.message = line.substr(MESSAGE);
  return parsed;
}

std::string Summary(const LogLine& line) {
  return line.level + " " + line.fileName + " " + std::to_string(line.line) + " " + line.message;
}

std::vector<std::string> Statements(const std::string& log) {
  std::vector<std::string> statements;
  for (const std::string& line : Lines(log)) {
    if (IsStatement(line)) {
      statements.push_back(Summary(ParseLogLine(line)));
    }
  }
  return statements;
}

std::vector<std::string> LoggedStatements() {
  return Statements(ReadText(LOG_FILE));
}

std::vector<std::string> LoggedLines() {
  std::vector<std::string> logged;
  for (const std::string& line : Lines(ReadText(LOG_FILE))) {
    logged.push_back(IsStatement(line) ? Summary(ParseLogLine(line)) : line);
  }
  return logged;
}

std::vector<std::string> ForeignLines() {
  std::vector<std::string> foreign;
  for (const std::string& line : Lines(ReadText(LOG_FILE))) {
    if (!IsStatement(line)) {
      foreign.push_back(line);
    }
  }
  return foreign;
}
