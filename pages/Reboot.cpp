// The page "Reboot": asks for confirmation by a posted form, and shows when the device is back. It
// has no right to reboot. It writes a line into a named pipe, which systemd reads if the maintainer
// has allowed it. Without a reader nothing reboots, and the page says so.

#include <cgicc/Cgicc.h>
#include <cgicc/HTMLClasses.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "CgiLog.h"
#include "Page.h"
#include "VemoHtml.h"
#include "VemoPages.h"

namespace {

constexpr char SOURCE[] = "pages/Reboot";
constexpr Link PARENT = {"Device Information", DEVICE_INFORMATION_PAGE};
constexpr Link PAGE = {"Reboot", REBOOT_PAGE};

// Its reader reboots the device.
constexpr char REBOOT_PIPE[] = "/run/vemo-web-reboot";
constexpr char REBOOT_LINE[] = "reboot\n";
// Holds a word that differs after each boot of the device.
constexpr char BOOT_ID_FILE[] = "/run/vemo-web-boot";
constexpr char UNKNOWN[] = "unknown";
// The query field that holds the word from before the reboot.
constexpr char BEFORE[] = "before";

// Follows the page's link once the web server was down and is up again, or after two minutes, to
// show that the device did not reboot. A page that reloads itself would not do: while the device is
// down the browser would replace it by an error page. The web servers' policies allow this script
// by its hash, so a change of it belongs there too.
constexpr char SCRIPT[] = R"(
const end = Date.now() + 120000;
let wasDown = false;
async function look() {
  const limit = new AbortController();
  const timer = setTimeout(() => limit.abort(), 3000);
  let isUp = false;
  try {
    isUp = (await fetch("/css/all.css", {method: "HEAD", cache: "no-store", signal: limit.signal})).ok;
  } catch {
    // It is down.
  }
  clearTimeout(timer);
  if (isUp && (wasDown || Date.now() > end)) {
    location.replace(document.getElementById("back").href);
  } else {
    wasDown = wasDown || !isUp;
    setTimeout(look, 500);
  }
}
look();
)";

// The pipe, if it has a reader; else -1, and errno says why.
int OpenRebootPipe() {
  const int pipe = open(REBOOT_PIPE, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat found {};
  if (pipe >= 0 && (fstat(pipe, &found) != 0 || !S_ISFIFO(found.st_mode))) {
    close(pipe);
    errno = ENXIO;
    return -1;
  }
  return pipe;
}

bool IsAllowed() {
  const int pipe = OpenRebootPipe();
  if (pipe >= 0) {
    close(pipe);
  }
  return pipe >= 0;
}

bool WriteRebootLine() {
  const int pipe = OpenRebootPipe();
  const bool isWritten = pipe >= 0 && write(pipe, REBOOT_LINE, sizeof REBOOT_LINE - 1) ==
                                          ssize_t{sizeof REBOOT_LINE - 1};
  const int reason = errno;
  if (pipe >= 0) {
    close(pipe);
  }
  if (isWritten) {
    LogFormater(LOG_LEVEL_DEBUG, SOURCE, 2).Log(GetCgiLogHandler(), "%s", "Reboot ordered");
  } else {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 3)
        .Log(GetCgiLogHandler(), "Can't order the reboot: %s", std::strerror(reason));
  }
  return isWritten;
}

std::string ReadBootId() {
  std::string word;
  std::ifstream(BOOT_ID_FILE) >> word;
  return word.empty() ? UNKNOWN : word;
}

void PrintText(const std::string& html) {
  std::cout << cgicc::p(html) << std::endl;
}

void PrintOtherWays() {
  PrintText(
      "To activate new settings, switch the device off and on again, or ask who maintains it. "
      "The manual page setobdconf.cgi(8) tells the maintainer how to allow it.");
}

// The link, and the script that follows it.
void PrintReturn() {
  std::cout << cgicc::p()
            << cgicc::a("Is it back?")
                   .set("id", "back")
                   .set("href", std::string(PAGE.address) + "?" + BEFORE + "=" +
                                    HtmlFromLatin1(ReadBootId()))
            << cgicc::p() << std::endl;
  std::cout << cgicc::script(SCRIPT) << std::endl;
}

void AskFirst() {
  if (!IsAllowed()) {
    PrintNotice("This web interface is not allowed to reboot the device.");
    PrintOtherWays();
    return;
  }
  PrintText(
      "Reboot the device to activate new settings? Diagnostic sessions in progress are lost.");
  std::cout << cgicc::form().set("action", PAGE.address).set("method", "post");
  PrintSubmitButton("Reboot");
  std::cout << cgicc::form() << std::endl;
}

void Reboot() {
  if (!WriteRebootLine()) {
    PrintNotice("The device does not reboot: this web interface is not allowed to reboot it.");
    PrintOtherWays();
    return;
  }
  PrintText(
      "The device reboots now. This page shows when it is back; without scripts, follow the link.");
  PrintReturn();
}

void PrintWhetherRebooted(const std::string& before) {
  const std::string now = ReadBootId();
  if (before == UNKNOWN || now == UNKNOWN) {
    PrintNotice("The device answers. Whether it has rebooted is not known.");
  } else if (before == now) {
    PrintNotice("The device has not rebooted yet.");
    PrintText("When this lasts for minutes, switch the device off and on again.");
    PrintReturn();
  } else {
    PrintText("The device is back: it has rebooted.");
    std::cout << cgicc::p() << cgicc::a(PARENT.text).set("href", PARENT.address)
              << " shows the settings." << cgicc::p() << std::endl;
  }
}

}  // namespace

int main() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 1).Log(GetCgiLogHandler(), "%s", "main");
  const cgicc::Cgicc request(nullptr);
  const std::string before = request(BEFORE);

  const VemoHtml frame(PAGE.text);
  OpenContent({PARENT, PAGE});
  if (request.getEnvironment().getRequestMethod() == "POST") {
    Reboot();
  } else if (!before.empty()) {
    PrintWhetherRebooted(before);
  } else {
    AskFirst();
  }
  CloseContent();
  return 0;
}
