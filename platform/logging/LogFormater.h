// The entry point of the logging library: one object for each log statement.
//
//   LogFormater(10, "src/Example", 42).Log(handler, "%s %d", "answer", 42);
#pragma once

#include <cstdint>
#include <string>

class LogHandler;

class LogFormater {
 public:
  LogFormater(std::uint32_t level, const std::string& fileName, std::int32_t line);
  virtual ~LogFormater() = default;

  // Formats like printf, at any length, and passes the event to the handler, with this statement's
  // level, file name and line. A format that printf rejects is logged unformatted. May change
  // errno: save it in a variable before logging it.
  void Log(LogHandler* handler, const char* format, ...) __attribute__((format(printf, 3, 4)));

 protected:
  std::uint32_t level;
  std::string fileName;
  std::int32_t line;
};
