// The stand-in device's nVm service: its rules, its replies, its timeouts.

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
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

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

// --- Requests and replies

constexpr char ALLOCATE[] = "nvmAllocateDevice";
constexpr char RELEASE[] = "nvmReleaseDevice";
constexpr char STATUS[] = "nvmGetDeviceStatus";

const std::string NOTHING = Packet("");
const std::string GARAGE = NvmOwnerPacket("GARAGE", "10.0.0.7");
const std::string VEMO_WEB = NvmOwnerPacket("VEMO_WEB");

const std::string HELD_BY_GARAGE = NvmReply("1", "GARAGE", "10.0.0.7", "0", "");
const std::string REFUSED_FOR_GARAGE =
    NvmReply("1", "GARAGE", "10.0.0.7", "1", "Device is allocated by GARAGE");

std::string ErrorReply(const std::string& code, const std::string& message) {
  return NvmReply("0", "", "", code, message);
}

const std::string NO_PACKET = ErrorReply("4", "Request is no WDDX packet");

// Declarations before a packet.
constexpr char CHINESE[] = "<?xml version='1.0' encoding='ISO-2022-CN-EXT'?>";
constexpr char ENTITY[] = "<!DOCTYPE wddxPacket [<!ENTITY e 'GARAGE'>]>";
constexpr char FILE_ENTITY[] = "<!DOCTYPE wddxPacket [<!ENTITY e SYSTEM '/tmp/secret.txt'>]>";
constexpr char FILE_TYPE[] = "<!DOCTYPE wddxPacket SYSTEM '/tmp/packet.dtd'>";

struct Exchange {
  const char* name;
  std::string function;
  std::string packet;
  std::string reply;
  bool isHeldByGarage = false;  // the device, before
};

std::ostream& operator<<(std::ostream& out, const Exchange& exchange) {
  return out << exchange.name;
}

class NvmServiceReply : public NvmServiceTest, public testing::WithParamInterface<Exchange> {};

TEST_P(NvmServiceReply, IsByteForByte) {
  const auto& [name, function, packet, reply, isHeldByGarage] = GetParam();
  WriteText("/tmp/secret.txt", "secret");
  WriteText("/tmp/packet.dtd", "<!ENTITY e 'secret'>");
  if (isHeldByGarage) {
    Ask(ALLOCATE, GARAGE);
  }
  EXPECT_EQ(Ask(function, packet), reply);
}

const std::vector<Exchange> EXCHANGES = {
    {"InTheBeginningTheDeviceIsFree", STATUS, NOTHING, FreeReply()},
    {"AFreeDeviceIsGivenToTheFirst", ALLOCATE, GARAGE, HELD_BY_GARAGE},
    {"AFreeDeviceCannotBeReleased", RELEASE, GARAGE, ErrorReply("2", "Device is not allocated")},
    {"TheOwnerIsShown", STATUS, NOTHING, HELD_BY_GARAGE, true},
    {"AnotherOwnerIsRefused", ALLOCATE, VEMO_WEB, REFUSED_FOR_GARAGE, true},
    {"AnotherMayNotRelease", RELEASE, VEMO_WEB, REFUSED_FOR_GARAGE, true},
    {"AnOwnerMayRelease", RELEASE, NvmOwnerPacket("GARAGE"), FreeReply(), true},
    {"AnOwnerMayAllocateAgain", ALLOCATE, NvmOwnerPacket("GARAGE", "10.0.0.8"),
     NvmReply("1", "GARAGE", "10.0.0.8", "0", ""), true},
    {"AnOwnerMustHaveAName", ALLOCATE, NOTHING, ErrorReply("3", "No device owner given")},
    {"TextsAreEscaped", ALLOCATE, NvmOwnerPacket("&lt;A&amp;B&gt;"),
     NvmReply("1", "&lt;A&amp;B&gt;", "0", "0", "")},
    {"AnUnknownFunctionIsRefused", "nvmSellDevice", NOTHING,
     ErrorReply("5", "Unknown function nvmSellDevice")},
    {"NoFunctionIsRefused", "", NOTHING, ErrorReply("5", "Unknown function ")},
    {"ALongNameIsShortened", std::string(3000, 'f'), NOTHING,
     ErrorReply("5", "Unknown function " + std::string(100, 'f') + "...")},
    {"NoBodyIsRefused", STATUS, "", NO_PACKET},
    {"WhatIsNoXmlIsRefused", STATUS, "no XML", NO_PACKET},
    {"APacketWithoutDataIsRefused", STATUS, "<wddxPacket/>", NO_PACKET},
    {"APacketIsUtf8WhateverItDeclares", ALLOCATE, CHINESE + NvmOwnerPacket("M\xC3\xBCLLER"),
     NvmReply("1", "M\xC3\xBCLLER", "0", "0", "")},
    {"AnEntityIsRefused", ALLOCATE, ENTITY + NvmOwnerPacket("&e;"), NO_PACKET},
    {"AnExternalEntityIsRefused", ALLOCATE, FILE_ENTITY + NvmOwnerPacket("GARAGE", "&e;"),
     NO_PACKET},
    {"TheDocumentTypeIsNotLoaded", ALLOCATE, FILE_TYPE + NvmOwnerPacket("GARAGE", "&e;"),
     NvmReply("1", "GARAGE", "", "0", "")}};

