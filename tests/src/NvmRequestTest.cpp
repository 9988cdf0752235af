// What the nVm client is made of, and what it asks the service.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <memory>
#include <type_traits>

#include "NvmClient.h"
#include "WddxSchema.h"
#include "XmlCalls.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char EMPTY_PACKET[] =
    "<?xml version='1.0'?>\n"
    "<!DOCTYPE wddxPacket SYSTEM 'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'>\n"
    "<wddxPacket version='1.0'>\n"
    "<header/>\n"
    "<data/>\n"
    "</wddxPacket>";

constexpr char ALLOCATE_PACKET[] =
    "<?xml version='1.0'?>\n"
    "<!DOCTYPE wddxPacket SYSTEM 'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'>\n"
    "<wddxPacket version='1.0'>\n"
    "<header/>\n"
    "<data>\n"
    "<struct>\n"
    "<var name='DeviceOwner'><string>VEMO_WEB</string></var>\n"
    "<var name='IfhClientIpAddr'><string>0</string></var>\n"
    "<var name='IfhClientTcpPorts'><string>IP_PORT_ANY</string></var>\n"
    "</struct>\n"
    "</data>\n"
    "</wddxPacket>";

constexpr char RELEASE_PACKET[] =
    "<?xml version='1.0'?>\n"
    "<!DOCTYPE wddxPacket SYSTEM 'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'>\n"
    "<wddxPacket version='1.0'>\n"
    "<header/>\n"
    "<data>\n"
    "<struct>\n"
    "<var name='DeviceOwner'><string>VEMO_WEB</string></var>\n"
    "</struct>\n"
    "</data>\n"
    "</wddxPacket>";

class NvmRequest : public testing::Test {
 protected:
  void SetUp() override { EmptyLog(); }

  static std::string RequestFor(const std::string& functionName,
                                const std::string& address = "192.168.0.5") {
    NvmClient client;
    client.functionName = functionName;
    client.address = address;
    return client.BuildRequest();
  }
};

// --- The object

TEST_F(NvmRequest, ANewClientHoldsNothing) {
  const NvmClient client;
  EXPECT_EQ(client.doc, nullptr);
  EXPECT_EQ(client.address, "");
  EXPECT_EQ(client.functionName, "");
  EXPECT_EQ(client.reply, "");
  EXPECT_EQ(LogText(), "");
}

TEST_F(NvmRequest, TheClientIsAVirtualDestructorAndFourFieldsInOrder) {
  struct Like {
    virtual ~Like() = default;
    xmlDocPtr doc;
    std::string address, functionName, reply;
  };
  EXPECT_TRUE(std::has_virtual_destructor_v<NvmManipulator>);
  EXPECT_EQ(sizeof(NvmManipulator), sizeof(Like));
  const NvmClient client;
  EXPECT_LT(static_cast<const void*>(&client.doc), static_cast<const void*>(&client.address));
  EXPECT_LT(&client.address, &client.functionName);
  EXPECT_LT(&client.functionName, &client.reply);
}

TEST_F(NvmRequest, DestructionCleansUpLibxml2EvenWithoutADocument) {
  auto client = std::make_unique<NvmClient>();
  ForgetXmlCalls();
  client.reset();
  EXPECT_THAT(XmlCalls(), ElementsAre("xmlFreeDoc (null)", "xmlCleanupParser", "xmlMemoryDump"));
}

TEST_F(NvmRequest, DestructionFreesTheDocumentFirst) {
  auto client = std::make_unique<NvmClient>();
  client->doc = xmlNewDoc(nullptr);
  ForgetXmlCalls();
  client.reset();
  EXPECT_THAT(XmlCalls(), ElementsAre("xmlFreeDoc", "xmlCleanupParser", "xmlMemoryDump"));
}

// --- The packets

TEST_F(NvmRequest, TheEmptyPacketIsByteForByte) {
  EXPECT_EQ(NvmClient().GetEmptyPacket(), EMPTY_PACKET);
  EXPECT_EQ(NvmClient().GetEmptyPacket().size(), 165u);
}

TEST_F(NvmRequest, TheAllocatePacketIsByteForByte) {
  EXPECT_EQ(NvmClient().GetAllocatePacket(), ALLOCATE_PACKET);
  EXPECT_EQ(NvmClient().GetAllocatePacket().size(), 365u);
}

TEST_F(NvmRequest, TheReleasePacketIsByteForByte) {
  EXPECT_EQ(NvmClient().GetReleasePacket(), RELEASE_PACKET);
  EXPECT_EQ(NvmClient().GetReleasePacket().size(), 247u);
}

