// One exchange with the nVm service over a real connection, whatever the other side does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <ostream>
#include <thread>

#include "Files.h"
#include "NvmClient.h"
#include "Process.h"
#include "ScriptedService.h"
#include "SocketCalls.h"

namespace {

using End = ScriptedReply::End;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string ADDRESS = "127.0.0.1";
const std::string STATUS = "nvmGetDeviceStatus";

// A body of 25 bytes, and a header that announces it.
const std::string DECLARATION = "<?xml version='1.0'?>";
const std::string BODY = DECLARATION + "<a/>";
const std::string HEADER = "HTTP/1.1 200 OK\r\ncontent-length: 25\r\n\r\n";

std::string HeaderWith(const std::string& line) {
  return "HTTP/1.1 200 OK\r\n" + line + "\r\n\r\n";
}

// Everything that an exchange leaves behind.
struct Outcome {
  int result;
  std::string replyText;  // the caller's
  std::string address, functionName, reply;
  std::ptrdiff_t descriptorsLeftOpen;
  std::string log;

  bool operator==(const Outcome& other) const {
    return result == other.result && replyText == other.replyText && address == other.address &&
           functionName == other.functionName && reply == other.reply &&
           descriptorsLeftOpen == other.descriptorsLeftOpen && log == other.log;
  }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  return out << "\nresult " << outcome.result << "\nreply text: " << outcome.replyText
             << "\naddress: " << outcome.address << "\nfunction: " << outcome.functionName
             << "\nreply: " << outcome.reply << "\nleft open: " << outcome.descriptorsLeftOpen
             << "\nlog:\n"
             << outcome.log;
}

constexpr char UNTOUCHED[] = "the caller's own text";

class NvmTransport : public testing::Test {
 protected:
  void SetUp() override {
    EmptyLog();
    ForgetSocketCalls();
  }

  // One exchange with whoever is there.
  static Outcome Call(const std::string& address, const std::string& function) {
    const auto openBefore = OpenDescriptors();
    Outcome outcome = Exchange(address, function);
    outcome.descriptorsLeftOpen = OpenDescriptors() - openBefore;
    return outcome;
  }

  // One exchange with a service that replies like this.
  Outcome Ask(const ScriptedReply& reply, const std::string& function = STATUS) {
    const auto openBefore = OpenDescriptors();
    Outcome outcome;
    {
      ScriptedService service({reply});
      ForgetSocketCalls();
      outcome = Exchange(ADDRESS, function);
      requests_ = service.Stop();
    }
    outcome.descriptorsLeftOpen = OpenDescriptors() - openBefore;
    return outcome;
  }

  static std::string Entry(const std::string& function = STATUS) {
    return Debug(148, "SendToNvm") + Debug(151, ADDRESS + " " + function);
  }

  // The outcomes: a reply, no reply; `log` is what follows the two lines of the entry.
  static Outcome Success(const std::string& body, const std::string& log) {
    return {0, body, ADDRESS, STATUS, body, 0, Entry() + log};
  }
  static Outcome FailureClosed(const std::string& log) {
    return {-1, UNTOUCHED, ADDRESS, STATUS, "", 0, Entry() + log};
  }
  static Outcome FailureLeftOpen(const std::string& log) {
    return {-1, UNTOUCHED, ADDRESS, STATUS, "", 1, Entry() + log};
  }

  static std::string Received(const std::string& firstChunk) {
    return Debug(185, "Receive:\n" + firstChunk);
  }
  static std::string Received(const std::string& firstChunk, const std::string& announced) {
    return Received(firstChunk) + Debug(191, "ConLen: " + announced);
  }

  std::vector<std::string> requests_;  // what the service was asked

