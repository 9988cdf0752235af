// The stand-in device's nVm service: its rules, its replies, its patience.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
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

std::string Packet(const std::string& variables) {
  return "<wddxPacket version='1.0'><header/><data><struct>" + variables +
         "</struct></data></wddxPacket>";
}

// A request as the program's client writes it: its first line, its headers, its body.
struct HttpRequest {
  std::string method = "GET";
  std::string path = "/nVm?FunctionName=nvmGetDeviceStatus";
  std::string host = "127.0.0.1";
  std::string type = "text/xml";
  std::string more = {};  // headers, line ends included
  std::string body = Packet("");
};

std::string Text(const HttpRequest& request) {
  return request.method + " " + request.path + " HTTP/1.1\r\nHost: " + request.host +
         "\r\nAccept: */*\r\nUser-Agent: USER_AGENT\r\nContent-type: " + request.type +
         "\r\nContent-length: " + std::to_string(request.body.size()) + "\r\n" + request.more +
         "\r\n" + request.body;
}

// The whole answer to these bytes.
std::string Send(const std::string& bytes) {
  Connection connection(NVM_ADDRESS, NVM_PORT);
  connection.Send(bytes);
  return connection.ReceiveAll();
}

// The body of the answer, which must be a valid packet in a header of the usual form.
std::string Ask(const std::string& function, const std::string& packet) {
  const std::string answer = Send(NvmRequest(function, packet));
  const std::string body = answer.substr(std::min(answer.find("<?xml"), answer.size()));
  EXPECT_EQ(Undated(answer), NvmHttpReply(body));
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
  EXPECT_EQ(Ask("nvmAllocateDevice", NvmOwnerPacket("GARAGE", "10.0.0.7")),
            NvmReply("1", "GARAGE", "10.0.0.7", "0", ""));
  EXPECT_EQ(Ask("nvmGetDeviceStatus", Packet("")), NvmReply("1", "GARAGE", "10.0.0.7", "0", ""));
}

TEST_F(NvmServiceTest, AnAllocatedDeviceIsRefusedToAnotherOwner) {
  Ask("nvmAllocateDevice", NvmOwnerPacket("GARAGE"));
  EXPECT_EQ(Ask("nvmAllocateDevice", NvmOwnerPacket("VEMO_WEB")),
            NvmReply("1", "GARAGE", "0", "1", "Device is allocated by GARAGE"));
}

TEST_F(NvmServiceTest, AnOwnerMayAllocateAgain) {
  Ask("nvmAllocateDevice", NvmOwnerPacket("GARAGE", "10.0.0.7"));
  EXPECT_EQ(Ask("nvmAllocateDevice", NvmOwnerPacket("GARAGE", "10.0.0.8")),
            NvmReply("1", "GARAGE", "10.0.0.8", "0", ""));
}

TEST_F(NvmServiceTest, ADeviceIsReleasedByItsOwner) {
  Ask("nvmAllocateDevice", NvmOwnerPacket("GARAGE"));
  EXPECT_EQ(Ask("nvmReleaseDevice", NvmOwnerPacket("GARAGE")), NvmReply("0", "", "", "0", ""));
}

TEST_F(NvmServiceTest, ADeviceIsNotReleasedBySomebodyElse) {
  Ask("nvmAllocateDevice", NvmOwnerPacket("GARAGE"));
  EXPECT_EQ(Ask("nvmReleaseDevice", NvmOwnerPacket("VEMO_WEB")),
            NvmReply("1", "GARAGE", "0", "1", "Device is allocated by GARAGE"));
}

TEST_F(NvmServiceTest, AFreeDeviceCannotBeReleased) {
  EXPECT_EQ(Ask("nvmReleaseDevice", NvmOwnerPacket("VEMO_WEB")),
            NvmReply("0", "", "", "2", "Device is not allocated"));
}

TEST_F(NvmServiceTest, AnOwnerMustHaveAName) {
  EXPECT_EQ(Ask("nvmAllocateDevice", Packet("")),
            NvmReply("0", "", "", "3", "No device owner given"));
}