INSTANTIATE_TEST_SUITE_P(Nvm, NvmServiceReply, testing::ValuesIn(EXCHANGES),
                         [](const auto& info) { return info.param.name; });

TEST_F(NvmServiceTest, ACommonHttpClientIsServed) {
  const Result result =
      Execute({{"/usr/bin/curl", "--silent", "--show-error", "--compressed", "-X", "GET", "-d",
                GARAGE, "http://127.0.0.1:5302/nVm?FunctionName=nvmAllocateDevice"}});
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.output, HELD_BY_GARAGE);
}

TEST_F(NvmServiceTest, BytesBehindTheBodyAreIgnored) {
  EXPECT_THAT(Send(NvmRequest(ALLOCATE, GARAGE) + "<more/>"), EndsWith(HELD_BY_GARAGE));
}

// --- Requests that no client of the service sends, but a web page could

class NvmServiceRefuses : public NvmServiceTest {
 protected:
  // Each of the values, in this part of a request to release the device, makes the service refuse
  // the request with the status, and nothing else.
  static void ExpectRefused(std::string HttpRequest::*part, const std::vector<std::string>& values,
                            const std::string& status, HttpRequest request = ReleaseRequest()) {
    Ask(ALLOCATE, GARAGE);
    for (const std::string& value : values) {
      SCOPED_TRACE(value);
      request.*part = value;
      EXPECT_EQ(Undated(Send(Text(request))),
                "HTTP/1.1 " + status +
                    "\r\nConnection: close\r\ncontent-type: text/xml\r\ncontent-length: 0\r\n" +
                    (status == NOT_ALLOWED ? "allow: GET\r\n" : "") + "Content-Length: 0\r\n\r\n");
      EXPECT_THAT(NvmServiceStatements().back(),
                  HasSubstr(": refused with " + status.substr(0, 3)));
      EXPECT_EQ(Ask(STATUS, NOTHING), HELD_BY_GARAGE);
    }
  }

  static HttpRequest ReleaseRequest() {
    HttpRequest request;
    request.path = "/nVm?FunctionName=nvmReleaseDevice";
    request.body = GARAGE;
    return request;
  }

  static constexpr char NOT_ALLOWED[] = "405 Method Not Allowed";
};

// The second is a request of its own.
TEST_F(NvmServiceRefuses, AForeignForm) {
  HttpRequest form = ReleaseRequest();
  form.method = "POST";
  form.type = "text/plain";
  ExpectRefused(&HttpRequest::body, {GARAGE, NvmRequest(RELEASE, GARAGE)}, NOT_ALLOWED, form);
}

TEST_F(NvmServiceRefuses, EveryOtherMethod) {
  ExpectRefused(&HttpRequest::method, {"PUT", "DELETE", "OPTIONS", "PATCH", "get"}, NOT_ALLOWED);
}