 private:
  // It is not the client's first exchange.
  static Outcome Exchange(const std::string& address, const std::string& function) {
    NvmClient client;
    client.address = "an earlier address";
    client.functionName = "an earlier function";
    client.reply = "an earlier reply";
    std::string replyText = UNTOUCHED;
    const int result = client.SendToNvm(address, function, replyText);
    return {result, replyText, client.address, client.functionName, client.reply, 0, LogText()};
  }
};

// --- Replies that are read

TEST_F(NvmTransport, AReplyInOneChunkIsItsBody) {
  EXPECT_EQ(Ask({{HEADER + BODY}}), Success(BODY, Received(HEADER + BODY, "25")));
  EXPECT_THAT(SocketCalls(), ElementsAre("socket", "connect 127.0.0.1:5302", "send 317 flags 0",
                                         "recv 4096 flags 0"));
}

TEST_F(NvmTransport, TheServiceGetsTheRequestAndNothingElse) {
  NvmClient client;
  client.address = ADDRESS;
  for (const std::string function :
       {"nvmGetDeviceStatus", "nvmAllocateDevice", "nvmReleaseDevice"}) {
    EXPECT_EQ(Ask({{HEADER + BODY}}, function).result, 0);
    client.functionName = function;
    EXPECT_THAT(requests_, ElementsAre(client.BuildRequest()));
  }
}

TEST_F(NvmTransport, ABodyInThreeChunksIsJoined) {
  const std::string first = HEADER + DECLARATION + "<";
  EXPECT_EQ(Ask({{first, "a/", ">"}}), Success(BODY, Received(first, "25")));
}

TEST_F(NvmTransport, ReceivingEndsWithTheAnnouncedNumberOfBytes) {
  Ask({{HEADER + DECLARATION, "<a", "/>", "more"}});
  EXPECT_EQ(ReceivesBegun(), 3);
}

TEST_F(NvmTransport, AHeaderThatComesAloneIsFollowedByTheBody) {
  EXPECT_EQ(Ask({{HEADER, BODY}}), Success(BODY, Received(HEADER, "25")));
}

TEST_F(NvmTransport, TheHttpStatusIsNotLookedAt) {
  const std::string reply = "HTTP/1.1 500 Broken\r\ncontent-length: 25\r\n\r\n" + BODY;
  EXPECT_EQ(Ask({{reply}}), Success(BODY, Received(reply, "25")));
}

TEST_F(NvmTransport, TheReplyNeedsNoStatusLine) {
  EXPECT_EQ(Ask({{"content-length: 25" + BODY}}),
            Success(BODY, Received("content-length: 25" + BODY, "25")));
}

TEST_F(NvmTransport, BytesBeyondTheAnnouncedLengthAreKeptInTheFirstChunk) {
  const std::string reply = HEADER + BODY + "and more";
  EXPECT_EQ(Ask({{reply}}), Success(BODY + "and more", Received(reply, "25")));
}

TEST_F(NvmTransport, BytesBeyondTheAnnouncedLengthAreKeptInTheLastChunk) {
  const std::string first = HEADER + DECLARATION;
  EXPECT_EQ(Ask({{first, "<a/>and more"}}), Success(BODY + "and more", Received(first, "25")));
}

TEST_F(NvmTransport, WhatPrecedesTheDeclarationIsDropped) {
  const std::string reply = HEADER + "  \r\n" + BODY;
  EXPECT_EQ(Ask({{reply}}), Success(BODY, Received(reply, "25")));
}

TEST_F(NvmTransport, ADeclarationInDoubleQuotesIsNoneSoThatLaterChunksAreTheBody) {
  const std::string first = HEADER + "<?xml version=\"1.0\"?><a/>";
  const std::string later = "1234567890123456789012345";
  EXPECT_EQ(Ask({{first, later}}), Success(later, Received(first, "25")));
}

TEST_F(NvmTransport, ALaterChunkNeedsNoDeclaration) {
  EXPECT_EQ(Ask({{HEADER, "12345678901234567890", "12345"}}),
            Success("1234567890123456789012345", Received(HEADER, "25")));
}

TEST_F(NvmTransport, AReplyOfTenMebibytesArrivesWhole) {
  const std::string body = DECLARATION + std::string(10 << 20, 'x');
  const Outcome outcome = Ask({{HttpReply(body)}});
  EXPECT_EQ(outcome.result, 0);
  EXPECT_TRUE(outcome.replyText == body);
  EXPECT_EQ(outcome.descriptorsLeftOpen, 0);
}

TEST_F(NvmTransport, TheFirstChunkIsOf4096BytesAtMost) {
  const std::string body = DECLARATION + std::string(5000 - DECLARATION.size(), 'x');
  const std::string reply = HeaderWith("content-length: 5000") + body;
  EXPECT_EQ(Ask({{reply}}), Success(body, Received(reply.substr(0, 4096), "5000")));
}

// --- The announced length

TEST_F(NvmTransport, AnAnnouncedZeroGivesWhatTheFirstChunkHolds) {
  const std::string header = HeaderWith("content-length: 0");
  EXPECT_EQ(Ask({{header}}), Success("", Received(header, "0")));
  EmptyLog();
  EXPECT_EQ(Ask({{header + BODY}}), Success(BODY, Received(header + BODY, "0")));
}

TEST_F(NvmTransport, AnUnreadableLengthIsZero) {
  const std::string header = HeaderWith("content-length: x");
  EXPECT_EQ(Ask({{header}}), Success("", Received(header, "0")));
  EmptyLog();
  EXPECT_EQ(Ask({{header + BODY}}), Success(BODY, Received(header + BODY, "0")));
}

TEST_F(NvmTransport, ANegativeLengthIsLikeZero) {
  const std::string reply = HeaderWith("content-length: -5") + BODY;
  EXPECT_EQ(Ask({{reply}}), Success(BODY, Received(reply, "-5")));
}

TEST_F(NvmTransport, WhiteSpaceBeforeTheLengthIsAnyOrNone) {
  for (const std::string space : {"", " ", "\t  ", "\r\n "}) {
    EmptyLog();
    const std::string first = HeaderWith("content-length:" + space + "25") + DECLARATION;
    EXPECT_EQ(Ask({{first, "<a/>"}}), Success(BODY, Received(first, "25")));
  }
}

TEST_F(NvmTransport, ABlankBeforeTheColonMakesTheLengthUnreadable) {
  const std::string first = HeaderWith("content-length : 25") + DECLARATION;
  EXPECT_EQ(Ask({{first, "<a/>"}}), Success(DECLARATION, Received(first, "0")));
}

TEST_F(NvmTransport, TheFirstOccurrenceOfTheHeaderCounts) {
  const std::string first = HeaderWith("x-content-length: 22\r\ncontent-length: 25") + DECLARATION;
  EXPECT_EQ(Ask({{first, "<", "a/>"}}), Success(DECLARATION + "<", Received(first, "22")));
}

TEST_F(NvmTransport, TheHeaderMayStandInTheBody) {
  const std::string reply = "HTTP/1.1 200 OK\r\n\r\n" + DECLARATION + "content-length: 5";
  EXPECT_EQ(Ask({{reply}}), Success(DECLARATION + "content-length: 5", Received(reply, "5")));
}

TEST_F(NvmTransport, AHeaderInCapitalLettersIsNone) {
  const std::string reply = HeaderWith("Content-Length: 25") + BODY;
  EXPECT_EQ(Ask({{reply}}), FailureLeftOpen(Received(reply)));
}

TEST_F(NvmTransport, AReplyWithoutALengthFails) {
  const std::string reply = HeaderWith("content-type: text/xml") + BODY;
  EXPECT_EQ(Ask({{reply}}), FailureLeftOpen(Received(reply)));
}

TEST_F(NvmTransport, ALengthBehindTheFirstChunkIsNotSeen) {
  const std::string first = HeaderWith("x: " + std::string(4096, 'x')).substr(0, 4096);
  EXPECT_EQ(Ask({{first + "\r\ncontent-length: 25\r\n\r\n" + BODY}}),
            FailureLeftOpen(Received(first)));
}

// --- A reply of two chunks, cut anywhere

class NvmCutReply : public NvmTransport {
 protected:
  // What is to come of a reply when the first chunk is of that many bytes.
  static Outcome Expected(std::size_t cut) {
    const std::string reply = HEADER + BODY;
    const std::size_t nameEnd = reply.find(": 25");
    const std::size_t number = reply.find("25");
    const std::size_t declaration = HEADER.size();
    const std::string first = reply.substr(0, cut);
    const std::string rest = reply.substr(cut);

    if (cut < nameEnd) {
      return FailureLeftOpen(Received(first));
    }
    if (cut <= number) {
      return Success("", Received(first, "0"));
    }
    if (cut == number + 1) {
      return Success(rest, Received(first, "2"));  // of its bytes, two are enough
    }
    if (cut <= declaration) {
      return Success(rest, Received(first, "25"));  // with what is left of the header
    }
    if (cut < declaration + DECLARATION.size()) {
      // The cut declaration is lost, and as many bytes are waited for.
      return Success(rest + Filling(cut), Received(first, "25"));
    }
    return Success(BODY, Received(first, "25"));
  }