TEST_F(NvmServiceTest, TextsAreEscapedInTheReply) {
  EXPECT_EQ(Ask("nvmAllocateDevice", NvmOwnerPacket("&lt;A&amp;B&gt;")),
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
      {{"/usr/bin/curl", "--silent", "--show-error", "--compressed", "-X", "GET", "-d",
        NvmOwnerPacket("GARAGE"), "http://127.0.0.1:5302/nVm?FunctionName=nvmAllocateDevice"}});
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.output, NvmReply("1", "GARAGE", "0", "0", ""));
}

TEST_F(NvmServiceTest, BytesBehindTheBodyAreIgnored) {
  EXPECT_THAT(Send(NvmRequest("nvmAllocateDevice", NvmOwnerPacket("GARAGE")) + "<more/>"),
              HasSubstr("<string>GARAGE</string>"));
}

TEST_F(NvmServiceTest, AnExternalEntityIsRefused) {
  WriteText("/tmp/secret.txt", "secret");
  EXPECT_EQ(
      Ask("nvmAllocateDevice", "<!DOCTYPE wddxPacket [<!ENTITY e SYSTEM '/tmp/secret.txt'>]>" +
                                   NvmOwnerPacket("GARAGE", "&e;")),
      NvmReply("0", "", "", "4", "Request is no WDDX packet"));
}

TEST_F(NvmServiceTest, APacketIsReadAsUtf8WhateverItSays) {
  EXPECT_EQ(Ask("nvmAllocateDevice", "<?xml version='1.0' encoding='ISO-2022-CN-EXT'?>" +
                                         NvmOwnerPacket("M\xC3\xBCLLER")),
            NvmReply("1", "M\xC3\xBCLLER", "0", "0", ""));
}

TEST_F(NvmServiceTest, TheDocumentTypeIsNotLoaded) {
  WriteText("/tmp/packet.dtd", "<!ENTITY e 'secret'>");
  EXPECT_EQ(Ask("nvmAllocateDevice",
                "<!DOCTYPE wddxPacket SYSTEM '/tmp/packet.dtd'>" + NvmOwnerPacket("GARAGE", "&e;")),
            NvmReply("1", "GARAGE", "", "0", ""));
}

TEST_F(NvmServiceTest, AnEntityIsRefused) {
  EXPECT_EQ(Ask("nvmAllocateDevice",
                "<!DOCTYPE wddxPacket [<!ENTITY e 'GARAGE'>]>" + NvmOwnerPacket("&e;")),
            NvmReply("0", "", "", "4", "Request is no WDDX packet"));
}

// --- Requests that no client of the service sends, but a web page could

class NvmServiceRefuses : public NvmServiceTest {
 protected:
  // The request to release the device is refused with the status, and nothing else.
  static void ExpectRefused(HttpRequest request, const std::string& status,
                            const std::string& more = "") {
    Ask("nvmAllocateDevice", NvmOwnerPacket("GARAGE"));
    if (request.path == HttpRequest().path) {
      request.path = "/nVm?FunctionName=nvmReleaseDevice";
    }
    if (request.body == HttpRequest().body) {
      request.body = NvmOwnerPacket("GARAGE");
    }
    EXPECT_EQ(Undated(Send(Text(request))),
              "HTTP/1.1 " + status +
                  "\r\nConnection: close\r\ncontent-type: text/xml\r\ncontent-length: 0\r\n" +
                  more + "Content-Length: 0\r\n\r\n");
    EXPECT_THAT(NvmServiceStatements().back(), HasSubstr(": refused with " + status.substr(0, 3)));
    EXPECT_EQ(Ask("nvmGetDeviceStatus", Packet("")), NvmReply("1", "GARAGE", "0", "0", ""));
  }
};

TEST_F(NvmServiceRefuses, AForeignForm) {
  HttpRequest form;
  form.method = "POST";
  form.type = "text/plain";
  ExpectRefused(form, "405 Method Not Allowed", "allow: GET\r\n");
}

TEST_F(NvmServiceRefuses, AFormThatCarriesARequestOfItsOwn) {
  HttpRequest form;
  form.method = "POST";
  form.type = "text/plain";
  form.body = NvmRequest("nvmReleaseDevice", NvmOwnerPacket("GARAGE"));
  ExpectRefused(form, "405 Method Not Allowed", "allow: GET\r\n");
}

