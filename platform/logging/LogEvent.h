// One logged message, as a log handler passes it on to its clients.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <string>

// On 32-bit machines an event has the library's size only with _FILE_OFFSET_BITS=64 and
// _TIME_BITS=64, which the library's CMake target sets.
static_assert(sizeof(time_t) == 8);

class LogEvent {
 public:
  // An empty event of this process and of this moment.
  LogEvent();

  // Local time of the event, "YYYY-MM-DD HH:MM:SS.uuuuuu".
  std::string GetDateTimeUsec() const;

  // The name registered for `level` with the process's LogLevelManager; without one, the number in
  // decimal.
  std::string GetLogLevelName() const;

  // The source file as the log statement named it, directory included.
  const std::string& GetFileName() const;

  timeval time;             // when the event was made
  std::uint32_t level;      // as registered with LogLevelManager
  std::string handlerName;  // the handler that the event was logged to, not the one passing it on
  std::int32_t processId;   // the logging process
  std::string fileName;     // source file of the log statement
  std::int32_t line;        // its number: the source line, or a fixed name as in CgiLog.h
  std::string message;      // the formatted message, without a line end of its own
};
