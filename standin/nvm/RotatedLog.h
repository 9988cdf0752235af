// A log file that may be renamed away while it is written.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "LogClient.h"

class RotatedLog : public LogHandlerClient {
 public:
  // Opens the file and appends to it, as LogClientFile does; the layout as in
  // LogClient::SetLayout.
  RotatedLog(const std::string& path, LogLayout* layout);

  // Writes the event to the file that has the path now, made when it is missing. Where it cannot be
  // made, standard error is told, and the file that was open takes the event.
  void HandleEvent(const LogEvent& event) override;

 private:
  void Open();

  std::string path_;
  LogLayout* layout_;
  std::unique_ptr<LogClientFile> file_;
  struct stat opened_ = {};
};