TEST_F(NvmServiceRefuses, EveryOtherPath) {
  ExpectRefused(&HttpRequest::path,
                {"/", "/nvm?FunctionName=nvmReleaseDevice", "/nVm/?FunctionName=nvmReleaseDevice"},
                "404 Not Found");
}

TEST_F(NvmServiceRefuses, EveryOtherParameter) {
  ExpectRefused(&HttpRequest::path,
                {"/nVm", "/nVm?", "/nVm?FunctionName", "/nVm?Function=x",
                 "/nVm?FunctionName=nvmReleaseDevice&FunctionName=x"},
                "400 Bad Request");
}

TEST_F(NvmServiceRefuses, WhatABrowserAdds) {
  for (const std::string header :
       {"Origin: http://127.0.0.1:5302", "Origin: null", "Referer: http://127.0.0.1/",
        "Sec-Fetch-Site: none", "Sec-Purpose: prefetch", "Purpose: prefetch", "Upgrade: websocket",
        "Accept-Language: de", "Upgrade-Insecure-Requests: 1", "Cookie: a=b", "X-Any: 1",
        "Content-type: text/xml"}) {
    ExpectRefused(&HttpRequest::more, {header + "\r\n"}, "403 Forbidden");
  }
}

TEST_F(NvmServiceRefuses, EveryOtherHost) {
  ExpectRefused(
      &HttpRequest::host,
      {"localhost", "127.0.0.2", "vemo.example", "127.0.0.1:80", "[::1]", "127.0.0.1.example"},
      "403 Forbidden");
}

// What a browser sends without a page's help: for a link, an image.
TEST_F(NvmServiceTest, AGetWithoutABodyChangesNothing) {
  EXPECT_THAT(Send("GET /nVm?FunctionName=nvmAllocateDevice HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"),
              HasSubstr("Request is no WDDX packet"));
}

TEST_F(NvmServiceTest, ABodyInChunksIsRefused) {
  HttpRequest request;
  request.more = "Transfer-Encoding: chunked\r\n";
  EXPECT_THAT(Send(Text(request)), StartsWith("HTTP/1.1 4"));
}

TEST_F(NvmServiceTest, ARequestThatWaitsForAContinueIsRefused) {
  HttpRequest request;
  request.more = "Expect: 100-continue\r\n";
  EXPECT_THAT(Send(Text(request)), HasSubstr("HTTP/1.1 403 "));
}

TEST_F(NvmServiceTest, ABodyBeyondTheLimitIsRefused) {
  const std::string request = NvmRequest(STATUS, std::string(4097, ' '));
  EXPECT_THAT(Send(request.substr(0, request.find("\r\n\r\n") + 4)), StartsWith("HTTP/1.1 413 "));
  EXPECT_THAT(Send(NvmRequest(STATUS, NOTHING + std::string(3000, ' '))), EndsWith(FreeReply()));
}

// --- Clients that misbehave: the next one is served all the same

using Clients = std::vector<std::unique_ptr<Connection>>;

Clients Connect(int count) {
  Clients clients;
  for (int i = 0; i < count; ++i) {
    clients.push_back(std::make_unique<Connection>(NVM_ADDRESS, NVM_PORT));
  }
  return clients;
}

class NvmServiceBeside : public NvmServiceTest {
 protected:
  static void ExpectOthersAreServed() { EXPECT_EQ(Ask(STATUS, NOTHING), FreeReply()); }
};

// The last are more than are served at once.
TEST_F(NvmServiceBeside, SilentClients) {
  for (const int count : {3, 300}) {
    const Clients clients = Connect(count);
    ExpectOthersAreServed();
  }
}

TEST_F(NvmServiceBeside, ASlowClientThatIsServedInTheEnd) {
  Connection slow(NVM_ADDRESS, NVM_PORT);
  const std::string request = NvmRequest(STATUS, NOTHING);
  for (std::size_t i = 0; i < request.size(); ++i) {
    slow.Send(request.substr(i, 1));
    if (i % 50 == 0) {
      ExpectOthersAreServed();
    }
  }
  EXPECT_THAT(slow.ReceiveAll(), EndsWith(FreeReply()));
}

