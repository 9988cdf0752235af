// The page "Reboot": asks before it acts, by a posted form. The stand-in device cannot reboot.

#include <cgicc/Cgicc.h>
#include <cgicc/HTMLClasses.h>

#include <iostream>

#include "CgiLog.h"
#include "Page.h"
#include "VemoHtml.h"

namespace {

constexpr char SOURCE[] = "device/pages/Reboot";

void AskFirst() {
  OpenContent("Reboot", "reboot.cgi");
  std::cout << cgicc::p(
                   "Reboot the device to activate new settings? Diagnostic sessions in "
                   "progress are lost.")
            << std::endl;
  std::cout << cgicc::form().set("action", "reboot.cgi").set("method", "post")
            << cgicc::input().set("type", "submit").set("value", "Reboot").set("class", "mybutton")
            << cgicc::form() << std::endl;
  CloseContent();
}

}  // namespace

int main() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 1).Log(GetCgiLogHandler(), "%s", "main");
  const cgicc::Cgicc request(nullptr);
  VemoHtml frame("Reboot");
  if (request.getEnvironment().getRequestMethod() == "POST") {
    frame.PrintWarningPage("Reboot", "Device Information", "channeldeviceconfig.cgi",
                           "This stand-in for the device cannot reboot: nothing was restarted.");
  } else {
    AskFirst();
  }
  return 0;
}
