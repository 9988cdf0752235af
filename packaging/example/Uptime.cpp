// The page "Uptime": how long the device has been running.

#include <cgicc/HTMLClasses.h>

#include <ctime>
#include <iostream>
#include <string>

#include "CgiLog.h"
#include "Page.h"
#include "VemoHtml.h"

int main() {
  LogFormater(LOG_LEVEL_DEBUG, "example/Uptime", 1).Log(GetCgiLogHandler(), "%s", "main");
  const VemoHtml frame("Uptime");
  OpenContent({{"Uptime", "uptime.cgi"}});
  // By a system call, since the service does not see /proc/uptime.
  timespec sinceBoot;
  if (clock_gettime(CLOCK_BOOTTIME, &sinceBoot) == 0) {
    std::cout << cgicc::p("The device has been running for " +
                          std::to_string(sinceBoot.tv_sec / 60) + " minutes and " +
                          std::to_string(sinceBoot.tv_sec % 60) + " seconds.")
              << std::endl;
  } else {
    PrintNotice("The kernel does not tell how long the device has been running.");
  }
  CloseContent();
  return 0;
}
