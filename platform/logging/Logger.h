// The process's logging configuration: its handlers and its level names.
//
// Everything lives until the process ends and is owned here. Single-threaded: nothing is locked.
#pragma once

#include <string>

class LogHandler;
class LogLevelManager;

class Logger {
 public:
  // The process's handler of that name, created by the first call; never null.
  static LogHandler* GetLogHandler(const std::string& name);

  // The handler named "default", for clients that want a copy of what other handlers pass to it. It
  // has no client of its own, so it is silent until it is given one; never null.
  static LogHandler* GetDefaultLogHandler();

  // The process's level registry; empty at first; never null.
  static LogLevelManager* GetLogLevelManager();
};
