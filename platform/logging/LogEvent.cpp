#include "LogEvent.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "LogLevelManager.h"
#include "Logger.h"

LogEvent::LogEvent() : time{}, level(0), processId(getpid()), line(0) {
  gettimeofday(&time, nullptr);
}

std::string LogEvent::GetDateTimeUsec() const {
  tm local{};
  localtime_r(&time.tv_sec, &local);
  char seconds[64];
  std::strftime(seconds, sizeof seconds, "%Y-%m-%d %H:%M:%S", &local);
  char microseconds[16];
  std::snprintf(microseconds, sizeof microseconds, ".%06ld", static_cast<long>(time.tv_usec));
  return std::string(seconds) + microseconds;
}

std::string LogEvent::GetLogLevelName() const {
  return Logger::GetLogLevelManager()->GetLogLevelName(level);
}

const std::string& LogEvent::GetFileName() const {
  return fileName;
}