  // What the service sends when even the rest was not enough.
  static std::string Filling(std::size_t cut) { return std::string(cut - HEADER.size(), '.'); }
};

TEST_F(NvmCutReply, IsReadAsFarAsItCanBe) {
  const std::string reply = HEADER + BODY;
  for (std::size_t cut = 1; cut < reply.size(); ++cut) {
    EmptyLog();
    ScriptedReply script = {{reply.substr(0, cut), reply.substr(cut)}};
    if (cut > HEADER.size()) {
      script.chunks.push_back(Filling(cut));
    }
    EXPECT_EQ(Ask(script), Expected(cut)) << "cut behind " << cut << " bytes";
  }
}

// --- Zero bytes

TEST_F(NvmTransport, AZeroByteEndsTheTextOfTheFirstChunk) {
  const std::string visible = HEADER + DECLARATION;
  const std::string first = visible + std::string("\0<a/>", 5);
  EXPECT_EQ(Ask({{first, "<b/>"}}), Success(DECLARATION + "<b/>", Received(visible, "25")));
}

TEST_F(NvmTransport, AZeroByteBeforeTheLengthHidesIt) {
  const std::string first = "HTTP/1.1 200 OK\r\n" + std::string(1, '\0') + HEADER + BODY;
  EXPECT_EQ(Ask({{first}}), FailureLeftOpen(Received("HTTP/1.1 200 OK\r\n")));
}

TEST_F(NvmTransport, AZeroByteInALaterChunkCutsItsTextButNotItsCount) {
  const std::string first = HEADER + DECLARATION;
  EXPECT_EQ(Ask({{first, std::string("<\0/>", 4), "more"}}),
            Success(DECLARATION + "<", Received(first, "25")));
  EXPECT_EQ(ReceivesBegun(), 2);
}

// A shorter chunk must not show the end of a longer one before it.
TEST_F(NvmTransport, EachChunkEndsWhereItsBytesEnd) {
  const std::string first = HEADER + DECLARATION;
  EXPECT_EQ(Ask({{first, "<", "a/>"}}), Success(BODY, Received(first, "25")));
}

// --- Nobody to talk to

TEST_F(NvmTransport, AnEmptyAddressDoesNothingButEnter) {
  const Outcome expected = {-1,
                            UNTOUCHED,
                            "an earlier address",
                            "an earlier function",
                            "an earlier reply",
                            0,
                            Debug(148, "SendToNvm")};
  EXPECT_EQ(Call("", STATUS), expected);
  EXPECT_THAT(SocketCalls(), IsEmpty());
}

TEST_F(NvmTransport, AnEmptyFunctionDoesNothingButEnter) {
  const Outcome expected = {-1,
                            UNTOUCHED,
                            "an earlier address",
                            "an earlier function",
                            "an earlier reply",
                            0,
                            Debug(148, "SendToNvm")};
  EXPECT_EQ(Call(ADDRESS, ""), expected);
  EXPECT_THAT(SocketCalls(), IsEmpty());
}

TEST_F(NvmTransport, ARefusedConnectionIsAnError) {
  EXPECT_EQ(Call(ADDRESS, STATUS), FailureClosed(Error(168, "connect Connection refused")));
}

TEST_F(NvmTransport, AMalformedAddressIsTheAllOnesOne) {
  const Outcome expected = {-1,
                            UNTOUCHED,
                            "not an address",
                            STATUS,
                            "",
                            0,
                            Debug(148, "SendToNvm") + Debug(151, "not an address " + STATUS) +
                                Error(168, "connect Network is unreachable")};
  EXPECT_EQ(Call("not an address", STATUS), expected);
  EXPECT_THAT(SocketCalls(), ElementsAre("socket", "connect 255.255.255.255:5302"));
}

TEST_F(NvmTransport, AFailingSocketIsAnError) {
  const FailingSocketCall failure("socket", 1, EMFILE);
  EXPECT_EQ(Call(ADDRESS, STATUS), FailureClosed(Error(159, "socket Too many open files")));
  EXPECT_THAT(SocketCalls(), ElementsAre("socket"));
}

TEST_F(NvmTransport, AnUnknownFunctionLeavesTheConnectionOpenAndUnused) {
  Outcome expected = FailureLeftOpen("");
  expected.functionName = "nvmGetdevicestatus";
  expected.log = Entry("nvmGetdevicestatus") + Error(116, "Wrong command");
  EXPECT_EQ(Ask({{HEADER + BODY}}, "nvmGetdevicestatus"), expected);
  EXPECT_THAT(requests_, ElementsAre(""));
  EXPECT_THAT(SocketCalls(), ElementsAre("socket", "connect 127.0.0.1:5302"));
}

TEST_F(NvmTransport, AnUnknownFunctionOfNobodyIsARefusedConnection) {
  Outcome expected = FailureClosed("");
  expected.functionName = "unknown";
  expected.log = Entry("unknown") + Error(168, "connect Connection refused");
  EXPECT_EQ(Call(ADDRESS, "unknown"), expected);
}

// --- Connections that break

TEST_F(NvmTransport, AFailingSendIsAnError) {
  const FailingSocketCall failure("send", 1, EPIPE);
  EXPECT_EQ(Ask({{HEADER + BODY}}), FailureClosed(Error(178, "send Broken pipe")));
  EXPECT_THAT(requests_, ElementsAre(""));
}

TEST_F(NvmTransport, AShortSendIsNotContinued) {
  const ShortSend limit(100);
  EXPECT_EQ(Ask({{HEADER + BODY}}), Success(BODY, Received(HEADER + BODY, "25")));
  ASSERT_EQ(requests_.size(), 1u);
  EXPECT_EQ(requests_[0].size(), 100u);
}

TEST_F(NvmTransport, AServiceThatClosesAtOnceHasSentAnEmptyChunk) {
  EXPECT_EQ(Ask({{}, End::kClose}), FailureLeftOpen(Received("")));
}

TEST_F(NvmTransport, AResetConnectionIsAnEmptyChunk) {
  EXPECT_EQ(Ask({{}, End::kReset}), FailureLeftOpen(Received("")));
}

TEST_F(NvmTransport, AFailingFirstReceiveIsAnEmptyChunk) {
  const FailingSocketCall failure("recv", 1, EINTR);
  EXPECT_EQ(Ask({{HEADER + BODY}}), FailureLeftOpen(Received("")));
}

TEST_F(NvmTransport, AFailingSecondReceiveAppendsTheFirstChunkAgainAndCountsBack) {
  const FailingSocketCall failure("recv", 2, EINTR);
  const std::string first = HEADER + DECLARATION;
  // 21 bytes, less one for the failure: five more make 25.
  EXPECT_EQ(Ask({{first, "", "<a/>", "!", "more"}}),
            Success(DECLARATION + first + "<a/>!", Received(first, "25")));
  EXPECT_EQ(ReceivesBegun(), 4);
}

TEST_F(NvmTransport, AFailingLaterReceiveAppendsTheChunkBeforeItAgain) {
  const FailingSocketCall failure("recv", 3, EINTR);
  const std::string first = HEADER + DECLARATION;
  EXPECT_EQ(Ask({{first, "<a", "", "/>", "!", "more"}}),
            Success(DECLARATION + "<a<a/>!", Received(first, "25")));
  EXPECT_EQ(ReceivesBegun(), 5);
}

// --- A service that hangs up within the body

// The processor time of a process, in the kernel's ticks; 0 when there is none.
long ProcessorTime(pid_t id) {
  const std::string all = ReadText("/proc/" + std::to_string(id) + "/stat");
  // Behind the name, which may hold anything, the fields 3 to 15; the last two are the times.
  const std::size_t nameEnd = all.rfind(')');
  long user = 0;
  long system = 0;
  if (nameEnd != std::string::npos) {
    std::sscanf(all.c_str() + nameEnd + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld",
                &user, &system);
  }
  return user + system;
}

TEST_F(NvmTransport, ABodyThatEndsEarlyKeepsTheCallBusyForEver) {
  const std::string reply = HEADER + DECLARATION;
  ScriptedService service({{{reply}, End::kClose}});
  Command command;
  command.prepare = [] {
    std::string replyText;
    NvmClient().SendToNvm(ADDRESS, STATUS, replyText);
    _exit(0);
  };
  BackgroundProcess client(command);
  // A call that came back, or that waited, would use no more time.
  EXPECT_TRUE(Eventually([&] { return ProcessorTime(client.Id()) > 20; }));
  EXPECT_EQ(client.End(SIGTERM).signal, SIGTERM);
  EXPECT_EQ(LogText(), Entry() + Received(reply, "25"));
}

// --- A service that says nothing

TEST_F(NvmTransport, ASilentServiceIsWaitedForWithoutATimeOut) {
  ScriptedService service({{{}, End::kHold}});
  Command command;
  command.prepare = [] {
    std::string replyText;
    NvmClient().SendToNvm(ADDRESS, STATUS, replyText);
    _exit(0);
  };
  BackgroundProcess client(command);
  EXPECT_TRUE(Eventually([] { return LogText() == Entry(); }));
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_EQ(client.End(SIGTERM).signal, SIGTERM) << "it came back";
  EXPECT_EQ(LogText(), Entry()) << "it still waits for the first chunk";
}

// --- One client, several exchanges

TEST_F(NvmTransport, EachExchangeHasAConnectionOfItsOwn) {
  ScriptedService service(
      {{{HttpReply(DECLARATION + "<first/>")}}, {{HttpReply(DECLARATION + "<second/>")}}});
  NvmClient client;
  std::string replyText;
  EXPECT_EQ(client.SendToNvm(ADDRESS, "nvmAllocateDevice", replyText), 0);
  EXPECT_EQ(replyText, DECLARATION + "<first/>");
  EXPECT_EQ(client.SendToNvm(ADDRESS, "nvmReleaseDevice", replyText), 0);
  EXPECT_EQ(replyText, DECLARATION + "<second/>");
  EXPECT_EQ(client.functionName, "nvmReleaseDevice");
  EXPECT_EQ(service.Stop().size(), 2u);
}

TEST_F(NvmTransport, AFailureForgetsTheEarlierReplyButLeavesTheCallersCopy) {
  ScriptedService service({{{HEADER + BODY}}, {{}, End::kClose}});
  NvmClient client;
  std::string replyText;
  client.SendToNvm(ADDRESS, STATUS, replyText);
  EXPECT_EQ(client.SendToNvm(ADDRESS, STATUS, replyText), -1);
  EXPECT_EQ(client.reply, "");
  EXPECT_EQ(replyText, BODY);
}

TEST_F(NvmTransport, AnotherLoopbackAddressReachesAServiceThere) {
  ScriptedService service({{{HEADER + BODY}}}, "127.0.0.9");
  NvmClient client;
  std::string replyText;
  EXPECT_EQ(client.SendToNvm("127.0.0.9", STATUS, replyText), 0);
  EXPECT_EQ(client.address, "127.0.0.9");
  EXPECT_THAT(service.Stop(), ElementsAre(testing::HasSubstr("\r\nHost: 127.0.0.9\r\n")));
}

}  // namespace
