// Reading the log file as its readers do: by columns.
#pragma once

#include <string>
#include <vector>

struct LogLine {
  std::string dateTime;  // "YYYY-MM-DD HH:MM:SS.uuuuuu"
  std::string level;
  std::string handler;
  int processId = 0;
  std::string fileName;
  int line = 0;
  std::string message;
};

// The columns of the line; a line that is not in the layout fails the test and gives an empty one.
LogLine ParseLogLine(const std::string& line);

// A statement without its time, handler and process: "ERROR src/SetObdConf 50 message".
std::string Summary(const LogLine& line);

// The statements of the log file in their order, each as its Summary. Lines that no statement wrote
// (the Java VM's) are left out.
std::vector<std::string> LoggedStatements();

// All lines of the log file in their order: statements as their Summary, others as they are.
std::vector<std::string> LoggedLines();

// The lines of the log file that no statement wrote.
std::vector<std::string> ForeignLines();
