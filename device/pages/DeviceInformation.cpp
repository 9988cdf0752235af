// The page "Device Information": the settings, who holds the diagnostic interface, the addresses of
// the device. What cannot be had is said in words; the rest is shown all the same.

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

constexpr char SOURCE[] = "device/pages/DeviceInformation";
constexpr Link PAGE = {"Device Information", DEVICE_INFORMATION_PAGE};

void PrintRow(const std::string& name, const std::string& html) {
  std::cout << cgicc::dt(name) << cgicc::dd(html) << std::endl;
}

void PrintNotice(const std::string& html) {
  std::cout << cgicc::p(html).set("class", "warn") << std::endl;
}

// --- Settings

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
            << cgicc::p() << std::endl;
  PrintSubmitButton("Set");
  std::cout << cgicc::form() << std::endl;
}

// --- Allocation

struct Order {
  const char* word;      // value of the form field
  const char* label;     // text of the button
  const char* function;  // of the nVm service
};

constexpr Order ALLOCATE = {"allocate", "Allocate", "nvmAllocateDevice"};
constexpr Order RELEASE = {"release", "Release", "nvmReleaseDevice"};

void PrintOrderForm(const Order& order) {
  std::cout
      << cgicc::form().set("action", PAGE.address).set("method", "post")
      << cgicc::input().set("type", "hidden").set("name", "allocation").set("value", order.word);
  PrintSubmitButton(order.label);
  std::cout << cgicc::form() << std::endl;
}

// Sends the order that was posted, if one was, and says so when it was refused.
void CarryOut(const cgicc::Cgicc& request, NvmManipulator& nvm) {
  if (request.getEnvironment().getRequestMethod() != "POST") {
    return;
  }
  for (const Order& order : {ALLOCATE, RELEASE}) {
    std::string reply;
    if (request("allocation") != order.word) {
      continue;
    }
    if (nvm.SendToNvm(NVM_SERVICE_ADDRESS, order.function, reply) != 0) {
      PrintNotice(std::string(order.label) + " did not reach the nVm service.");
      continue;
    }
    std::string code;
    std::string message;
    nvm.GetStatusMessages(code, message);
    if (code != "0") {
      PrintNotice(std::string(order.label) + " was refused: " + HtmlFromUtf8(message) + " (code " +
                  HtmlFromUtf8(code) + ").");
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
  PrintRow("Allocation", isFree ? "Free" : isAllocated.empty() ? "Not known" : "Allocated");
  PrintRow("Owner", owner.empty() ? "None" : HtmlFromUtf8(owner));
  PrintRow("Status", "Code " + HtmlFromUtf8(code) +
                         (message.empty() ? ", no message" : ": " + HtmlFromUtf8(message)));
  std::cout << cgicc::dl() << std::endl;
  if (isFree) {
    PrintOrderForm(ALLOCATE);
  } else if (owner == NVM_DEVICE_OWNER) {
    PrintOrderForm(RELEASE);
  }
}

// --- Network

std::string AddressHtml(const std::string& address) {
  if (address.empty()) {
    return "Not connected";
  }
  return HtmlFromUtf8(address) + (IsIp4Address(address) ? "" : " (no valid address)");
}

void PrintAddresses() {
  std::cout << cgicc::h3("Network") << std::endl;
  JavaVmWrapper javaVm;
  if (!javaVm.OpenJavaVM()) {
    PrintNotice("The Java side does not answer: the addresses are not known.");
    return;
  }
  std::cout << cgicc::dl() << std::endl;
  PrintRow("LAN address", AddressHtml(javaVm.GetLanIp4Address()));
  PrintRow("WLAN address", AddressHtml(javaVm.GetWlanIp4Address()));
  std::cout << cgicc::dl() << std::endl;
}

}  // namespace

int main() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 1).Log(GetCgiLogHandler(), "%s", "main");
  // Before any output: a request that cannot be read then ends as a clean error of the web
  // server's.
  const cgicc::Cgicc request(nullptr);

  const VemoHtml frame(PAGE.text);
  OpenContent({PAGE});
  PrintTimeoutForm();
  PrintAllocation(request);
  // Last: a Java VM that cannot live with its options ends the process.
  PrintAddresses();
  CloseContent();
  return 0;
}
