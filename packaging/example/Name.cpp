// The page "Interface Name": a form that stores an option, the name that test benches show.

#include <cgicc/Cgicc.h>
#include <cgicc/HTMLClasses.h>

#include <iostream>
#include <string>

#include "CgiLog.h"
#include "Page.h"
#include "PropertiesIni.h"
#include "VemoHtml.h"
#include "VemoPages.h"

namespace {

constexpr char SOURCE[] = "example/Name";
constexpr char ADDRESS[] = "name.cgi";
constexpr char KEY[] = "VEMODInterfaceName";

// Loads immediately before it stores: what other programs store in between is lost. True: stored.
bool StoreName(const std::string& name) {
  PropertiesIni settings;
  if (settings.Load(SETTINGS_FILE)) {
    settings.SetProperty(OPTION_SECTION, KEY, name);
    if (settings.Store(SETTINGS_FILE, "")) {
      return true;
    }
  }
  LogFormater(LOG_LEVEL_ERROR, SOURCE, 2).Log(GetCgiLogHandler(), "VEMODInterfaceName not stored");
  return false;
}

// Shows the value in the file, not the submitted one.
void PrintForm() {
  PropertiesIni settings;
  if (!settings.Load(SETTINGS_FILE)) {
    PrintNotice("The settings file cannot be read: the stored name is not known.");
  }
  std::cout << cgicc::form().set("action", ADDRESS).set("method", "post") << std::endl;
  std::cout << cgicc::p() << cgicc::label("Name").set("for", "name")
            << cgicc::input()
                   .set("type", "text")
                   .set("id", "name")
                   .set("name", "Name")
                   .set("value", HtmlFromLatin1(settings.GetProperty(OPTION_SECTION, KEY)))
                   .set("required", "required")
                   .set("maxlength", "40")
                   .set("aria-describedby", "name-hint")
            << cgicc::p() << std::endl;
  std::cout << cgicc::p("At most 40 characters; test benches show it for this device.")
                   .set("class", "hint")
                   .set("id", "name-hint")
            << std::endl;
  PrintSubmitButton("Store");
  std::cout << cgicc::form() << std::endl;
}

}  // namespace

int main() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 1).Log(GetCgiLogHandler(), "%s", "main");
  // Before any output: it throws on a malformed request, and the web server then sends an error.
  const cgicc::Cgicc request(nullptr);

  const VemoHtml frame("Interface Name");
  OpenContent({{"Interface Name", ADDRESS}});
  // Only a POST changes something: the web server's CSRF protection lets in only our own pages'.
  if (request.getEnvironment().getRequestMethod() == "POST") {
    // The form's limits hold in browsers only; other clients can send anything.
    const std::string name = request("Name");
    if (name.empty() || name.size() > 40) {
      PrintNotice("Nothing was stored: a name has 1 to 40 characters.");
    } else if (!StoreName(name)) {
      PrintNotice("The name was not stored: the settings file cannot be written.");
    } else {
      std::cout << cgicc::p() << "The name is stored. To activate it "
                << cgicc::a("reboot").set("href", REBOOT_PAGE) << " the device." << cgicc::p()
                << std::endl;
    }
  }
  PrintForm();
  CloseContent();
  return 0;
}
