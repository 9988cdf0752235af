// The page "Reboot": asks before it acts, by a posted form. The stand-in device cannot reboot.

#include <cgicc/Cgicc.h>
#include <cgicc/HTMLClasses.h>

#include <iostream>

#include "CgiLog.h"
#include "Page.h"
#include "VemoHtml.h"
#include "VemoPages.h"

namespace {

constexpr char SOURCE[] = "device/pages/Reboot";
constexpr Link PARENT = {"Device Information", DEVICE_INFORMATION_PAGE};
constexpr Link PAGE = {"Reboot", REBOOT_PAGE};

void AskFirst() {
  OpenContent({PARENT, PAGE});
  std::cout << cgicc::p(
                   "Reboot the device to activate new settings? Diagnostic sessions in "
                   "progress are lost.")
            << std::endl;
  std::cout << cgicc::form().set("action", PAGE.address).set("method", "post");
  PrintSubmitButton("Reboot");
  std::cout << cgicc::form() << std::endl;
  CloseContent();
}

}  // namespace

int main() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 1).Log(GetCgiLogHandler(), "%s", "main");
  const cgicc::Cgicc request(nullptr);
  VemoHtml frame(PAGE.text);
  if (request.getEnvironment().getRequestMethod() == "POST") {
    frame.PrintWarningPage(PAGE.text, PARENT.text, PARENT.address,
                           "This stand-in for the device cannot reboot: nothing was restarted.");
  } else {
    AskFirst();
  }
  return 0;
}
