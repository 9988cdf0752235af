// The gate alone: what it does for web servers that leave more to it than lighttpd does, and for a
// program that does not end well.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "Files.h"
#include "Pipe.h"
#include "Process.h"

namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char GATE[] = "/srv/vemo/bin/cgi-gate";
constexpr char LOCK_FILE[] = "/tmp/gate";

// The script behind the gate.
Command Gated(const std::string& script) {
  static constexpr char PROGRAM[] = "/tmp/gated";
  WriteText(PROGRAM, "#!/bin/sh\n" + script + "\n");
  std::filesystem::permissions(PROGRAM, std::filesystem::perms(0755));
  return {{GATE, PROGRAM},
          {{"CGI_GATE_FILE", LOCK_FILE},
           {"CGI_GATE_PLACES", "4"},
           {"CGI_GATE_PATIENCE", "20"},
           {"CGI_GATE_LIMIT", "20"}}};
}

// The gate reads the body first.
Command WithBody(const std::string& script, const std::string& length) {
  Command command = Gated(script);
  command.environment.insert({{"CGI_GATE_BODY", "65536"}, {"CONTENT_LENGTH", length}});
  return command;
}

// The gate stays in front of the program.
Command Apart(const std::string& script) {
  Command command = Gated(script);
  command.environment["CGI_GATE_APART"] = "1";
  return command;
}

// --- The body

TEST(GateBody, IsHandedOnHoweverItComesUpToTheLimit) {
  std::vector<std::size_t> manyPieces(360);
  std::iota(manyPieces.begin(), manyPieces.end(), 1);
  manyPieces.push_back(556);
  for (const auto& pieces : {std::vector<std::size_t>{65536}, {1, 65535}, manyPieces}) {
    Pipe body;
    Command command = WithBody("cat", "65536");
    command.prepare = [&] { dup2(body.ends[0], STDIN_FILENO); };
    auto result = std::async(std::launch::async, Execute, command);
    std::string sent;
    for (const std::size_t size : pieces) {
      const std::string piece(size, static_cast<char>('a' + size % 26));
      EXPECT_EQ(write(body.ends[1], piece.data(), size), static_cast<ssize_t>(size));
      sent += piece;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // else they come together
    }
    EXPECT_TRUE(result.get().output == sent) << pieces.size();
  }
}

TEST(GateBody, MayBeEmpty) {
  for (const std::string length : {"0", ""}) {
    EXPECT_EQ(Execute(WithBody("wc -c", length)).output, "0\n") << length;
  }
}

TEST(GateBody, IsEmptyWhereThereWasNoStandardInput) {
  Command command = WithBody("wc -c", "0");
  command.prepare = [] { close(STDIN_FILENO); };
  EXPECT_EQ(Execute(command).output, "0\n");
}

TEST(GateBody, IsRefusedWhenItsLengthIsNone) {
  for (const std::string length : {"-1", "x", "5x", "1e1"}) {
    EXPECT_THAT(Execute(WithBody("wc -c", length)).output, StartsWith("Status: 400 ")) << length;
  }
}

TEST(GateBody, IsRefusedWhenItIsTooLargeWithoutAWordOfComingAgain) {
  const Result result = Execute(WithBody("wc -c", "65537"));
  EXPECT_THAT(result.output, StartsWith("Status: 413 "));
  EXPECT_THAT(result.output, Not(HasSubstr("Retry-After")));
}

// --- The end of a program that runs apart

TEST(GateApart, EndsWithTheProgramsStatusThoughNobodyWasToWait) {
  Command command = Apart("exit 3");
  command.prepare = [] { signal(SIGCHLD, SIG_IGN); };
  EXPECT_EQ(Execute(command).exitStatus, 3);
}

TEST(GateApart, EndsByTheSignalThatEndedTheProgram) {
  for (const int number : {SIGSEGV, SIGABRT, SIGKILL, SIGALRM, SIGINT}) {
    const std::string kill = "ulimit -c 0; kill -" + std::to_string(number) + " $$";
    Command command = Apart(kill);
    command.prepare = [number] { signal(number, SIG_DFL); };
    EXPECT_EQ(Execute(command).signal, number);
  }
}

// The time limit's, which the program does not inherit like that.
TEST(GateApart, EndsByASignalThatItWasToldToIgnoreAndToBlock) {
  Command command = Apart("kill -ALRM $$");
  command.prepare = [] {
    signal(SIGALRM, SIG_IGN);
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm, nullptr);
  };
  EXPECT_EQ(Execute(command).signal, SIGALRM);
}

TEST(GateApart, DumpsNoMemoryOfItsOwn) {
  rlimit limit = {};
  getrlimit(RLIMIT_CORE, &limit);
  ASSERT_GT(limit.rlim_max, 0U) << "nobody could dump anything";
  Command command = Apart("ulimit -c 0; kill -SEGV $$");
  command.prepare = [] {
    rlimit core = {};
    getrlimit(RLIMIT_CORE, &core);
    core.rlim_cur = core.rlim_max;
    setrlimit(RLIMIT_CORE, &core);
  };
  BackgroundProcess gate(command);
  siginfo_t end = {};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(gate.Id()), &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(end.si_code, CLD_KILLED) << "not dumped";
  EXPECT_EQ(end.si_status, SIGSEGV);
}

