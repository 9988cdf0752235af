// The page "Device Information": the settings, the owner of the diagnostic interface, the addresses
// of the device. What is not available is reported on the page; the rest is shown.

#include <cgicc/Cgicc.h>
#include <cgicc/HTMLClasses.h>

#include <iostream>
#include <string>

#include "CgiLog.h"
#include "JavaVmWrapper.h"
#include "NvmManipulator.h"
#include "Page.h"
#include "PropertiesIni.h"
#include "VemoHtml.h"
#include "VemoPages.h"

namespace {

constexpr char SOURCE[] = "pages/DeviceInformation";
constexpr char NOT_KNOWN[] = "Not known";
constexpr Link PAGE = {"Device Information", DEVICE_INFORMATION_PAGE};

void PrintRow(const std::string& name, const std::string& html) {
  std::cout << cgicc::dt(name) << cgicc::dd(html) << std::endl;
}

// --- Settings

constexpr char TIMEOUT_HINT[] =
    "A whole number of milliseconds, at most six digits: 300 is 0.3 seconds. For so long the "
    "diagnostic runtime listens on a CAN line for traffic. Too short: a quiet bus is taken for a "
    "missing one. Too long: a vehicle without CAN is slow to connect.";
constexpr char STORING_HINT[] =
    "A new value takes effect after a reboot. On a small device storing takes some seconds.";

void PrintTimeoutForm() {
  PropertiesIni settings;
  if (!settings.Load(SETTINGS_FILE)) {
    PrintNotice("The settings file cannot be read: the stored value is not known.");
  }
  const std::string value = HtmlFromLatin1(settings.GetProperty(OPTION_SECTION, OPTION_KEY));

  std::cout << cgicc::form().set("action", SET_OPTION_PAGE).set("method", "post") << std::endl;
  std::cout << cgicc::p() << cgicc::label("CanDetectTimeout in ms").set("for", "timeout")
            << cgicc::input()
                   .set("type", "text")
                   .set("id", "timeout")
                   .set("name", OPTION_FIELD)
                   .set("value", value)
                   .set("inputmode", "numeric")
                   .set("autocomplete", "off")
                   .set("required", "required")
                   .set("pattern", "[0-9]{1,6}")
                   // One more than the pattern allows: otherwise the browser would cut a number
                   // that is too long, and send the shorter one.
                   .set("maxlength", "7")
                   .set("title", "a whole number of milliseconds, at most six digits")
                   .set("aria-describedby", "timeout-hint")
            << cgicc::p() << std::endl;
  std::cout << cgicc::p(TIMEOUT_HINT).set("class", "hint").set("id", "timeout-hint") << std::endl;
  PrintSubmitButton("Set");
  std::cout << cgicc::p(STORING_HINT).set("class", "hint") << std::endl;
  std::cout << cgicc::form() << std::endl;
}

// --- Allocation

struct Action {
  const char* word;      // value of the form field
  const char* label;     // text of the button
  const char* function;  // of the nVm service
};

constexpr Action ALLOCATE = {"allocate", "Allocate", "nvmAllocateDevice"};
constexpr Action RELEASE = {"release", "Release", "nvmReleaseDevice"};

void PrintActionForm(const Action& action) {
  std::cout
      << cgicc::form().set("action", PAGE.address).set("method", "post")
      << cgicc::input().set("type", "hidden").set("name", "allocation").set("value", action.word);
  PrintSubmitButton(action.label);
  std::cout << cgicc::form() << std::endl;
}

std::string StatusHtml(const std::string& code, const std::string& message) {
  if (code.empty() && message.empty()) {
    return NOT_KNOWN;
  }
  const std::string words = !message.empty() ? HtmlFromUtf8(message)
                            : code == "0"    ? "No error"
                                             : "Error without a message";
  return words + (code.empty() ? "" : " (code " + HtmlFromUtf8(code) + ")");
}

// Sends the posted action, if there is one. Prints a notice when it fails.
void CarryOut(const cgicc::Cgicc& request, NvmManipulator& nvm) {
  if (request.getEnvironment().getRequestMethod() != "POST") {
    return;
  }
  for (const Action& action : {ALLOCATE, RELEASE}) {
    std::string reply;
    if (request("allocation") != action.word) {
      continue;
    }
    if (nvm.SendToNvm(NVM_SERVICE_ADDRESS, action.function, reply) != 0) {
      PrintNotice(std::string(action.label) + " did not reach the nVm service.");
      continue;
    }
    std::string code;
    std::string message;
    nvm.GetStatusMessages(code, message);
    if (code.empty()) {
      PrintNotice(std::string(action.label) +
                  " may have failed: the nVm service's answer cannot be read.");
    } else if (code != "0") {
      PrintNotice(std::string(action.label) + " was refused: " + StatusHtml(code, message) + ".");
    }
  }
}

void PrintAllocation(const cgicc::Cgicc& request) {
  std::cout << cgicc::h3("Diagnostic interface") << std::endl;
  NvmManipulator nvm;
  CarryOut(request, nvm);
  std::string reply;
  if (nvm.SendToNvm(NVM_SERVICE_ADDRESS, "nvmGetDeviceStatus", reply) != 0) {
    PrintNotice("The nVm service does not answer: the allocation is not known.");
    return;
  }
  const std::string isAllocated = nvm.GetSingleVar("IsAllocated");
  const std::string owner = nvm.GetSingleVar("DeviceOwner");
  std::string code;
  std::string message;
  nvm.GetStatusMessages(code, message);

  const bool isFree = isAllocated == "0";
  std::cout << cgicc::dl() << std::endl;
  PrintRow("Allocation", isFree ? "Free" : isAllocated.empty() ? NOT_KNOWN : "Allocated");
  PrintRow("Owner", !owner.empty() ? HtmlFromUtf8(owner) : isFree ? "None" : NOT_KNOWN);
  PrintRow("Status", StatusHtml(code, message));
  std::cout << cgicc::dl() << std::endl;
  if (isFree) {
    PrintActionForm(ALLOCATE);
  } else if (owner == NVM_DEVICE_OWNER) {
    PrintActionForm(RELEASE);
  }
}

// --- Network

// An empty address means no network, unless the call failed: then an exception is pending.
class JavaSide : public JavaVmWrapper {
 public:
  bool HasFailed() const { return env->ExceptionCheck() == JNI_TRUE; }
};

std::string AddressHtml(const std::string& address, const JavaSide& javaSide) {
  if (address.empty()) {
    return javaSide.HasFailed() ? NOT_KNOWN : "Not connected";
  }
  return HtmlFromUtf8(address) + (IsIp4Address(address) ? "" : " (no valid address)");
}

void PrintAddresses() {
  std::cout << cgicc::h3("Network") << std::endl;
  JavaSide javaSide;
  if (!javaSide.OpenJavaVM()) {
    PrintNotice("The Java side does not answer: the addresses are not known.");
    return;
  }
  std::cout << cgicc::dl() << std::endl;
  PrintRow("LAN address", AddressHtml(javaSide.GetLanIp4Address(), javaSide));
  PrintRow("WLAN address", AddressHtml(javaSide.GetWlanIp4Address(), javaSide));
  std::cout << cgicc::dl() << std::endl;
}

}  // namespace

int main() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 1).Log(GetCgiLogHandler(), "%s", "main");
  // Before any output: it throws on a malformed request, and the web server then answers with a
  // clean error.
  const cgicc::Cgicc request(nullptr);

  const VemoHtml frame(PAGE.text);
  OpenContent({PAGE});
  PrintTimeoutForm();
  PrintAllocation(request);
  // Last: a Java VM that rejects its options ends the process.
  PrintAddresses();
  CloseContent();
  return 0;
}
