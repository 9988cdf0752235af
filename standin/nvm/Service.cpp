// A stand-in for the device's nVm service: tracks the owner of the diagnostic interface, and
// answers on TCP port 5302 of a loopback address.
//
//   nvm-service [ADDRESS]       default: 127.0.0.1
//
// Logs every request to /tmp/nvm.log, which may be renamed at any time. SIGTERM ends it.

#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Allocation.h"
#include "CgiLog.h"
#include "Http.h"
#include "LogLevelManager.h"
#include "Logger.h"
#include "NvmManipulator.h"
#include "RotatedLog.h"
#include "Wddx.h"

namespace {

constexpr char SOURCE[] = "standin/nvm/Service";
constexpr char SERVICE_LOG_FILE[] = "/tmp/nvm.log";

Allocation allocation;

LogHandler* GetServiceLogHandler() {
  return Logger::GetLogHandler("nvm");
}

void OpenLog() {
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_INFO, "INFO");
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_ERROR, "ERROR");
  GetServiceLogHandler()->AddLogClient(new RotatedLog(SERVICE_LOG_FILE, new JniLayout));
}

// The text as printable ASCII, cut when it is long: so no client can add lines to the log.
std::string Printable(const std::string& text) {
  constexpr std::size_t MAX_CHARACTERS = 100;
  std::string printable;
  for (const char character : text.substr(0, MAX_CHARACTERS)) {
    if (character >= ' ' && character <= '~') {
      printable += character;
    } else {
      char code[8];
      std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned char>(character));
      printable += code;
    }
  }
  return text.size() > MAX_CHARACTERS ? printable + "..." : printable;
}

Status Execute(const std::string& function, const std::string& body) {
  auto packet = ReadPacket(body);
  if (!packet) {
    return {4, "Request is no WDDX packet"};
  }
  if (function == "nvmGetDeviceStatus") {
    return {0, ""};
  }
  if (function == "nvmAllocateDevice") {
    return allocation.Allocate((*packet)["DeviceOwner"], (*packet)["IfhClientIpAddr"]);
  }
  if (function == "nvmReleaseDevice") {
    return allocation.Release((*packet)["DeviceOwner"]);
  }
  return {5, "Unknown function " + Printable(function)};
}

std::string Answer(const std::string& function, const std::string& body) {
  const Status status = Execute(function, body);
  LogFormater(status.code == 0 ? LOG_LEVEL_INFO : LOG_LEVEL_ERROR, SOURCE, 1)
      .Log(GetServiceLogHandler(), "%s: %d %s; owner now: %s", Printable(function).c_str(),
           status.code, Printable(status.message).c_str(),
           allocation.IsAllocated() ? Printable(allocation.Owner()).c_str() : "nobody");
  return WritePacket({{"IsAllocated", allocation.IsAllocated() ? "1" : "0"},
                      {"DeviceOwner", allocation.Owner()},
                      {"IfhClientIpAddr", allocation.ClientAddress()}},
                     status);
}

void LogRefusal(const std::string& request, unsigned status, const std::string& reason) {
  LogFormater(LOG_LEVEL_ERROR, SOURCE, 2)
      .Log(GetServiceLogHandler(), "%s: refused with %u, %s", Printable(request).c_str(), status,
           reason.c_str());
}

void LogFailure(const std::string& message) {
  LogFormater(LOG_LEVEL_ERROR, SOURCE, 3)
      .Log(GetServiceLogHandler(), "%s", Printable(message).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  const char* const address = argc > 1 ? argv[1] : NVM_SERVICE_ADDRESS;
  const int listener = ListenHttp(address, NVM_SERVICE_PORT);
  if (listener == -1) {
    std::fprintf(stderr, "nvm-service: can't listen on %s:%d: %s\n", address, int{NVM_SERVICE_PORT},
                 std::strerror(errno));
    return EXIT_FAILURE;
  }
  signal(SIGPIPE, SIG_IGN);
  OpenLog();
  ServeHttp(listener, address, NVM_SERVICE_PORT, {Answer, LogRefusal, LogFailure});
  std::fprintf(stderr, "nvm-service: can't start to serve\n");
  return EXIT_FAILURE;
}
