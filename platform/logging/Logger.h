// The process's logging configuration: its handlers and its level names.
//
// Everything lives until the process ends and is owned here. Single-threaded: nothing is locked.
#pragma once

#include <string>

class LogHandler;
class LogLevelManager;

class Logger {
 public:
  // The process's handler of that name, made at the first request; never null.
  static LogHandler* GetLogHandler(const std::string& name);

  // The handler named "default", for whoever wants a copy of everything. It has no client until
  // somebody gives it one, so it is silent; never null.
  static LogHandler* GetDefaultLogHandler();

  // The process's level registry; empty at first; never null.
  static LogLevelManager* GetLogLevelManager();
};
