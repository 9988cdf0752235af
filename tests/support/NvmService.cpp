#include "NvmService.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <regex>

#include "Files.h"
#include "LogLine.h"
#include "Tcp.h"

namespace {

Command Start(const std::string& address, const std::function<void()>& prepare) {
  std::filesystem::remove(NVM_SERVICE_LOG_FILE);
  return {{NVM_SERVICE, address}, {}, {}, prepare};
}

}  // namespace

NvmService::NvmService(const std::string& address, const std::function<void()>& prepare)
    : process_(Start(address, prepare)) {
  EXPECT_TRUE(Eventually([&] { return IsListening(address, NVM_PORT); }));
}

std::vector<std::string> NvmServiceStatements() {
  std::vector<std::string> statements;
  for (const std::string& text : Lines(ReadText(NVM_SERVICE_LOG_FILE))) {
    const LogLine line = ParseLogLine(text);
    EXPECT_EQ(line.handler, "nvm");
    EXPECT_EQ(line.fileName, "standin/nvm/Service");
    statements.push_back(line.level + " " + line.message);
  }
  return statements;
}

std::string NvmRequest(const std::string& function, const std::string& body) {
  return "GET /nVm?FunctionName=" + function +
         " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

std::string NvmOwnerPacket(const std::string& owner, const std::string& clientAddress) {
  return "<wddxPacket version='1.0'><header/><data><struct>"
         "<var name='DeviceOwner'><string>" +
         owner + "</string></var>\n<var name='IfhClientIpAddr'><string>" + clientAddress +
         "</string></var></struct></data></wddxPacket>";
}

void AllocateAs(const std::string& owner) {
  Connection connection(NVM_ADDRESS, NVM_PORT);
  connection.Send(NvmRequest("nvmAllocateDevice", NvmOwnerPacket(owner)));
  EXPECT_THAT(connection.ReceiveAll(), testing::EndsWith(NvmReply("1", owner, "0", "0", "")));
}

std::string NvmReply(const std::string& isAllocated, const std::string& owner,
                     const std::string& clientAddress, const std::string& code,
                     const std::string& message) {
  return "<?xml version='1.0'?>"
         "<!DOCTYPE wddxPacket SYSTEM "
         "'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'>"
         "<wddxPacket version=\"1.0\"><header/><data><struct>"
         "<var name=\"IsAllocated\"><string>" +
         isAllocated + "</string></var><var name=\"DeviceOwner\"><string>" + owner +
         "</string></var><var name=\"IfhClientIpAddr\"><string>" + clientAddress +
         "</string></var><var name=\"Status\"><struct><var name=\"code\"><string>" + code +
         "</string></var><var name=\"msg\"><string>" + message +
         "</string></var></struct></var></struct></data></wddxPacket>";
}

std::string FreeReply() {
  return NvmReply("0", "", "", "0", "");
}

std::string AllocatedReply() {
  return NvmReply("1", "VEMO_WEB", "0", "0", "");
}

std::string NvmHttpReply(const std::string& body) {
  const std::string length = std::to_string(body.size());
  return "HTTP/1.1 200 OK\r\nConnection: close\r\ncontent-type: text/xml\r\ncontent-length: " +
         length + "\r\nContent-Length: " + length + "\r\n\r\n" + body;
}

std::string Undated(const std::string& text) {
  static const std::regex date(
      R"(\r\nDate: [A-Z][a-z]{2}, \d\d [A-Z][a-z]{2} \d{4} \d\d:\d\d:\d\d GMT)");
  return std::regex_replace(text, date, "");
}
