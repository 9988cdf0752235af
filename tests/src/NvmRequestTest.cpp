// What the nVm client is made of, and what it asks the service.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <filesystem>
#include <memory>
#include <type_traits>

#include "Files.h"
#include "NvmClient.h"
#include "Process.h"
#include "Tcp.h"
#include "WddxSchema.h"
#include "XmlCalls.h"

namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string RequestFor(const std::string& functionName,
                       const std::string& address = "192.168.0.5") {
  NvmClient client;
  client.functionName = functionName;
  client.address = address;
  return client.BuildRequest();
}

// --- The object

TEST(NvmClient, HoldsNothingAtFirst) {
  EmptyLog();
  const NvmClient client;
  EXPECT_EQ(client.doc, nullptr);
  EXPECT_EQ(client.address, "");
  EXPECT_EQ(client.functionName, "");
  EXPECT_EQ(client.reply, "");
  EXPECT_EQ(LogText(), "");
}

TEST(NvmClient, IsAVirtualDestructorAndFourFieldsInOrder) {
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

constexpr char STATUS_PACKET[] =
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

struct NvmFunction {
  const char* name;
  std::string (NvmManipulator::*makePacket)();
  const char* packet;
  const char* length;

  friend std::ostream& operator<<(std::ostream& out, const NvmFunction& row) {
    return out << row.name;
  }
};

const NvmFunction FUNCTIONS[] = {
    {"nvmGetDeviceStatus", &NvmManipulator::GetEmptyPacket, STATUS_PACKET, "165"},
    {"nvmAllocateDevice", &NvmManipulator::GetAllocatePacket, ALLOCATE_PACKET, "365"},
    {"nvmReleaseDevice", &NvmManipulator::GetReleasePacket, RELEASE_PACKET, "247"}};

class NvmRequest : public testing::TestWithParam<NvmFunction> {};

TEST_P(NvmRequest, PacketIsByteForByteWhateverTheFieldsHold) {
  NvmClient client;
  EXPECT_EQ((client.*GetParam().makePacket)(), GetParam().packet);
  client.address = "1.2.3.4";
  client.functionName = "nvmReleaseDevice";
  client.reply = "a reply";
  EXPECT_EQ((client.*GetParam().makePacket)(), GetParam().packet);
  EXPECT_EQ(client.reply, "a reply");
}

TEST_P(NvmRequest, RequestIsByteForByteAndLogsNothing) {
  EmptyLog();
  EXPECT_EQ(RequestFor(GetParam().name), std::string("GET /nVm?FunctionName=") + GetParam().name +
                                             " HTTP/1.1\r\n"
                                             "Host: 192.168.0.5\r\n"
                                             "Accept: */*\r\n"
                                             "User-Agent: USER_AGENT\r\n"
                                             "Content-type: text/xml\r\n"
                                             "Content-length: " +
                                             GetParam().length + "\r\n\r\n" + GetParam().packet);
  EXPECT_EQ(LogText(), "");
}

// An HTTP server that is not ours.
TEST_P(NvmRequest, IsUnderstoodByAForeignServer) {
  constexpr char REQUEST_FILE[] = "/tmp/http-request.txt";
  std::filesystem::remove(REQUEST_FILE);
  Command command;
  command.words = {"/usr/bin/python3", "/source/tests/support/HttpServer.py", "127.0.0.2", "5302",
                   REQUEST_FILE};
  const BackgroundProcess server(command);
  ASSERT_TRUE(Eventually([] { return IsListening("127.0.0.2", NVM_PORT); }));

  std::string reply;
  EXPECT_EQ(NvmClient().SendToNvm("127.0.0.2", GetParam().name, reply), 0);
  EXPECT_EQ(reply, "<?xml version='1.0'?><answer/>");
  EXPECT_EQ(ReadText(REQUEST_FILE), std::string("method: GET\n"
                                                "path: /nVm\n"
                                                "query: FunctionName=") +
                                        GetParam().name +
                                        "\n"
                                        "version: HTTP/1.1\n"
                                        "header Host: 127.0.0.2\n"
                                        "header Accept: */*\n"
                                        "header User-Agent: USER_AGENT\n"
                                        "header Content-type: text/xml\n"
                                        "header Content-length: " +
                                        GetParam().length + "\nbody: " + GetParam().packet +
                                        "\nleft over: 0\n");
}

INSTANTIATE_TEST_SUITE_P(, NvmRequest, testing::ValuesIn(FUNCTIONS),
                         [](const auto& function) { return function.param.name; });

// The service wants the status packet like that.
TEST(NvmPacket, IsValidWddxButForTheStatusPacketsEmptyData) {
  EXPECT_THAT(WddxErrors(ALLOCATE_PACKET), IsEmpty());
  EXPECT_THAT(WddxErrors(RELEASE_PACKET), IsEmpty());
  EXPECT_THAT(WddxErrors(STATUS_PACKET),
              ElementsAre(HasSubstr("Element data content does not follow the DTD")));
}

TEST(NvmHost, IsTheAddressAsItIs) {
  for (const std::string address : {"", "127.0.0.1:80", " not an address %41\t"}) {
    EXPECT_THAT(RequestFor("nvmGetDeviceStatus", address),
                HasSubstr("\r\nHost: " + address + "\r\nAccept: "));
  }
}

TEST(UnknownNvmFunction, GivesNoRequestAndOneErrorLine) {
  for (const std::string& function :
       {""s, "nvmgetDeviceStatus"s, "NvmAllocateDevice"s, "nvmReleasedevice"s,
        "nvmGetDeviceStatus "s, "nvmReleaseDevice "s, "nvmAllocateDevices"s, " nvmGetDeviceStatus"s,
        "nvmGetDeviceStatu"s, "nvmGetDeviceStatus\0"s}) {
    SCOPED_TRACE(function);
    EmptyLog();
    EXPECT_EQ(RequestFor(function), "");
    EXPECT_EQ(LogText(), Error(116, "Wrong command"));
  }
}

}  // namespace
