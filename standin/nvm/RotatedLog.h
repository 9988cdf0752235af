// A log file that may be renamed while it is in use.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "LogClient.h"

class RotatedLog : public LogHandlerClient {
 public:
  // Opens the file for appending, as LogClientFile does. The layout is as in LogClient::SetLayout.
  RotatedLog(const std::string& path, LogLayout* layout);

  // Writes the event to the file that has the path now, and creates it when it is missing. If that
  // fails, reports it on standard error and writes the event to the file opened before.
  void HandleEvent(const LogEvent& event) override;

 private:
  void Open();

  std::string path_;
  LogLayout* layout_;
  std::unique_ptr<LogClientFile> file_;
  struct stat opened_ = {};
};
