// The log of the CGI programs: one handler, one file, one line layout.
//
// A log statement names its own source file and a number:
//
//   LogFormater(LOG_LEVEL_DEBUG, "src/SetObdConf", 30).Log(GetCgiLogHandler(), "%s", "main");
//
// The number names the statement, whichever line that stands on; a new statement takes one that its
// file has free. Number and format are written out where they are logged: whoever has a line of the
// log in hand searches for them. Numbers, texts and their order are an interface, like the layout
// of the line: they do not change. Nor do those of the pages and of the traces on standard output.
#pragma once

#include <cstdint>

#include "LogFormater.h"
#include "LogHandler.h"
#include "LogLayout.h"

constexpr std::uint32_t LOG_LEVEL_DEBUG = 10;
constexpr std::uint32_t LOG_LEVEL_INFO = 20;
constexpr std::uint32_t LOG_LEVEL_WARN = 30;
constexpr std::uint32_t LOG_LEVEL_ERROR = 40;
constexpr std::uint32_t LOG_LEVEL_FATAL = 50;

// The log file, shared by every program of the family and by their Java side.
constexpr char CGI_LOG_FILE[] = "/tmp/cgi.log";

// The handler "cgi", never null, owned by the logging library. The first call wires it to the
// library's default handler and to the log file, registers the five levels, and makes it a client
// of the handler "JVEMO"; what was logged to "JVEMO" before that reached nobody. Single-threaded. A
// log file that cannot be opened is reported on standard error; logging then goes on silently.
LogHandler* GetCgiLogHandler();

// One event as one line of the log file: date and time, level, handler, process, source file,
// number, message. The columns are padded with blanks, never cut.
class JniLayout : public LogLayout {
 public:
  ~JniLayout() override = default;

  // Numbers are written in the base that `out` is set to. Leaves `out` left-adjusted, filling with
  // blanks, its width spent; everything else stays as it was.
  void FormatAndAppend(std::ostream& out, const LogEvent& event) override;
};