// The last four are no HTTP.
TEST_F(NvmServiceBeside, ClientsThatStopAnywhereAndGoAway) {
  for (const std::string& sent :
       {std::string(), std::string("GET /nVm?FunctionName=nvmGetDev"), NvmRequest(STATUS, NOTHING),
        std::string("\0\xFF\r\n\r\n", 6), std::string("\r\n\r\n\r\n"), std::string("GET\r\n\r\n"),
        std::string("GET  HTTP/1.1\r\n:\r\n\r\n")}) {
    {
      Connection client(NVM_ADDRESS, NVM_PORT);
      client.Send(sent);
      ExpectOthersAreServed();
    }
    ExpectOthersAreServed();
  }
}

TEST_F(NvmServiceBeside, ClientsThatAreGoneWhenTheyAreAnswered) {
  SKIP_WHERE_TRACED("a traced service does not stop at the signal");
  // The service sleeps until the clients have gone.
  const std::string state = "/proc/" + std::to_string(service_.Id()) + "/status";
  kill(service_.Id(), SIGSTOP);
  ASSERT_TRUE(Eventually([&] { return ReadText(state).find("\nState:\tT") != std::string::npos; }));
  {
    const Clients clients = Connect(2);
    clients[0]->Send(NvmRequest(STATUS, NOTHING));
    clients[0]->Reset();
    clients[1]->Send(NvmRequest(STATUS, NOTHING));
  }
  kill(service_.Id(), SIGCONT);
  ExpectOthersAreServed();
  EXPECT_TRUE(Eventually([] { return NvmServiceStatements().size() == 2; }));
  ExpectOthersAreServed();
}

TEST_F(NvmServiceBeside, AClientThatSendsAHeadWithoutAnEnd) {
  Connection client(NVM_ADDRESS, NVM_PORT);
  client.Send(std::string(65536, 'x'));
  ExpectOthersAreServed();
  EXPECT_TRUE(client.HasEnded());
}