TEST_F(NvmRequest, ThePacketsDependOnNoField) {
  NvmClient client;
  client.address = "1.2.3.4";
  client.functionName = "nvmReleaseDevice";
  client.reply = "a reply";
  EXPECT_EQ(client.GetEmptyPacket(), EMPTY_PACKET);
  EXPECT_EQ(client.GetAllocatePacket(), ALLOCATE_PACKET);
  EXPECT_EQ(client.GetReleasePacket(), RELEASE_PACKET);
  EXPECT_EQ(client.reply, "a reply");
}

TEST_F(NvmRequest, AllocateAndReleasePacketsAreValidWddx) {
  EXPECT_THAT(WddxErrors(NvmClient().GetAllocatePacket()), IsEmpty());
  EXPECT_THAT(WddxErrors(NvmClient().GetReleasePacket()), IsEmpty());
}

// The service wants it like that.
TEST_F(NvmRequest, TheEmptyPacketIsValidWddxButForItsEmptyData) {
  EXPECT_THAT(WddxErrors(NvmClient().GetEmptyPacket()),
              ElementsAre(HasSubstr("Element data content does not follow the DTD")));
}

// --- The request

TEST_F(NvmRequest, TheStatusRequestIsByteForByte) {
  EXPECT_EQ(RequestFor("nvmGetDeviceStatus"), std::string("GET /nVm?FunctionName=nvmGetDeviceStatus"
                                                          " HTTP/1.1\r\n"
                                                          "Host: 192.168.0.5\r\n"
                                                          "Accept: */*\r\n"
                                                          "User-Agent: USER_AGENT\r\n"
                                                          "Content-type: text/xml\r\n"
                                                          "Content-length: 165\r\n"
                                                          "\r\n") +
                                                  EMPTY_PACKET);
}

TEST_F(NvmRequest, TheAllocateRequestIsByteForByte) {
  EXPECT_EQ(RequestFor("nvmAllocateDevice"), std::string("GET /nVm?FunctionName=nvmAllocateDevice"
                                                         " HTTP/1.1\r\n"
                                                         "Host: 192.168.0.5\r\n"
                                                         "Accept: */*\r\n"
                                                         "User-Agent: USER_AGENT\r\n"
                                                         "Content-type: text/xml\r\n"
                                                         "Content-length: 365\r\n"
                                                         "\r\n") +
                                                 ALLOCATE_PACKET);
}

TEST_F(NvmRequest, TheReleaseRequestIsByteForByte) {
  EXPECT_EQ(RequestFor("nvmReleaseDevice"), std::string("GET /nVm?FunctionName=nvmReleaseDevice"
                                                        " HTTP/1.1\r\n"
                                                        "Host: 192.168.0.5\r\n"
                                                        "Accept: */*\r\n"
                                                        "User-Agent: USER_AGENT\r\n"
                                                        "Content-type: text/xml\r\n"
                                                        "Content-length: 247\r\n"
                                                        "\r\n") +
                                                RELEASE_PACKET);
}

TEST_F(NvmRequest, TheHostIsTheAddressAsItIs) {
  for (const std::string address : {"", "127.0.0.1:80", " not an address %41\t"}) {
    EXPECT_THAT(RequestFor("nvmGetDeviceStatus", address),
                HasSubstr("\r\nHost: " + address + "\r\nAccept: "));
  }
}

TEST_F(NvmRequest, NoLineFeedFollowsTheLastTag) {
  for (const std::string function :
       {"nvmGetDeviceStatus", "nvmAllocateDevice", "nvmReleaseDevice"}) {
    EXPECT_THAT(RequestFor(function), EndsWith("</wddxPacket>"));
  }
}

TEST_F(NvmRequest, ComposingARequestLogsNothing) {
  RequestFor("nvmReleaseDevice");
  EXPECT_EQ(LogText(), "");
}

// --- Unknown functions

class UnknownNvmFunction : public NvmRequest, public testing::WithParamInterface<std::string> {};

TEST_P(UnknownNvmFunction, GivesNoRequestAndOneErrorLine) {
  EXPECT_EQ(RequestFor(GetParam()), "");
  EXPECT_EQ(LogText(), Error(116, "Wrong command"));
}

INSTANTIATE_TEST_SUITE_P(, UnknownNvmFunction,
                         testing::Values("", "nvmgetDeviceStatus", "NvmAllocateDevice",
                                         "nvmReleasedevice", "nvmGetDeviceStatus ",
                                         "nvmReleaseDevice ", "nvmAllocateDevices",
                                         " nvmGetDeviceStatus", "nvmGetDeviceStatu",
                                         std::string("nvmGetDeviceStatus\0", 19)));

}  // namespace