// --- The standard descriptors

TEST(GateDescriptors, ThatAreClosedDoNotBecomeTheLockFile) {
  for (int closed = 1; closed < 8; ++closed) {
    const auto isClosed = [closed](int descriptor) { return (closed >> descriptor & 1) != 0; };
    SCOPED_TRACE(closed);
    std::filesystem::remove(LOCK_FILE);
    Command command = Gated(
        "(cd /proc/$$/fd && readlink 0 1 2 >/tmp/seen)\n"
        "echo page; echo words >&2");
    command.prepare = [&] {
      for (int descriptor = 0; descriptor < 3; ++descriptor) {
        if (isClosed(descriptor)) {
          close(descriptor);
        }
      }
    };
    const Result result = Execute(command);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, isClosed(STDOUT_FILENO) ? "" : "page\n");
    EXPECT_EQ(result.error, isClosed(STDERR_FILENO) ? "" : "words\n");
    EXPECT_EQ(ReadText(LOCK_FILE), "");
    std::vector<testing::Matcher<std::string>> expected;
    for (int descriptor = 0; descriptor < 3; ++descriptor) {
      expected.push_back(StartsWith(isClosed(descriptor) ? "/dev/null" : "pipe:"));
    }
    EXPECT_THAT(Lines(ReadText("/tmp/seen")), ElementsAreArray(expected));
  }
}

// --- The requests of one client

// One of them may be here. The program stays when it is told to.
Command OfClient(const std::string& address) {
  Command command = Gated(
      "[ -z \"$STAY\" ] || { echo >>/tmp/began; while [ ! -e /tmp/go ]; do /bin/sleep 0.02; done; "
      "}\n"
      "echo in");
  command.environment.insert({{"CGI_GATE_CLIENT", "1"}, {"REMOTE_ADDR", address}});
  return command;
}

// When so many requests of the first may be here, and are.
bool IsLetInBeside(const std::string& address, const std::string& other, int number = 1) {
  WriteText("/tmp/began", "");
  std::filesystem::remove("/tmp/go");
  Command staying = OfClient(address);
  staying.environment["STAY"] = "1";
  staying.environment["CGI_GATE_CLIENT"] = std::to_string(number);
  std::vector<std::future<Result>> first;
  for (int i = 0; i < number; ++i) {
    first.push_back(std::async(std::launch::async, Execute, staying));
  }
  EXPECT_TRUE(Eventually(
      [&] { return ReadText("/tmp/began").size() == static_cast<std::size_t>(number); }));
  const Result second = Execute(OfClient(other));
  WriteText("/tmp/go", "");
  for (std::future<Result>& result : first) {
    EXPECT_EQ(result.get().output, "in\n");
  }
  if (second.output == "in\n") {
    return true;
  }
  EXPECT_THAT(second.output, StartsWith("Status: 503 "));
  EXPECT_THAT(second.output, HasSubstr("Retry-After"));
  EXPECT_EQ(second.exitStatus, 1);
  return false;
}

using Addresses = std::vector<std::pair<std::string, std::string>>;

TEST(GateClient, HasItsRequestsCounted) {
  for (const auto& [address, same] : Addresses{{"192.168.7.2", "192.168.7.2"},
                                               {"192.168.7.2", "::ffff:192.168.7.2"},
                                               {"255.255.255.255", "255.255.255.255"},
                                               {"fd00::7:2", "fd00:0::7:2"},
                                               {"fe80::1%eth0", "fe80::1"}}) {
    EXPECT_FALSE(IsLetInBeside(address, same)) << same;
  }
}

TEST(GateClient, IsNotTakenForAnother) {
  for (const auto& [address, other] : Addresses{{"192.168.7.2", "192.168.7.3"},
                                                {"192.168.7.2", "192.168.8.2"},
                                                {"255.255.255.255", "0.0.0.0"},
                                                {"fd00::7:2", "fd00::7:3"},
                                                {"fe80::1", "fe80::2"},
                                                {"fd00:1::1", "fd00:2::1"},
                                                {"192.168.7.2", "fd00::7:2"}}) {
    EXPECT_TRUE(IsLetInBeside(address, other)) << other;
  }
  EXPECT_TRUE(IsLetInBeside("192.168.7.2", "192.168.7.3", 2));
}

TEST(GateClient, OfThisMachineIsNotCounted) {
  for (const std::string address :
       {"127.0.0.1", "127.1.2.3", "::1", "::ffff:127.0.0.1", "", "unix:"}) {
    EXPECT_TRUE(IsLetInBeside(address, address)) << address;
  }
}

TEST(GateClient, MayComeAgainWhenItsRequestIsOver) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Execute(OfClient("192.168.7.2")).output, "in\n");
  }
}

TEST(GateClient, IsNotCountedWhereTheGateIsToldSo) {
  Command command = Gated("echo $CGI_GATE_CLIENT.");
  command.environment["REMOTE_ADDR"] = "192.168.7.2";
  EXPECT_EQ(Execute(command).output, ".\n");
  command.environment["CGI_GATE_CLIENT"] = "0";
  EXPECT_EQ(Execute(command).output, ".\n");
}

}  // namespace