TEST_F(NvmServiceBeside, ClientsThatTakeLongerThanTheTimeout) {
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

TEST_F(NvmServiceBeside, AClientThatAnnouncesAnImpossibleLength) {
  const std::string request = Text(HttpRequest());
  const std::string length = "Content-length: " + std::to_string(NOTHING.size());
  for (const std::string impossible : {"-1", "99999999999999999999999", "x"}) {
    std::string changed = request;
    changed.replace(request.find(length), length.size(), "Content-length: " + impossible);
    EXPECT_THAT(Send(changed), StartsWith("HTTP/1.1 4"));
    ExpectOthersAreServed();
  }
}

TEST_F(NvmServiceBeside, ADozenClientsAtOnce) {
  const Clients clients = Connect(12);
  for (const auto& client : clients) {
    client->Send(NvmRequest(STATUS, NOTHING));
  }
  for (const auto& client : clients) {
    EXPECT_THAT(client->ReceiveAll(), EndsWith(FreeReply()));
  }
}

// --- The log

TEST_F(NvmServiceTest, LogsEachRequestAndRefusalsAsErrors) {
  Ask(ALLOCATE, NvmOwnerPacket("GARAGE"));
  Ask(ALLOCATE, NvmOwnerPacket("VEMO_WEB"));
  Ask(STATUS, NOTHING);
  Ask(RELEASE, NvmOwnerPacket("GARAGE"));
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
  Ask("nvm%0D%0AForged", NOTHING);
  Ask(ALLOCATE, NvmOwnerPacket("A&#10;B&#13;\xC2\x85\\"));
  EXPECT_THAT(NvmServiceStatements(),
              ElementsAre("ERROR nvm\\x0D\\x0AForged: 5 Unknown function nvm\\x0D\\x0AForged; "
                          "owner now: nobody",
                          "INFO nvmAllocateDevice: 0 ; owner now: A\\x0AB\\x0D\\xC2\\x85\\"));
}

TEST_F(NvmServiceTest, ALongNameIsShortenedInTheLog) {
  Ask(ALLOCATE, NvmOwnerPacket(std::string(3000, 'o')));
  EXPECT_THAT(NvmServiceStatements().back(),
              EndsWith("owner now: " + std::string(100, 'o') + "..."));
}

TEST_F(NvmServiceTest, LogsToANewFileAfterARename) {
  Ask(STATUS, NOTHING);
  std::filesystem::rename(NVM_SERVICE_LOG_FILE, "/tmp/nvm.log.1");
  Ask(RELEASE, NOTHING);
  EXPECT_THAT(NvmServiceStatements(),
              ElementsAre("ERROR nvmReleaseDevice: 2 Device is not allocated; owner now: nobody"));
  EXPECT_EQ(Lines(ReadText("/tmp/nvm.log.1")).size(), 1);
  // The file that a log rotation has made itself.
  std::filesystem::rename(NVM_SERVICE_LOG_FILE, "/tmp/nvm.log.1");
  WriteText(NVM_SERVICE_LOG_FILE, "");
  Ask(STATUS, NOTHING);
  EXPECT_EQ(NvmServiceStatements().size(), 1);
}

class NvmServiceLog : public testing::Test {
 protected:
  static constexpr char ERRORS[] = "/tmp/nvm.errors";  // its standard error
  NvmService service_{
      NVM_ADDRESS,
      [] { dup2(open(ERRORS, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO); }};
};

// Nothing is opened anew: it could not be.
TEST_F(NvmServiceLog, StaysOpenWhileItIsTheFileAtItsPath) {
  Ask(STATUS, NOTHING);
  std::filesystem::permissions(NVM_SERVICE_LOG_FILE, std::filesystem::perms(0400));
  Ask(STATUS, NOTHING);
  EXPECT_EQ(NvmServiceStatements().size(), 2);
  EXPECT_EQ(ReadText(ERRORS), "");
}

TEST_F(NvmServiceLog, GoesOnInTheOldFileWhereNoNewOneCanBeMade) {
  std::filesystem::rename(NVM_SERVICE_LOG_FILE, "/tmp/nvm.log.1");
  std::filesystem::create_directory(NVM_SERVICE_LOG_FILE);
  Ask(STATUS, NOTHING);
  std::filesystem::remove(NVM_SERVICE_LOG_FILE);
  EXPECT_EQ(Lines(ReadText("/tmp/nvm.log.1")).size(), 1);
  EXPECT_EQ(ReadText(ERRORS), "Can't open log file /tmp/nvm.log: Is a directory\n");
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
  EXPECT_EQ(Ask(STATUS, NOTHING), FreeReply());
}

TEST(NvmServiceWant, OfDescriptors) {
  const NvmService service(NVM_ADDRESS, Limit(RLIMIT_NOFILE, 16));
  Connect(32);
  EXPECT_EQ(Ask(STATUS, NOTHING), FreeReply());
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
    const std::string request = NvmRequest(RELEASE, NvmOwnerPacket(std::string(3500, 'x')));
    const Clients clients = Connect(250);
    for (const auto& client : clients) {
      client->Send(request.substr(0, 100));
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
  Ask(ALLOCATE, NvmOwnerPacket("GARAGE"));
  Connection client("127.0.0.2", NVM_PORT);
  HttpRequest request;
  request.host = "127.0.0.2";
  client.Send(Text(request));
  EXPECT_THAT(client.ReceiveAll(), EndsWith(FreeReply()));
}

TEST(NvmServiceStart, ARestartedServiceListensAtOnce) {
  {
    NvmService first;
    Ask(STATUS, NOTHING);
  }
  const NvmService second;
  EXPECT_EQ(Ask(STATUS, NOTHING), FreeReply());
}

TEST(NvmServiceStart, AMalformedAddressIsRefused) {
  const Result result = Execute({{NVM_SERVICE, "here"}});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.error, "nvm-service: can't listen on here:5302: Invalid argument\n");
}

}  // namespace
