// The stand-in device's nVm service.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Process.h"

constexpr char NVM_SERVICE[] = "/srv/vemo/bin/nvm-service";
constexpr char NVM_ADDRESS[] = "127.0.0.1";
constexpr char NVM_SERVICE_LOG_FILE[] = "/tmp/nvm.log";

// The service in the background: it listens when the constructor returns, and its log is new.
class NvmService {
 public:
  // `prepare` as in Command.
  explicit NvmService(const std::string& address = NVM_ADDRESS,
                      const std::function<void()>& prepare = {});

  pid_t Id() const { return process_.Id(); }
  Result End(int signal) { return process_.End(signal); }

 private:
  BackgroundProcess process_;
};

// What the service logged, as in "INFO nvmGetDeviceStatus: 0 ; owner now: nobody".
std::vector<std::string> NvmServiceStatements();

// A request to the service, and the packet that names an owner.
std::string NvmRequest(const std::string& function, const std::string& body);
std::string NvmOwnerPacket(const std::string& owner, const std::string& clientAddress = "0");

// An owner other than the web interface allocates the device.
void AllocateAs(const std::string& owner);

// A reply of the service, as it writes it: the variables and the status of the last request.
std::string NvmReply(const std::string& isAllocated, const std::string& owner,
                     const std::string& clientAddress, const std::string& code,
                     const std::string& message);
std::string FreeReply();       // nobody holds the device
std::string AllocatedReply();  // the web interface holds it

// A reply with this body as it comes over the connection, but for its date.
std::string NvmHttpReply(const std::string& body);

// The text without the date headers in it.
std::string Undated(const std::string& text);