TEST_F(NvmServiceRefuses, EveryOtherMethod) {
  for (const std::string method : {"PUT", "DELETE", "OPTIONS", "PATCH", "get"}) {
    HttpRequest request;
    request.method = method;
    ExpectRefused(request, "405 Method Not Allowed", "allow: GET\r\n");
  }
}

TEST_F(NvmServiceRefuses, EveryOtherPath) {
  for (const std::string path :
       {"/", "/nvm?FunctionName=nvmReleaseDevice", "/nVm/?FunctionName=nvmReleaseDevice"}) {
    HttpRequest request;
    request.path = path;
    ExpectRefused(request, "404 Not Found");
  }
}

TEST_F(NvmServiceRefuses, EveryOtherParameter) {
  for (const std::string path : {"/nVm", "/nVm?", "/nVm?FunctionName", "/nVm?Function=x",
                                 "/nVm?FunctionName=nvmReleaseDevice&FunctionName=x"}) {
    HttpRequest request;
    request.path = path;
    ExpectRefused(request, "400 Bad Request");
  }
}

TEST_F(NvmServiceRefuses, WhatABrowserAdds) {
  for (const std::string header :
       {"Origin: http://127.0.0.1:5302", "Origin: null", "Referer: http://127.0.0.1/",
        "Sec-Fetch-Site: none", "Sec-Purpose: prefetch", "Purpose: prefetch", "Upgrade: websocket",
        "Accept-Language: de", "Upgrade-Insecure-Requests: 1", "Cookie: a=b", "X-Any: 1",
        "Content-type: text/xml"}) {
    HttpRequest request;
    request.more = header + "\r\n";
    ExpectRefused(request, "403 Forbidden");
  }
}

TEST_F(NvmServiceRefuses, EveryOtherHost) {
  for (const std::string host :
       {"localhost", "127.0.0.2", "vemo.example", "127.0.0.1:80", "[::1]", "127.0.0.1.example"}) {
    HttpRequest request;
    request.host = host;
    ExpectRefused(request, "403 Forbidden");
  }
}

// What a browser does send without a page's help: a link, an image.
TEST_F(NvmServiceTest, AGetWithoutABodyIsNoOrder) {
  EXPECT_THAT(Send("GET /nVm?FunctionName=nvmAllocateDevice HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"),
              HasSubstr("Request is no WDDX packet"));
}

TEST_F(NvmServiceTest, ABodyInChunksIsRefused) {
  HttpRequest request;
  request.more = "Transfer-Encoding: chunked\r\n";
  EXPECT_THAT(Send(Text(request)), testing::StartsWith("HTTP/1.1 4"));
}

TEST_F(NvmServiceTest, ARequestThatWaitsForLeaveIsRefused) {
  HttpRequest request;
  request.more = "Expect: 100-continue\r\n";
  EXPECT_THAT(Send(Text(request)), HasSubstr("HTTP/1.1 403 "));
}

TEST_F(NvmServiceTest, ABodyBeyondTheLimitIsRefused) {
  const std::string request = NvmRequest("nvmGetDeviceStatus", std::string(4097, ' '));
  EXPECT_THAT(Send(request.substr(0, request.find("\r\n\r\n") + 4)),
              testing::StartsWith("HTTP/1.1 413 "));
  EXPECT_THAT(Send(NvmRequest("nvmGetDeviceStatus", Packet("") + std::string(3000, ' '))),
              testing::EndsWith(FreeReply()));
}

// --- Clients that misbehave: the next one is served all the same

class NvmServiceBeside : public NvmServiceTest {
 protected:
  static void ExpectOthersAreServed() {
    EXPECT_EQ(Ask("nvmGetDeviceStatus", Packet("")), FreeReply());
  }
};

TEST_F(NvmServiceBeside, SilentClients) {
  const Connection first(NVM_ADDRESS, NVM_PORT);
  const Connection second(NVM_ADDRESS, NVM_PORT);
  const Connection third(NVM_ADDRESS, NVM_PORT);
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, ASlowClientWhoIsServedInTheEnd) {
  Connection slow(NVM_ADDRESS, NVM_PORT);
  const std::string request = NvmRequest("nvmGetDeviceStatus", Packet(""));
  for (std::size_t i = 0; i < request.size(); ++i) {
    slow.Send(request.substr(i, 1));
    if (i % 50 == 0) {
      ExpectOthersAreServed();
    }
  }
  EXPECT_THAT(slow.ReceiveAll(), testing::EndsWith(FreeReply()));
}

