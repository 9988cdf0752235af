// The log of the CGI programs: one handler, one file, one line layout.
//
// A log statement names its own source file and a number:
//
//   LogFormater(LOG_LEVEL_DEBUG, "src/SetObdConf", 30).Log(GetCgiLogHandler(), "%s", "main");
//
// The number is the statement's name, not its source line; a new statement takes a number that its
// file does not use yet. Number and format are literals: searching the sources for the constant
// part of a log line finds the statement that wrote it; docs/log.md lists all. Numbers, texts,
// their order and the layout of a line are an interface and do not change. Neither do the texts of
// pages and the traces on standard output.
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

// The log file of every program of the web interface and of their Java side.
constexpr char CGI_LOG_FILE[] = "/tmp/cgi.log";

// The handler "cgi", never null, owned by the logging library. The first call connects it to the
// library's default handler and to the log file, registers the five levels, and makes it a client
// of the handler "JVEMO"; events logged to "JVEMO" before that call are lost. Single-threaded. A
// log file that cannot be opened is reported on standard error; logging then goes on silently.
LogHandler* GetCgiLogHandler();

// One event as one line of the log file:
//
//   column          width
//   date and time   28     local, "YYYY-MM-DD HH:MM:SS.uuuuuu" and two blanks
//   level           10
//   handler         15
//   process ID       6
//   source file     25
//   number           6
//   message                to the end of the line
//
// Values are left-aligned, padded with blanks to the column's width and never cut. No blank follows
// a value that fills its column.
class JniLayout : public LogLayout {
 public:
  ~JniLayout() override = default;

  // Writes numbers in the base that `out` is set to. Leaves `out` left-adjusted, with blank as its
  // fill and without a width; everything else stays as it was.
  void FormatAndAppend(std::ostream& out, const LogEvent& event) override;
};
