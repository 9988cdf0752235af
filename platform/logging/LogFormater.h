// The front of the logging library: one object, one log statement.
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

  // Formats as printf does, whatever the length, and hands the event to the handler, stamped with
  // this statement's level, file name and line. A format that printf refuses is logged as it
  // stands. May change errno: take it into a variable before logging it.
  void Log(LogHandler* handler, const char* format, ...) __attribute__((format(printf, 3, 4)));

 protected:
  std::uint32_t level;
  std::string fileName;
  std::int32_t line;
};
