// One exchange with the nVm service, whatever the other side does. That the client waits for it
// without a time-out: test_toggle_command.py.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <optional>

#include "Files.h"
#include "NvmClient.h"
#include "ScriptedService.h"

namespace {

using Chunks = ScriptedService::Reply;
using std::string_literals::operator""s;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string ADDRESS = "127.0.0.1";
const std::string STATUS = "nvmGetDeviceStatus";

// A body of 25 bytes, and a header that announces it.
const std::string DECLARATION = "<?xml version='1.0'?>";
const std::string BODY = DECLARATION + "<a/>";
const std::string HEADER = "HTTP/1.1 200 OK\r\ncontent-length: 25\r\n\r\n";
const std::string BEGUN = HEADER + DECLARATION;  // a first chunk; four bytes more are announced

std::string HeaderWith(const std::string& line) {
  return "HTTP/1.1 200 OK\r\n" + line + "\r\n\r\n";
}

// Everything that an exchange leaves behind.
std::string Outcome(int result, const std::string& replyText, const std::string& address,
                    const std::string& function, const std::string& reply, std::ptrdiff_t leftOpen,
                    const std::string& log) {
  return "result " + std::to_string(result) + "\nreply text: " + replyText +
         "\naddress: " + address + "\nfunction: " + function + "\nreply: " + reply +
         "\nconnections left open: " + std::to_string(leftOpen) + "\nlog:\n" + log;
}

constexpr char UNTOUCHED[] = "the caller's own text";

class NvmTransport : public testing::Test {
 protected:
  void SetUp() override {
    EmptyLog();
    ForgetSocketCalls();
  }

  // One exchange with a service that replies like this, if any. It is not the client's first one.
  std::string Ask(const std::optional<Chunks>& reply, const std::string& function = STATUS,
                  const std::string& address = ADDRESS) {
    const auto openBefore = OpenDescriptors();
    std::optional<ScriptedService> service;
    if (reply) {
      service.emplace(std::vector<Chunks>{*reply});
    }
    NvmClient client;
    client.address = "an earlier address";
    client.functionName = "an earlier function";
    client.reply = "an earlier reply";
    std::string replyText = UNTOUCHED;
    const int result = client.SendToNvm(address, function, replyText);
    requests_ = service ? service->Requests() : std::vector<std::string>();
    service.reset();
    return Outcome(result, replyText, client.address, client.functionName, client.reply,
                   OpenDescriptors() - openBefore, LogText());
  }

  static std::string Entry(const std::string& function = STATUS) {
    return Debug(148, "SendToNvm") + Debug(151, ADDRESS + " " + function);
  }

  // The outcomes: a reply, no reply; `log` is what follows the two lines of the entry.
  static std::string Success(const std::string& body, const std::string& log) {
    return Outcome(0, body, ADDRESS, STATUS, body, 0, Entry() + log);
  }
  static std::string Failure(const std::string& log, int leftOpen,
                             const std::string& function = STATUS) {
    return Outcome(-1, UNTOUCHED, ADDRESS, function, "", leftOpen, Entry(function) + log);
  }

  static std::string Received(const std::string& firstChunk) {
    return Debug(185, "Receive:\n" + firstChunk);
  }
  static std::string Received(const std::string& firstChunk, const std::string& announced) {
    return Received(firstChunk) + Debug(191, "ConLen: " + announced);
  }

