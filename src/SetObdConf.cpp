// The page "Set CanDetectTimeout": stores the submitted form field in the settings file of the
// diagnostic runtime. One process serves one request.

#include <cgicc/Cgicc.h>
#include <cgicc/HTMLClasses.h>

#include <iostream>
#include <string>

#include "CgiLog.h"
#include "JavaVmWrapper.h"
#include "PropertiesIni.h"
#include "VemoHtml.h"
#include "VemoPages.h"

// Writes a form with one button that leads back to the page Device Information.
void PrintBackButton();

// Writes the warning and a Back button.
void PrintWarning(const std::string& message);

namespace {

constexpr char SOURCE[] = "src/SetObdConf";

// An element without content opens or closes its tag, alternately: see VemoHtml.h. The paragraph at
// the end of the success text and the content block of the warning stay open.

void PrintNavigation() {
  std::cout
      << cgicc::div().set("class", "navi")
      << cgicc::a("Home").set("class", "small").set("href", HOME_PAGE) << " / "
      << cgicc::a("Device Information").set("class", "small").set("href", DEVICE_INFORMATION_PAGE)
      << " / "
      << cgicc::a("Set CanDetectTimeout").set("class", "small").set("href", SET_OPTION_PAGE)
      << cgicc::div() << std::endl;
}

// Echoes the value before it touches the settings file, so that a page cut there shows how far the
// request came. Ignores errors of the settings file.
// Contract and known issues: docs/kept-as-is.md, `SetOption`.
void SetOption(const std::string& value) {
  std::cout << cgicc::p() << "Set CanDetectTimeout to " << value << " ms." << std::endl;

  PropertiesIni settings;
  settings.Load(SETTINGS_FILE);
  settings.SetProperty(OPTION_SECTION, OPTION_KEY, value);
  settings.Store(SETTINGS_FILE, "");

  std::cout << cgicc::p() << "Set new option was successful." << cgicc::br() << "\n"
            << "To activate the new setting " << cgicc::a("reboot").set("href", REBOOT_PAGE)
            << " the device." << cgicc::p() << std::endl;
  std::cout << cgicc::div() << std::endl;
}

}  // namespace

// Contract and known issues: docs/kept-as-is.md, `PrintBackButton`.
void PrintBackButton() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 88).Log(GetCgiLogHandler(), "%s", "PrintBackButton");
  std::cout << cgicc::form().set("action", DEVICE_INFORMATION_PAGE)
            << cgicc::input().set("type", "submit").set("value", " Back ").set("class", "mybutton")
            << cgicc::form() << std::endl;
}

void PrintWarning(const std::string& message) {
  std::cout << cgicc::p().set("class", "warn") << message << cgicc::p();
  PrintBackButton();
}

// Catches nothing: unwinding would write the frame's closing at the end of a cut page.
// Contract and known issues: docs/kept-as-is.md, `main`.
int main() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 30).Log(GetCgiLogHandler(), "%s", "main");

  const VemoHtml frame("SetObdConf");
  JavaVmWrapper javaVm;
  if (!javaVm.OpenJavaVM()) {
    return 1;
  }

  PrintNavigation();
  std::cout << cgicc::h2("Set CanDetectTimeout") << std::endl;
  std::cout << cgicc::div().set("class", "content") << std::endl;

  cgicc::Cgicc request(nullptr);
  const cgicc::form_iterator option = request.getElement(OPTION_FIELD);
  if (option == request.getElements().end()) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 50)
        .Log(GetCgiLogHandler(), "Option CanDetectTimeout not set");
    PrintWarning("Option CanDetectTimeout not set");
    return 1;
  }
  SetOption(option->getValue());
  return 0;
}
