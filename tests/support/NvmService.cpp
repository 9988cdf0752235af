#include "NvmService.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "Files.h"
#include "LogLine.h"
#include "Tcp.h"

namespace {

Command Start(const std::string& address) {
  std::filesystem::remove(NVM_SERVICE_LOG_FILE);
  return {{NVM_SERVICE, address}};
}

}  // namespace

NvmService::NvmService(const std::string& address) : process_(Start(address)) {
  EXPECT_TRUE(Eventually([&] { return IsListening(address, NVM_PORT); }));
}

std::vector<std::string> NvmServiceStatements() {
  std::vector<std::string> statements;
  for (const std::string& text : Lines(ReadText(NVM_SERVICE_LOG_FILE))) {
    const LogLine line = ParseLogLine(text);
    EXPECT_EQ(line.handler, "nvm");
    EXPECT_EQ(line.fileName, "device/nvm/Service");
    EXPECT_EQ(line.line, 1);
    statements.push_back(line.level + " " + line.message);
  }
  return statements;
}

std::string NvmRequest(const std::string& function, const std::string& body) {
  return "GET /nVm?FunctionName=" + function +
         " HTTP/1.1\r\nContent-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
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