  std::vector<std::string> requests_;  // what the service was asked
};

// --- Replies that are read

TEST_F(NvmTransport, AReplyInOneChunkIsItsBody) {
  EXPECT_EQ(Ask(Chunks{HEADER + BODY}), Success(BODY, Received(HEADER + BODY, "25")));
  EXPECT_THAT(SocketCalls(), ElementsAre("socket", "connect 127.0.0.1:5302", "send 317 flags 0",
                                         "recv 4096 flags 0"));
  NvmClient client;
  client.address = ADDRESS;
  client.functionName = STATUS;
  EXPECT_THAT(requests_, ElementsAre(client.BuildRequest()));
}

// A reply of these chunks: the text of the first is logged, with the announced length; the body is
// what the caller gets, after so many receives.
struct Reply {
  const char* name;
  std::vector<std::string> chunks;
  std::string body = {};
  std::string announced = "25";
  std::string first = chunks[0];  // as text
  std::size_t receives = chunks.size();
  int failingReceive = 0;  // counted from 1
};

const Reply REPLIES[] = {
    // A shorter chunk must not show the end of a longer one before it.
    {"ShorterAndLonger", {BEGUN, "<", "a/>"}, BODY},
    {"NoMoreThanAnnounced", {BEGUN, "<a", "/>", "more"}, BODY, "25", BEGUN, 3},
    // Cut anywhere: when the first chunk does not hold the whole declaration, it is lost, and as
    // many bytes are waited for.
    {"HeaderAlone", {HEADER, BODY}, BODY},
    {"CutInTheDeclaration",
     {HEADER + "<?xml ", "version='1.0'?><a/>", "......"},
     "version='1.0'?><a/>......"},
    {"CutBehindTheLength", {"content-length: 25", "\r\n\r\n" + BODY}, "\r\n\r\n" + BODY},
    {"CutInTheLength", {"content-length: 2", "5\r\n\r\n" + BODY}, "5\r\n\r\n" + BODY, "2"},
    {"CutBeforeTheLength", {"content-length: "}, "", "0"},
    {"ErrorStatus", {"HTTP/1.1 500 Broken\r\ncontent-length: 25\r\n\r\n" + BODY}, BODY},
    {"NoStatusLine", {"content-length: 25" + BODY}, BODY},
    {"MoreInTheFirst", {HEADER + BODY + "and more"}, BODY + "and more"},
    {"MoreInTheLast", {BEGUN, "<a/>and more"}, BODY + "and more"},
    {"TextBeforeTheDeclaration", {HEADER + "  \r\n" + BODY}, BODY},
    {"DoubleQuotes",
     {HEADER + "<?xml version=\"1.0\"?><a/>", "1234567890123456789012345"},
     "1234567890123456789012345"},
    {"NoDeclarationLater", {HEADER, "12345678901234567890", "12345"}, "1234567890123456789012345"},
    // The announced length.
    {"Zero", {HeaderWith("content-length: 0") + BODY}, BODY, "0"},
    {"Unreadable", {HeaderWith("content-length: x") + BODY}, BODY, "0"},
    {"Negative", {HeaderWith("content-length: -5") + BODY}, BODY, "-5"},
    {"NoBlank", {HeaderWith("content-length:25") + DECLARATION, "<a/>"}, BODY},
    {"TabAndLineEnd", {HeaderWith("content-length:\t \r\n 25") + DECLARATION, "<a/>"}, BODY},
    {"BlankBeforeTheColon", {HeaderWith("content-length : 25") + DECLARATION}, DECLARATION, "0"},
    {"FirstOfTwo",
     {HeaderWith("x-content-length: 22\r\ncontent-length: 25") + DECLARATION, "<"},
     DECLARATION + "<",
     "22"},
    {"InTheBody",
     {"HTTP/1.1 200 OK\r\n\r\n" + DECLARATION + "content-length: 5"},
     DECLARATION + "content-length: 5",
     "5"},
    // A zero byte cuts the text of its chunk, but not its count.
    {"ZeroByteInTheFirst", {BEGUN + "\0<a/>"s, "<b/>"}, DECLARATION + "<b/>", "25", BEGUN},
    {"ZeroByteInALater", {BEGUN, "<\0/>"s}, DECLARATION + "<"},
    // A failure appends the chunk before it again and counts back by one: a byte more is read.
    {"FailingSecond", {BEGUN, "<a/>", "!"}, DECLARATION + BEGUN + "<a/>!", "25", BEGUN, 4, 2},
    {"FailingThird", {BEGUN, "<a", "/>", "!"}, DECLARATION + "<a<a/>!", "25", BEGUN, 5, 3}};

using NvmReply = NvmTransport;

TEST_F(NvmReply, IsReadAsFarAsItsLengthSays) {
  for (const Reply& reply : REPLIES) {
    SCOPED_TRACE(reply.name);
    SetUp();
    FailSocketCall("recv", reply.failingReceive, EINTR);
    EXPECT_EQ(Ask(reply.chunks), Success(reply.body, Received(reply.first, reply.announced)));
    EXPECT_EQ(SocketCalls().size(), 3 + reply.receives);
  }
}

TEST_F(NvmTransport, AReplyOfTenMebibytesArrivesWhole) {
  const std::string body = DECLARATION + std::string(10 << 20, 'x');
  const std::string reply = HttpReply(body);
  const std::string log = Received(reply.substr(0, 4096), std::to_string(body.size()));
  EXPECT_TRUE(Ask(Chunks{reply}) == Success(body, log));
}

// --- Replies without a length in their first chunk

const std::string CAPITALS = HeaderWith("Content-Length: 25") + BODY;
const std::string OTHER_HEADER = HeaderWith("content-type: text/xml") + BODY;
const std::string LONG_HEADER = HeaderWith("x: " + std::string(4096, 'x')).substr(0, 4096);
const std::string HEADER_END = "\r\ncontent-length: 25\r\n\r\n";

const Reply WITHOUT_A_LENGTH[] = {
    {"Capitals", {CAPITALS}},
    {"OtherHeader", {OTHER_HEADER}},
    {"BehindTheFirstChunk", {LONG_HEADER + HEADER_END + BODY}, "", "", LONG_HEADER},
    {"BehindAZeroByte", {"HTTP/1.1 200 OK\r\n\0"s + HEADER + BODY}, "", "", "HTTP/1.1 200 OK\r\n"},
    {"CutInItsName", {"content-lengt", "h: 25\r\n\r\n" + BODY}},
    {"FailingReceive", {HEADER + BODY}, "", "", "", 1, 1},
    {"ClosedAtOnce", {}, "", "", ""}};

using NvmReplyWithoutALength = NvmTransport;

TEST_F(NvmReplyWithoutALength, FailsAndLeavesTheConnectionOpen) {
  for (const Reply& reply : WITHOUT_A_LENGTH) {
    SCOPED_TRACE(reply.name);
    SetUp();
    FailSocketCall("recv", reply.failingReceive, EINTR);
    EXPECT_EQ(Ask(reply.chunks), Failure(Received(reply.first), 1));
  }
}

// --- Nobody to talk to

TEST_F(NvmTransport, AnEmptyArgumentDoesNothingButEnter) {
  for (const auto& [address, function] : {std::pair(""s, STATUS), std::pair(ADDRESS, ""s)}) {
    SetUp();
    EXPECT_EQ(Ask({}, function, address),
              Outcome(-1, UNTOUCHED, "an earlier address", "an earlier function",
                      "an earlier reply", 0, Debug(148, "SendToNvm")));
    EXPECT_THAT(SocketCalls(), IsEmpty());
  }
}

TEST_F(NvmTransport, AMalformedAddressIsTheAllOnesOne) {
  EXPECT_EQ(Ask({}, STATUS, "not an address"),
            Outcome(-1, UNTOUCHED, "not an address", STATUS, "", 0,
                    Debug(148, "SendToNvm") + Debug(151, "not an address " + STATUS) +
                        Error(168, "connect Network is unreachable")));
  EXPECT_THAT(SocketCalls(), ElementsAre("socket", "connect 255.255.255.255:5302"));
}

TEST_F(NvmTransport, AFailingSocketIsAnError) {
  FailSocketCall("socket", 1, EMFILE);
  EXPECT_EQ(Ask({}), Failure(Error(159, "socket Too many open files"), 0));
  EXPECT_THAT(SocketCalls(), ElementsAre("socket"));
}

TEST_F(NvmTransport, AnUnknownFunctionLeavesTheConnectionOpenAndUnused) {
  EXPECT_EQ(Ask(Chunks{HEADER + BODY}, "nvmGetdevicestatus"),
            Failure(Error(116, "Wrong command"), 1, "nvmGetdevicestatus"));
  EXPECT_THAT(requests_, ElementsAre(""));
  EXPECT_THAT(SocketCalls(), ElementsAre("socket", "connect 127.0.0.1:5302"));
}

// The function is not looked at before.
TEST_F(NvmTransport, AnUnknownFunctionOfNobodyIsARefusedConnection) {
  for (const std::string& function : {"unknown"s, STATUS}) {
    SetUp();
    EXPECT_EQ(Ask({}, function), Failure(Error(168, "connect Connection refused"), 0, function));
  }
}

// --- Connections that break

TEST_F(NvmTransport, AFailingSendIsAnError) {
  FailSocketCall("send", 1, EPIPE);
  EXPECT_EQ(Ask(Chunks{HEADER + BODY}), Failure(Error(178, "send Broken pipe"), 0));
  EXPECT_THAT(requests_, ElementsAre(""));
}

TEST_F(NvmTransport, AShortSendIsNotContinued) {
  LimitSend(100);
  EXPECT_EQ(Ask(Chunks{HEADER + BODY}), Success(BODY, Received(HEADER + BODY, "25")));
  ASSERT_EQ(requests_.size(), 1u);
  EXPECT_EQ(requests_[0].size(), 100u);
}

}  // namespace
