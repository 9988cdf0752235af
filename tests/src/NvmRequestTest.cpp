// What the nVm client is made of, and what it asks the service.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <memory>
#include <type_traits>

#include "NvmClient.h"

namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;

// --- The object

TEST(NvmClient, HoldsNothingAtFirstInFourFieldsBehindAVirtualDestructor) {
  struct Like {
    virtual ~Like() = default;
    xmlDocPtr doc;
    std::string address, functionName, reply;
  };
  EXPECT_TRUE(std::has_virtual_destructor_v<NvmManipulator>);
  EXPECT_EQ(sizeof(NvmManipulator), sizeof(Like));
  EmptyLog();
  const NvmClient client;
  EXPECT_EQ(LogText(), "");
  EXPECT_EQ(client.doc, nullptr);
  EXPECT_EQ(client.address + client.functionName + client.reply, "");
  EXPECT_LT(static_cast<const void*>(&client.doc), static_cast<const void*>(&client.address));
  EXPECT_LT(&client.address, &client.functionName);
  EXPECT_LT(&client.functionName, &client.reply);
}

TEST(NvmClient, FreesItsDocumentAndCleansUpLibxml2EvenWithoutOne) {
  for (const xmlDocPtr document : {xmlDocPtr(nullptr), xmlNewDoc(nullptr)}) {
    const std::string freed = document == nullptr ? "xmlFreeDoc (null)" : "xmlFreeDoc";
    auto client = std::make_unique<NvmClient>();
    client->doc = document;
    ForgetXmlCalls();
    client.reset();
    EXPECT_THAT(XmlCalls(), ElementsAre(freed, "xmlCleanupParser", "xmlMemoryDump"));
  }
}

// --- The packets, and the requests that carry them

const std::string PACKET_HEAD =
    "<?xml version='1.0'?>\n"
    "<!DOCTYPE wddxPacket SYSTEM 'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'>\n"
    "<wddxPacket version='1.0'>\n"
    "<header/>\n";

const std::string STATUS_PACKET = PACKET_HEAD +
                                  "<data/>\n"
                                  "</wddxPacket>";

const std::string ALLOCATE_PACKET =
    PACKET_HEAD +
    "<data>\n"
    "<struct>\n"
    "<var name='DeviceOwner'><string>VEMO_WEB</string></var>\n"
    "<var name='IfhClientIpAddr'><string>0</string></var>\n"
    "<var name='IfhClientTcpPorts'><string>IP_PORT_ANY</string></var>\n"
    "</struct>\n"
    "</data>\n"
    "</wddxPacket>";

const std::string RELEASE_PACKET = PACKET_HEAD +
                                   "<data>\n"
                                   "<struct>\n"
                                   "<var name='DeviceOwner'><string>VEMO_WEB</string></var>\n"
                                   "</struct>\n"
                                   "</data>\n"
                                   "</wddxPacket>";

struct NvmFunction {
  std::string name;
  std::string (NvmManipulator::*makePacket)();
  std::string packet;
  std::string length;
};

const NvmFunction FUNCTIONS[] = {
    {"nvmGetDeviceStatus", &NvmManipulator::GetEmptyPacket, STATUS_PACKET, "165"},
    {"nvmAllocateDevice", &NvmManipulator::GetAllocatePacket, ALLOCATE_PACKET, "365"},
    {"nvmReleaseDevice", &NvmManipulator::GetReleasePacket, RELEASE_PACKET, "247"}};

TEST(NvmRequest, RequestAndPacketAreByteForByteAndLogNothing) {
  EmptyLog();
  for (const auto& [name, makePacket, packet, length] : FUNCTIONS) {
    NvmClient client;
    EXPECT_EQ((client.*makePacket)(), packet);
    client.functionName = name;
    client.reply = "a reply";
    for (const std::string address : {"", "127.0.0.1:80", " not an address %41\t"}) {
      client.address = address;
      EXPECT_EQ((client.*makePacket)(), packet) << "whatever the fields hold";
      EXPECT_EQ(client.BuildRequest(), "GET /nVm?FunctionName=" + name +
                                           " HTTP/1.1\r\n"
                                           "Host: " +
                                           address +
                                           "\r\n"
                                           "Accept: */*\r\n"
                                           "User-Agent: USER_AGENT\r\n"
                                           "Content-type: text/xml\r\n"
                                           "Content-length: " +
                                           length + "\r\n\r\n" + packet);
    }
    EXPECT_EQ(client.reply, "a reply");
  }
  EXPECT_EQ(LogText(), "");
}

TEST(UnknownNvmFunction, GivesNoRequestAndOneErrorLine) {
  for (const std::string& function :
       {""s, "nvmgetDeviceStatus"s, "NvmAllocateDevice"s, "nvmReleasedevice"s, "nvmReleaseDevice "s,
        "nvmAllocateDevices"s, " nvmGetDeviceStatus"s, "nvmGetDeviceStatu"s,
        "nvmGetDeviceStatus\0"s}) {
    SCOPED_TRACE(function);
    EmptyLog();
    NvmClient client;
    client.functionName = function;
    EXPECT_EQ(client.BuildRequest(), "");
    EXPECT_EQ(LogText(), Error(116, "Wrong command"));
  }
}

}  // namespace
