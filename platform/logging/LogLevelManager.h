// The names of the log levels.
#pragma once

#include <map>
#include <string>

class LogLevelManager {
 public:
  // Gives `number` the name; a later registration of the same number replaces the earlier one.
  void AddLogLevel(unsigned int number, const std::string& name);

  // The name registered for `number`; without one, the number in decimal.
  std::string GetLogLevelName(unsigned int number) const;

 private:
  std::map<unsigned int, std::string> names_;
};