TEST_F(NvmServiceBeside, ClientsThatGoAwayEarly) {
  { const Connection silent(NVM_ADDRESS, NVM_PORT); }
  {
    Connection hasty(NVM_ADDRESS, NVM_PORT);
    hasty.Send("GET /nVm?FunctionName=nvmGetDev");
  }
  {
    Connection deaf(NVM_ADDRESS, NVM_PORT);
    deaf.Send(NvmRequest("nvmGetDeviceStatus", Packet("")));
  }
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, AClientWhoIsGoneWhenItIsAnswered) {
  SKIP_WHERE_TRACED("a traced service does not stop when told to");
  // The service sleeps until the client has gone.
  const std::string state = "/proc/" + std::to_string(service_.Id()) + "/status";
  kill(service_.Id(), SIGSTOP);
  ASSERT_TRUE(Eventually([&] { return ReadText(state).find("\nState:\tT") != std::string::npos; }));
  {
    Connection reset(NVM_ADDRESS, NVM_PORT);
    reset.Send(NvmRequest("nvmGetDeviceStatus", Packet("")));
    reset.Reset();
    Connection closed(NVM_ADDRESS, NVM_PORT);
    closed.Send(NvmRequest("nvmGetDeviceStatus", Packet("")));
  }
  kill(service_.Id(), SIGCONT);
  ExpectOthersAreServed();
  EXPECT_TRUE(Eventually([] { return NvmServiceStatements().size() == 2; }));
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, AClientWhoseRequestIsNone) {
  for (const std::string& request :
       {std::string("\0\xFF\r\n\r\n", 6), std::string("\r\n\r\n\r\n"), std::string("GET\r\n\r\n"),
        std::string("GET  HTTP/1.1\r\n:\r\n\r\n")}) {
    Connection client(NVM_ADDRESS, NVM_PORT);
    client.Send(request);
    ExpectOthersAreServed();
  }
}

TEST_F(NvmServiceBeside, AClientWhoseHeadHasNoEnd) {
  Connection client(NVM_ADDRESS, NVM_PORT);
  client.Send(std::string(65536, 'x'));
  ExpectOthersAreServed();
  EXPECT_TRUE(client.HasEnded());
}

TEST_F(NvmServiceBeside, ClientsWhoseTimeIsUp) {
  Connection silent(NVM_ADDRESS, NVM_PORT);
  Connection slow(NVM_ADDRESS, NVM_PORT);
  slow.Send("GET /nVm?FunctionName=");
  // As long as it sends, but for a bounded time.
  EXPECT_TRUE(Eventually([&] {
    slow.Send("x");
    return slow.HasEnded(200);
  }));
  EXPECT_TRUE(silent.HasEnded());
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, MoreSilentClientsThanAreServedAtOnce) {
  std::vector<std::unique_ptr<Connection>> clients;
  for (int i = 0; i < 300; ++i) {
    clients.push_back(std::make_unique<Connection>(NVM_ADDRESS, NVM_PORT));
  }
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, AClientWhoAnnouncesTheImpossible) {
  for (const std::string length : {"-1", "99999999999999999999999", "x"}) {
    Connection client(NVM_ADDRESS, NVM_PORT);
    client.Send(
        "GET /nVm?FunctionName=nvmGetDeviceStatus HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: */*\r\n"
        "User-Agent: USER_AGENT\r\nContent-type: text/xml\r\nContent-length: " +
        length + "\r\n\r\n" + Packet(""));
    EXPECT_THAT(client.ReceiveAll(), testing::StartsWith("HTTP/1.1 4"));
    ExpectOthersAreServed();
  }
}

