#include "Logger.h"

#include <map>
#include <memory>

#include "LogHandler.h"
#include "LogLevelManager.h"

LogHandler* Logger::GetLogHandler(const std::string& name) {
  // Never destroyed: destructors of other statics may still log.
  static auto& handlers = *new std::map<std::string, std::unique_ptr<LogHandler>>;
  std::unique_ptr<LogHandler>& handler = handlers[name];
  if (!handler) {
    handler = std::make_unique<LogHandler>(name);
  }
  return handler.get();
}

LogHandler* Logger::GetDefaultLogHandler() {
  return GetLogHandler("default");
}

LogLevelManager* Logger::GetLogLevelManager() {
  static auto& manager = *new LogLevelManager;
  return &manager;
}
