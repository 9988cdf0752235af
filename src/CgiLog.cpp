#include "CgiLog.h"

#include <iomanip>

#include "LogClient.h"
#include "LogEvent.h"
#include "LogLevelManager.h"
#include "Logger.h"

// Contract and known issues: docs/kept-as-is.md, `GetCgiLogHandler`.
LogHandler* GetCgiLogHandler() {
  static bool isSetUp = false;
  LogHandler* const handler = Logger::GetLogHandler("cgi");
  if (isSetUp) {
    return handler;
  }

  handler->AddLogClient(Logger::GetDefaultLogHandler());
  // Never freed: client and layout must be able to log until the process ends.
  auto* const file = new LogClientFile(CGI_LOG_FILE, true);
  file->SetLayout(new JniLayout);
  handler->AddLogClient(file);

  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_DEBUG, "DEBUG");
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_INFO, "INFO");
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_WARN, "WARN");
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_ERROR, "ERROR");
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_FATAL, "FATAL");

  Logger::GetLogHandler("JVEMO")->AddLogClient(handler);

  isSetUp = true;
  return handler;
}

// Contract and known issues: docs/kept-as-is.md, `FormatAndAppend`.
void JniLayout::FormatAndAppend(std::ostream& out, const LogEvent& event) {
  // A width that is already set on the stream would pad the first column.
  out << std::setw(0) << std::left << std::setfill(' ');
  out << event.GetDateTimeUsec() << "  ";
  out << std::setw(10) << event.GetLogLevelName();
  out << std::setw(15) << event.handlerName;
  out << std::setw(6) << event.processId;
  out << std::setw(25) << event.GetFileName();
  out << std::setw(6) << event.line;
  out << event.message << "\n";
}