TEST_F(NvmServiceBeside, ADozenClientsAtOnce) {
  std::vector<std::unique_ptr<Connection>> clients;
  for (int i = 0; i < 12; ++i) {
    clients.push_back(std::make_unique<Connection>(NVM_ADDRESS, NVM_PORT));
    clients.back()->Send(NvmRequest("nvmGetDeviceStatus", Packet("")));
  }
  for (const auto& client : clients) {
    EXPECT_THAT(client->ReceiveAll(), testing::EndsWith(FreeReply()));
  }
}

// --- The log

TEST_F(NvmServiceTest, LogsEachRequestAndRefusalsAsErrors) {
  Ask("nvmAllocateDevice", NvmOwnerPacket("GARAGE"));
  Ask("nvmAllocateDevice", NvmOwnerPacket("VEMO_WEB"));
  Ask("nvmGetDeviceStatus", Packet(""));
  Ask("nvmReleaseDevice", NvmOwnerPacket("GARAGE"));
  Ask("nvmSellDevice", "");
  EXPECT_THAT(NvmServiceStatements(),
              ElementsAre("INFO nvmAllocateDevice: 0 ; owner now: GARAGE",
                          "ERROR nvmAllocateDevice: 1 Device is allocated by GARAGE; "
                          "owner now: GARAGE",
                          "INFO nvmGetDeviceStatus: 0 ; owner now: GARAGE",
                          "INFO nvmReleaseDevice: 0 ; owner now: nobody",
                          "ERROR nvmSellDevice: 4 Request is no WDDX packet; owner now: nobody"));
}

TEST_F(NvmServiceTest, ANameForgesNoLogLine) {
  Ask("nvm%0D%0AForged", Packet(""));
  Ask("nvmAllocateDevice", NvmOwnerPacket("A&#10;B&#13;\xC2\x85\\"));
  EXPECT_THAT(NvmServiceStatements(),
              ElementsAre("ERROR nvm\\x0D\\x0AForged: 5 Unknown function nvm\\x0D\\x0AForged; "
                          "owner now: nobody",
                          "INFO nvmAllocateDevice: 0 ; owner now: A\\x0AB\\x0D\\xC2\\x85\\"));
}

TEST_F(NvmServiceTest, ALongNameIsShortened) {
  const std::string shortened = std::string(100, 'f') + "...";
  EXPECT_EQ(Ask(std::string(3000, 'f'), Packet("")),
            NvmReply("0", "", "", "5", "Unknown function " + shortened));
  Ask("nvmAllocateDevice", NvmOwnerPacket(std::string(3000, 'o')));
  EXPECT_THAT(NvmServiceStatements().back(),
              testing::EndsWith("owner now: " + std::string(100, 'o') + "..."));
}

TEST_F(NvmServiceTest, LogsToANewFileAfterARename) {
  Ask("nvmGetDeviceStatus", Packet(""));
  std::filesystem::rename(NVM_SERVICE_LOG_FILE, "/tmp/nvm.log.1");
  Ask("nvmReleaseDevice", Packet(""));
  EXPECT_THAT(NvmServiceStatements(),
              ElementsAre("ERROR nvmReleaseDevice: 2 Device is not allocated; owner now: nobody"));
  EXPECT_EQ(Lines(ReadText("/tmp/nvm.log.1")).size(), 1);
  // The file that a log rotation has made itself.
  std::filesystem::rename(NVM_SERVICE_LOG_FILE, "/tmp/nvm.log.1");
  WriteText(NVM_SERVICE_LOG_FILE, "");
  Ask("nvmGetDeviceStatus", Packet(""));
  EXPECT_EQ(NvmServiceStatements().size(), 1);
}

