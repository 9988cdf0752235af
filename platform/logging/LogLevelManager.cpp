#include "LogLevelManager.h"

void LogLevelManager::AddLogLevel(unsigned int number, const std::string& name) {
  names_[number] = name;
}

std::string LogLevelManager::GetLogLevelName(unsigned int number) const {
  const auto level = names_.find(number);
  return level != names_.end() ? level->second : std::to_string(number);
}
