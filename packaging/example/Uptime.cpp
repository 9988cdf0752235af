// The page "Uptime": how long the device has been running. A sibling page that needs nothing but
// the installed library. Build it, and put it where the web server finds it:
//
//   cmake -B build && cmake --build build
//   install build/uptime.cgi /usr/share/vemo-web/htdocs

#include <cgicc/HTMLClasses.h>

#include <fstream>
#include <iostream>

#include "CgiLog.h"
#include "VemoHtml.h"
#include "VemoPages.h"

int main() {
  LogFormater(LOG_LEVEL_DEBUG, "example/Uptime", 1).Log(GetCgiLogHandler(), "%s", "main");
  VemoHtml frame("Uptime");

  // An element without content opens its tag, the next of its kind closes it.
  std::cout << cgicc::div().set("class", "navi")
            << cgicc::a("Home").set("class", "small").set("href", HOME_PAGE) << cgicc::div()
            << std::endl;
  std::cout << cgicc::h2("Uptime") << std::endl;

  double seconds = 0;
  if (std::ifstream("/proc/uptime") >> seconds) {
    std::cout << cgicc::p(std::to_string(static_cast<long>(seconds / 60)) + " minutes.")
              << std::endl;
  } else {
    frame.PrintWarningPage("Uptime", "Home", HOME_PAGE, "The kernel does not tell.");
  }
  return 0;
}