class NvmServiceLog : public testing::Test {
 protected:
  static constexpr char SAID[] = "/tmp/nvm.said";  // on standard error
  NvmService service_{
      NVM_ADDRESS,
      [] { dup2(open(SAID, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO); }};
};

// Nothing is opened anew: it could not be.
TEST_F(NvmServiceLog, StaysOpenWhileItIsTheFileAtItsPath) {
  Ask("nvmGetDeviceStatus", Packet(""));
  std::filesystem::permissions(NVM_SERVICE_LOG_FILE, std::filesystem::perms(0400));
  Ask("nvmGetDeviceStatus", Packet(""));
  EXPECT_EQ(NvmServiceStatements().size(), 2);
  EXPECT_EQ(ReadText(SAID), "");
}

TEST_F(NvmServiceLog, GoesOnInTheOldFileWhereNoNewOneCanBeMade) {
  std::filesystem::rename(NVM_SERVICE_LOG_FILE, "/tmp/nvm.log.1");
  std::filesystem::create_directory(NVM_SERVICE_LOG_FILE);
  Ask("nvmGetDeviceStatus", Packet(""));
  std::filesystem::remove(NVM_SERVICE_LOG_FILE);
  EXPECT_EQ(Lines(ReadText("/tmp/nvm.log.1")).size(), 1);
  EXPECT_EQ(ReadText(SAID), "Can't open log file /tmp/nvm.log: Is a directory\n");
}

// --- Want: of threads, descriptors and memory

std::function<void()> Limit(int resource, rlim_t value) {
  return [=] {
    const rlimit limit = {value, value};
    setrlimit(static_cast<__rlimit_resource>(resource), &limit);
  };
}

TEST(NvmServiceWant, OfThreads) {
  const NvmService service(NVM_ADDRESS, Limit(RLIMIT_NPROC, 0));
  EXPECT_EQ(Ask("nvmGetDeviceStatus", Packet("")), FreeReply());
}

TEST(NvmServiceWant, OfDescriptors) {
  const NvmService service(NVM_ADDRESS, Limit(RLIMIT_NOFILE, 16));
  {
    std::vector<std::unique_ptr<Connection>> clients;
    for (int i = 0; i < 32; ++i) {
      clients.push_back(std::make_unique<Connection>(NVM_ADDRESS, NVM_PORT));
    }
  }
  EXPECT_EQ(Ask("nvmGetDeviceStatus", Packet("")), FreeReply());
}

// A figure of the process's memory, in KiB.
int Memory(pid_t process, const std::string& name) {
  const std::string status = ReadText("/proc/" + std::to_string(process) + "/status");
  return std::stoi(status.substr(status.find(name + ":") + name.size() + 1));
}

TEST(NvmServiceWant, OfMemory) {
  int kibibytes = 0;
  {
    const NvmService service;
    kibibytes = Memory(service.Id(), "VmPeak");
  }
  // From hardly enough for one client to enough for all.
  for (int more = 1; more <= 10; ++more) {
    const NvmService service(NVM_ADDRESS,
                             Limit(RLIMIT_AS, (kibibytes + more * 1024) * rlim_t{1024}));
    std::vector<std::unique_ptr<Connection>> clients;
    const std::string request =
        NvmRequest("nvmReleaseDevice", NvmOwnerPacket(std::string(3500, 'x')));
    for (int i = 0; i < 250; ++i) {
      clients.push_back(std::make_unique<Connection>(NVM_ADDRESS, NVM_PORT));
      clients.back()->Send(request.substr(0, 100));
    }
    for (const auto& client : clients) {
      client->Send(request.substr(100));
    }
    for (const auto& client : clients) {
      EXPECT_TRUE(client->HasEnded());
    }
    EXPECT_TRUE(IsListening(NVM_ADDRESS, NVM_PORT)) << more << " MiB";
  }
}

// --- Beginning and end

TEST_F(NvmServiceTest, EndsOnATerminationSignal) {
  EXPECT_EQ(service_.End(SIGTERM).signal, SIGTERM);
  EXPECT_FALSE(IsListening(NVM_ADDRESS, NVM_PORT));
}

TEST_F(NvmServiceTest, ASecondServiceDoesNotStart) {
  const Result result = Execute({{NVM_SERVICE}});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.error, "nvm-service: can't listen on 127.0.0.1:5302: Address already in use\n");
}

TEST_F(NvmServiceTest, AServiceOnAnotherAddressMayRunBeside) {
  const NvmService other("127.0.0.2");
  Ask("nvmAllocateDevice", NvmOwnerPacket("GARAGE"));
  Connection client("127.0.0.2", NVM_PORT);
  HttpRequest request;
  request.host = "127.0.0.2";
  client.Send(Text(request));
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
  const Result result = Execute({{NVM_SERVICE, "here"}});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.error, "nvm-service: can't listen on here:5302: Invalid argument\n");
}

}  // namespace
