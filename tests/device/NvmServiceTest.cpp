// The stand-in device's nVm service: its rules, its replies, its patience.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>

#include "Files.h"
#include "NvmService.h"
#include "Process.h"
#include "Sandbox.h"
#include "Tcp.h"
#include "WddxSchema.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string ADDRESS = "127.0.0.1";

std::string Packet(const std::string& variables) {
  return "<wddxPacket version='1.0'><header/><data><struct>" + variables +
         "</struct></data></wddxPacket>";
}

std::string OwnerPacket(const std::string& owner, const std::string& clientAddress = "0") {
  return Packet("<var name='DeviceOwner'><string>" + owner +
                "</string></var>\n<var name='IfhClientIpAddr'><string>" + clientAddress +
                "</string></var>");
}

std::string RequestFor(const std::string& function, const std::string& body) {
  return "GET /nVm?FunctionName=" + function +
         " HTTP/1.1\r\nContent-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// The whole answer to these bytes.
std::string Send(const std::string& bytes) {
  Connection connection(ADDRESS, NVM_PORT);
  connection.Send(bytes);
  return connection.ReceiveAll();
}

// The body of the answer, which must be a valid packet in a header of the usual form.
std::string Ask(const std::string& function, const std::string& packet) {
  const std::string answer = Send(RequestFor(function, packet));
  const std::string body = answer.substr(std::min(answer.find("<?xml"), answer.size()));
  EXPECT_EQ(answer, "HTTP/1.1 200 OK\r\ncontent-type: text/xml\r\ncontent-length: " +
                        std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_THAT(WddxErrors(body), IsEmpty());
  return body;
}

class NvmServiceTest : public testing::Test {
 protected:
  NvmService service_;
};

// --- Who holds the device

TEST_F(NvmServiceTest, InTheBeginningTheDeviceIsFree) {
  EXPECT_EQ(Ask("nvmGetDeviceStatus", Packet("")), NvmReply("0", "", "", "0", ""));
}

TEST_F(NvmServiceTest, AFreeDeviceIsGivenToWhoeverAsks) {
  EXPECT_EQ(Ask("nvmAllocateDevice", OwnerPacket("GARAGE", "10.0.0.7")),
            NvmReply("1", "GARAGE", "10.0.0.7", "0", ""));
  EXPECT_EQ(Ask("nvmGetDeviceStatus", Packet("")), NvmReply("1", "GARAGE", "10.0.0.7", "0", ""));
}

TEST_F(NvmServiceTest, AnAllocatedDeviceIsRefusedToAnotherOwner) {
  Ask("nvmAllocateDevice", OwnerPacket("GARAGE"));
  EXPECT_EQ(Ask("nvmAllocateDevice", OwnerPacket("VEMO_WEB")),
            NvmReply("1", "GARAGE", "0", "1", "Device is allocated by GARAGE"));
}

TEST_F(NvmServiceTest, AnOwnerMayAllocateAgain) {
  Ask("nvmAllocateDevice", OwnerPacket("GARAGE", "10.0.0.7"));
  EXPECT_EQ(Ask("nvmAllocateDevice", OwnerPacket("GARAGE", "10.0.0.8")),
            NvmReply("1", "GARAGE", "10.0.0.8", "0", ""));
}

TEST_F(NvmServiceTest, ADeviceIsReleasedByItsOwner) {
  Ask("nvmAllocateDevice", OwnerPacket("GARAGE"));
  EXPECT_EQ(Ask("nvmReleaseDevice", OwnerPacket("GARAGE")), NvmReply("0", "", "", "0", ""));
}

TEST_F(NvmServiceTest, ADeviceIsNotReleasedBySomebodyElse) {
  Ask("nvmAllocateDevice", OwnerPacket("GARAGE"));
  EXPECT_EQ(Ask("nvmReleaseDevice", OwnerPacket("VEMO_WEB")),
            NvmReply("1", "GARAGE", "0", "1", "Device is allocated by GARAGE"));
}

TEST_F(NvmServiceTest, AFreeDeviceCannotBeReleased) {
  EXPECT_EQ(Ask("nvmReleaseDevice", OwnerPacket("VEMO_WEB")),
            NvmReply("0", "", "", "2", "Device is not allocated"));
}

TEST_F(NvmServiceTest, AnOwnerMustHaveAName) {
  EXPECT_EQ(Ask("nvmAllocateDevice", Packet("")),
            NvmReply("0", "", "", "3", "No device owner given"));
}

TEST_F(NvmServiceTest, TextsAreEscapedInTheReply) {
  EXPECT_EQ(Ask("nvmAllocateDevice", OwnerPacket("&lt;A&amp;B&gt;")),
            NvmReply("1", "&lt;A&amp;B&gt;", "0", "0", ""));
}

// --- Requests of another shape

TEST_F(NvmServiceTest, AnUnknownFunctionIsRefused) {
  EXPECT_EQ(Ask("nvmSellDevice", Packet("")),
            NvmReply("0", "", "", "5", "Unknown function nvmSellDevice"));
  EXPECT_EQ(Ask("", Packet("")), NvmReply("0", "", "", "5", "Unknown function "));
}

TEST_F(NvmServiceTest, ARequestWithoutAPacketIsRefused) {
  const std::string refusal = NvmReply("0", "", "", "4", "Request is no WDDX packet");
  EXPECT_EQ(Ask("nvmGetDeviceStatus", ""), refusal);
  EXPECT_EQ(Ask("nvmGetDeviceStatus", "no XML"), refusal);
  EXPECT_EQ(Ask("nvmGetDeviceStatus", "<wddxPacket/>"), refusal);
}

TEST_F(NvmServiceTest, ACommonHttpClientIsServed) {
  const Result result = Execute(
      {{"/usr/bin/curl", "--silent", "--show-error", "-X", "GET", "-d", OwnerPacket("GARAGE"),
        "http://127.0.0.1:5302/nVm?FunctionName=nvmAllocateDevice"}});
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.output, NvmReply("1", "GARAGE", "0", "0", ""));
}

TEST_F(NvmServiceTest, ARequestWithoutALengthHasNoBody) {
  EXPECT_THAT(Send("GET /nVm?FunctionName=nvmGetDeviceStatus HTTP/1.1\r\n\r\n"),
              HasSubstr("Request is no WDDX packet"));
}

TEST_F(NvmServiceTest, BytesBehindTheBodyAreIgnored) {
  EXPECT_THAT(Send(RequestFor("nvmAllocateDevice", OwnerPacket("GARAGE")) + "<more/>"),
              HasSubstr("<string>GARAGE</string>"));
}

TEST_F(NvmServiceTest, AnExternalEntityIsNotLoaded) {
  WriteText("/tmp/secret.txt", "secret");
  const std::string answer =
      Ask("nvmAllocateDevice", "<!DOCTYPE wddxPacket [<!ENTITY e SYSTEM '/tmp/secret.txt'>]>" +
                                   OwnerPacket("GARAGE", "&e;"));
  EXPECT_EQ(answer, NvmReply("1", "GARAGE", "", "0", ""));
}

// --- Clients that misbehave: the next one is served all the same

class NvmServiceBeside : public NvmServiceTest {
 protected:
  static void ExpectOthersAreServed() {
    EXPECT_EQ(Ask("nvmGetDeviceStatus", Packet("")), FreeReply());
  }
};

TEST_F(NvmServiceBeside, SilentClients) {
  const Connection first(ADDRESS, NVM_PORT);
  const Connection second(ADDRESS, NVM_PORT);
  const Connection third(ADDRESS, NVM_PORT);
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, ASlowClientWhoIsServedInTheEnd) {
  Connection slow(ADDRESS, NVM_PORT);
  const std::string request = RequestFor("nvmGetDeviceStatus", Packet(""));
  for (std::size_t i = 0; i < request.size(); ++i) {
    slow.Send(request.substr(i, 1));
    if (i % 50 == 0) {
      ExpectOthersAreServed();
    }
  }
  EXPECT_THAT(slow.ReceiveAll(), testing::EndsWith(FreeReply()));
}

TEST_F(NvmServiceBeside, ClientsThatGoAwayEarly) {
  { const Connection silent(ADDRESS, NVM_PORT); }
  {
    Connection hasty(ADDRESS, NVM_PORT);
    hasty.Send("GET /nVm?FunctionName=nvmGetDev");
  }
  {
    Connection deaf(ADDRESS, NVM_PORT);
    deaf.Send(RequestFor("nvmGetDeviceStatus", Packet("")));
  }
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, AClientWhoIsGoneWhenItIsAnswered) {
  SKIP_WHERE_TRACED("a traced service does not stop when told to");
  // The service sleeps until the client has gone.
  const std::string state = "/proc/" + std::to_string(service_.Id()) + "/status";
  kill(service_.Id(), SIGSTOP);
  ASSERT_TRUE(Eventually([&] { return ReadText(state).find("\nState:\tT") != std::string::npos; }));
  Connection client(ADDRESS, NVM_PORT);
  client.Send(RequestFor("nvmGetDeviceStatus", Packet("")));
  client.Reset();
  kill(service_.Id(), SIGCONT);
  ExpectOthersAreServed();
  EXPECT_TRUE(Eventually([] { return NvmServiceStatements().size() == 2; }));
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, AClientWhoseRequestIsNone) {
  Connection client(ADDRESS, NVM_PORT);
  client.Send(std::string("\0\xFF\r\n\r\n", 6));
  EXPECT_THAT(client.ReceiveAll(), HasSubstr("Request is no WDDX packet"));
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, AClientWhoseHeadHasNoEnd) {
  EXPECT_THAT(Send(std::string(64 * 1024, 'x')), HasSubstr("Request is no WDDX packet"));
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, AClientWhoAnnouncesTheImpossible) {
  for (const std::string length : {"-1", "99999999999999999999999", "x"}) {
    Connection client(ADDRESS, NVM_PORT);
    client.Send("GET /nVm?FunctionName=nvmGetDeviceStatus HTTP/1.1\r\nContent-Length: " + length +
                "\r\n\r\n" + Packet(""));
    ExpectOthersAreServed();
  }
}

TEST_F(NvmServiceBeside, ADozenClientsAtOnce) {
  std::vector<std::unique_ptr<Connection>> clients;
  for (int i = 0; i < 12; ++i) {
    clients.push_back(std::make_unique<Connection>(ADDRESS, NVM_PORT));
    clients.back()->Send(RequestFor("nvmGetDeviceStatus", Packet("")));
  }
  for (const auto& client : clients) {
    EXPECT_THAT(client->ReceiveAll(), testing::EndsWith(FreeReply()));
  }
}

// --- The log

TEST_F(NvmServiceTest, LogsEachRequestAndRefusalsAsErrors) {
  Ask("nvmAllocateDevice", OwnerPacket("GARAGE"));
  Ask("nvmAllocateDevice", OwnerPacket("VEMO_WEB"));
  Ask("nvmGetDeviceStatus", Packet(""));
  Ask("nvmReleaseDevice", OwnerPacket("GARAGE"));
  Ask("nvmSellDevice", "");
  EXPECT_THAT(NvmServiceStatements(),
              ElementsAre("INFO nvmAllocateDevice: 0 ; owner now: GARAGE",
                          "ERROR nvmAllocateDevice: 1 Device is allocated by GARAGE; "
                          "owner now: GARAGE",
                          "INFO nvmGetDeviceStatus: 0 ; owner now: GARAGE",
                          "INFO nvmReleaseDevice: 0 ; owner now: nobody",
                          "ERROR nvmSellDevice: 4 Request is no WDDX packet; owner now: nobody"));
}

// --- Beginning and end

TEST_F(NvmServiceTest, EndsOnATerminationSignal) {
  EXPECT_EQ(service_.End(SIGTERM).signal, SIGTERM);
  EXPECT_FALSE(IsListening(ADDRESS, NVM_PORT));
}

TEST_F(NvmServiceTest, ASecondServiceDoesNotStart) {
  const Result result = Execute({{"/build/device/bin/nvm-service"}});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.error, "nvm-service: can't listen on 127.0.0.1:5302: Address already in use\n");
}

TEST_F(NvmServiceTest, AServiceOnAnotherAddressMayRunBeside) {
  const NvmService other("127.0.0.2");
  Ask("nvmAllocateDevice", OwnerPacket("GARAGE"));
  Connection client("127.0.0.2", NVM_PORT);
  client.Send(RequestFor("nvmGetDeviceStatus", Packet("")));
  EXPECT_THAT(client.ReceiveAll(), testing::EndsWith(FreeReply()));
}

TEST(NvmServiceStart, ARestartedServiceListensAtOnce) {
  {
    NvmService first;
    Ask("nvmGetDeviceStatus", Packet(""));
  }
  const NvmService second;
  EXPECT_EQ(Ask("nvmGetDeviceStatus", Packet("")), FreeReply());
}

TEST(NvmServiceStart, AMalformedAddressIsRefused) {
  const Result result = Execute({{"/build/device/bin/nvm-service", "here"}});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.error, "nvm-service: can't listen on here:5302: Invalid argument\n");
}

}  // namespace
