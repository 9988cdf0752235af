// A stand-in for the device's nVm service: keeps who holds the diagnostic interface, and answers on
// TCP port 5302 of a loopback address.
//
//   nvm-service [ADDRESS]       127.0.0.1 without one
//
// Logs what it did to /tmp/nvm.log. SIGTERM ends it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "Allocation.h"
#include "CgiLog.h"
#include "LogClient.h"
#include "LogLevelManager.h"
#include "Logger.h"
#include "NvmManipulator.h"
#include "Wddx.h"

namespace {

constexpr char SOURCE[] = "device/nvm/Service";
constexpr char SERVICE_LOG_FILE[] = "/tmp/nvm.log";
constexpr std::size_t MOST_REQUEST_BYTES = std::size_t{64} * 1024;

// Everything that the threads share, the log included.
std::mutex serviceMutex;
Allocation allocation;

LogHandler* GetServiceLogHandler() {
  return Logger::GetLogHandler("nvm");
}

void OpenLog() {
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_INFO, "INFO");
  Logger::GetLogLevelManager()->AddLogLevel(LOG_LEVEL_ERROR, "ERROR");
  auto* const file = new LogClientFile(SERVICE_LOG_FILE, true);
  file->SetLayout(new JniLayout);
  GetServiceLogHandler()->AddLogClient(file);
}

struct Request {
  std::string function;
  std::string body;
};

std::string LowerCase(std::string text) {
  for (char& character : text) {
    character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
  }
  return text;
}

// Whether `text` begins with a whole request; it is then in `request`.
bool ParseRequest(const std::string& text, Request& request) {
  const std::size_t headEnd = text.find("\r\n\r\n");
  if (headEnd == std::string::npos) {
    return false;
  }
  const std::string head = text.substr(0, headEnd);
  std::size_t length = 0;
  const std::size_t header = LowerCase(head).find("\r\ncontent-length:");
  if (header != std::string::npos) {
    length = std::strtoul(head.c_str() + head.find(':', header) + 1, nullptr, 10);
  }
  if (text.size() - (headEnd + 4) < length) {
    return false;
  }
  constexpr char PARAMETER[] = "/nVm?FunctionName=";
  const std::string requestLine = head.substr(0, head.find("\r\n"));
  const std::size_t parameter = requestLine.find(PARAMETER);
  if (parameter != std::string::npos) {
    const std::size_t begin = parameter + std::strlen(PARAMETER);
    request.function = requestLine.substr(begin, requestLine.find(' ', begin) - begin);
  }
  request.body = text.substr(headEnd + 4, length);
  return true;
}

Status Execute(const Request& request) {
  auto packet = ReadPacket(request.body);
  if (!packet) {
    return {4, "Request is no WDDX packet"};
  }
  if (request.function == "nvmGetDeviceStatus") {
    return {0, ""};
  }
  if (request.function == "nvmAllocateDevice") {
    return allocation.Allocate((*packet)["DeviceOwner"], (*packet)["IfhClientIpAddr"]);
  }
  if (request.function == "nvmReleaseDevice") {
    return allocation.Release((*packet)["DeviceOwner"]);
  }
  return {5, "Unknown function " + request.function};
}

std::string Answer(const Request& request) {
  const std::lock_guard<std::mutex> lock(serviceMutex);
  const Status status = Execute(request);
  LogFormater(status.code == 0 ? LOG_LEVEL_INFO : LOG_LEVEL_ERROR, SOURCE, 1)
      .Log(GetServiceLogHandler(), "%s: %d %s; owner now: %s", request.function.c_str(),
           status.code, status.message.c_str(),
           allocation.IsAllocated() ? allocation.Owner().c_str() : "nobody");
  const std::string body = WritePacket({{"IsAllocated", allocation.IsAllocated() ? "1" : "0"},
                                        {"DeviceOwner", allocation.Owner()},
                                        {"IfhClientIpAddr", allocation.ClientAddress()}},
                                       status);
  // The clients know the header in lower case only.
  return "HTTP/1.1 200 OK\r\ncontent-type: text/xml\r\ncontent-length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

void Serve(int connection) {
  // Clients may go away without a word, or stay without one.
  const timeval patience = {10, 0};
  setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);

  std::string received;
  Request request;
  char chunk[4096];
  while (received.size() < MOST_REQUEST_BYTES && !ParseRequest(received, request)) {
    const ssize_t count = recv(connection, chunk, sizeof chunk, 0);
    if (count <= 0) {
      close(connection);
      return;
    }
    received.append(chunk, static_cast<std::size_t>(count));
  }
  const std::string answer = Answer(request);
  for (std::size_t sent = 0; sent < answer.size();) {
    const ssize_t count =
        send(connection, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) {
      break;
    }
    sent += static_cast<std::size_t>(count);
  }
  close(connection);
}

// The listening socket, or -1 with errno set.
int Listen(const char* address) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(NVM_SERVICE_PORT);
  if (inet_pton(AF_INET, address, &own.sin_addr) != 1) {
    errno = EINVAL;
    return -1;
  }
  const bool isListening =
      bind(listener, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0 &&
      listen(listener, 16) == 0;
  return isListening ? listener : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const char* const address = argc > 1 ? argv[1] : NVM_SERVICE_ADDRESS;
  const int listener = Listen(address);
  if (listener == -1) {
    std::fprintf(stderr, "nvm-service: can't listen on %s:%d: %s\n", address, int{NVM_SERVICE_PORT},
                 std::strerror(errno));
    return EXIT_FAILURE;
  }
  OpenLog();
  while (true) {
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection == -1) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));  // out of descriptors, perhaps
      continue;
    }
    std::thread(Serve, connection).detach();
  }
}
