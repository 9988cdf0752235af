// The gate alone: what it does for web servers that leave more to it than lighttpd does, and for a
// program that does not end well.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <future>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "Files.h"
#include "Pipe.h"
#include "Process.h"
#include "Sandbox.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr char GATE[] = "/srv/vemo/bin/cgi-gate";
constexpr char LOCK_FILE[] = "/tmp/gate";

// The script behind the gate.
Command Gated(const std::string& script) {
  static constexpr char PROGRAM[] = "/tmp/gated";
  WriteText(PROGRAM, "#!/bin/sh\n" + script + "\n");
  std::filesystem::permissions(PROGRAM, std::filesystem::perms(0755));
  return {{GATE, PROGRAM},
          {{"CGI_GATE_SLOT_FILE", LOCK_FILE},
           {"CGI_GATE_SLOTS", "4"},
           {"CGI_GATE_QUEUE_TIMEOUT", "20"},
           {"CGI_GATE_RUN_TIMEOUT", "20"}}};
}

// The gate reads the body first.
Command WithBody(const std::string& script, const std::string& length) {
  Command command = Gated(script);
  command.environment.insert({{"CGI_GATE_MAX_BODY", "65536"}, {"CONTENT_LENGTH", length}});
  return command;
}

// The gate stays in front of the program.
Command Apart(const std::string& script) {
  Command command = Gated(script);
  command.environment["CGI_GATE_FORK"] = "1";
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

// --- The queue

// A program that tells its name when it begins, and stays until it is let go.
class GateQueue : public testing::Test {
 protected:
  using Program = std::unique_ptr<BackgroundProcess>;

  void SetUp() override {
    SKIP_WHERE_TRACED("a process seems to sleep whenever it is stopped");
    std::filesystem::remove_all(FOLDER);
    std::filesystem::create_directory(FOLDER);
    WriteText(FOLDER / "began", "");
    std::filesystem::remove(LOCK_FILE);
  }

  Command Staying(const std::string& name) const {
    Command command = Gated("cd /tmp/queue; echo " + NAME + " >>began; while [ ! -e go." + NAME +
                            " ]; do /bin/sleep 0.02; done");
    command.environment["NAME"] = name;
    command.environment["CGI_GATE_SLOTS"] = std::to_string(places_);
    return command;
  }

  // A program that has a place.
  Program Running(const std::string& name) const {
    Program program = std::make_unique<BackgroundProcess>(Staying(name));
    EXPECT_TRUE(Eventually([&] { return !Began().empty() && Began().back() == name; })) << name;
    return program;
  }

  // A program that waits for a place: asleep, so that it is in the queue.
  static Program Waiting(const Command& command) {
    Program program = std::make_unique<BackgroundProcess>(command);
    const path status = path("/proc") / std::to_string(program->Id()) / "stat";
    EXPECT_TRUE(Eventually([&] { return HasWord(status, "(cgi-gate) S"); }));
    return program;
  }
  Program Waiting(const std::string& name) const { return Waiting(Staying(name)); }

  static void LetGo(const std::string& name) { WriteText(FOLDER / ("go." + name), ""); }

  static std::vector<std::string> Began() { return Lines(ReadText(FOLDER / "began")); }

  template <typename... Names>
  static void ExpectBegan(Names... names) {
    EXPECT_TRUE(Eventually([&] { return Began().size() >= sizeof...(names); }));
    EXPECT_THAT(Began(), ElementsAre(names...));
  }

  // The processes whose end it waits for.
  static std::vector<pid_t> Watched(const Program& program) {
    std::vector<pid_t> found;
    const path folder = path("/proc") / std::to_string(program->Id()) / "fdinfo";
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
      for (const std::string& line : Lines(ReadText(file))) {
        if (line.rfind("Pid:", 0) == 0) {
          found.push_back(std::stoi(line.substr(4)));
        }
      }
    }
    return found;
  }

  // How often it slept by itself, and so was woken, in half a second.
  static long Wakings(const Program& program) {
    const auto count = [&] {
      const std::string status = ReadText("/proc/" + std::to_string(program->Id()) + "/status");
      static const std::string LABEL = "\nvoluntary_ctxt_switches:";
      return std::stol(status.substr(status.find(LABEL) + LABEL.size()));
    };
    const long before = count();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return count() - before;
  }

  int places_ = 1;

 private:
  using path = std::filesystem::path;
  static bool HasWord(const path& file, const std::string& word) {
    return ReadText(file).find(word) != std::string::npos;
  }
  static inline const path FOLDER = "/tmp/queue";
  static inline const std::string NAME = "$NAME";
};

TEST_F(GateQueue, WhoCameFirstGoesFirst) {
  const Program first = Running("first");
  std::vector<Program> waiting;
  std::vector<std::string> names = {"first"};
  for (int i = 0; i < 40; ++i) {
    names.push_back(std::to_string(i));
    LetGo(names.back());
    waiting.push_back(Waiting(names.back()));
  }
  LetGo("first");
  EXPECT_TRUE(Eventually([&] { return Began().size() == names.size(); }));
  EXPECT_THAT(Began(), ElementsAreArray(names));
}

TEST_F(GateQueue, SleepsUntilItIsItsTurn) {
  const Program first = Running("first");
  const Program head = Waiting("head");
  const Program next = Waiting("next");
  EXPECT_LE(Wakings(head), 5);
  EXPECT_LE(Wakings(next), 5);
}

TEST_F(GateQueue, GoesOnWhicheverProgramIsKilled) {
  places_ = 3;
  std::vector<Program> running;
  for (const char* name : {"a", "b", "c"}) {
    running.push_back(Running(name));
  }
  const Program head = Waiting("head");
  EXPECT_THAT(Watched(head),
              UnorderedElementsAre(running[0]->Id(), running[1]->Id(), running[2]->Id()));
  running[1]->End(SIGKILL);
  ExpectBegan("a", "b", "c", "head");
}

TEST_F(GateQueue, ClosesUpWhenWhoWaitsInItIsKilled) {
  const Program first = Running("first");
  const Program head = Waiting("head");
  const Program second = Waiting("second");
  const Program third = Waiting("third");
  const Program last = Waiting("last");
  second->End(SIGKILL);
  third->End(SIGKILL);
  LetGo("first");
  ExpectBegan("first", "head");
  // Which stays: nobody goes in its place.
  EXPECT_LE(Wakings(last), 5);
  ExpectBegan("first", "head");
  LetGo("head");
  ExpectBegan("first", "head", "last");
}

TEST_F(GateQueue, GoesOnWhenItsHeadIsKilled) {
  const Program first = Running("first");
  const Program head = Waiting("head");
  const Program next = Waiting("next");
  head->End(SIGKILL);
  EXPECT_LE(Wakings(next), 5);
  LetGo("first");
  ExpectBegan("first", "next");
}

// A program of another maker's may close what it did not open.
TEST_F(GateQueue, TakesThePlaceOfAProgramThatGaveItBackItself) {
  Command closing = Staying("closing");
  WriteText("/tmp/closing",
            "#!/bin/sh\necho closing >>/tmp/queue/began\n"
            "while [ ! -e /tmp/queue/close ]; do /bin/sleep 0.02; done\n"
            "exec 3>&-\nexec /bin/sleep 100\n");
  std::filesystem::permissions("/tmp/closing", std::filesystem::perms(0755));
  closing.words[1] = "/tmp/closing";
  closing.environment["CGI_GATE_RUN_TIMEOUT"] = "100";
  // The gate's file becomes 3, whatever else is open here.
  closing.prepare = [] {
    for (int descriptor = 3; descriptor < 100; ++descriptor) {
      close(descriptor);
    }
  };
  const BackgroundProcess first(closing);
  EXPECT_TRUE(Eventually([&] { return Began().size() == 1; }));
  Command second = Staying("head");
  second.environment["CGI_GATE_QUEUE_TIMEOUT"] = "100";  // its end would wake it
  const Program head = Waiting(second);
  WriteText("/tmp/queue/close", "");
  ExpectBegan("closing", "head");
}

TEST_F(GateQueue, LooksNowAndThenWhereTheKernelWatchesNoProgram) {
  const Program first = Running("first");
  Command blind = Staying("blind");
  blind.prepare = [] {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {sizeof filter / sizeof *filter, filter};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
      _exit(EXIT_FAILURE);
    }
  };
  const Program head = Waiting(blind);
  EXPECT_THAT(Watched(head), IsEmpty());
  EXPECT_LE(Wakings(head), 60);
  LetGo("first");
  ExpectBegan("first", "blind");
}

// --- The requests of one client

// One of them may be here. The program stays when it is told to.
Command OfClient(const std::string& address) {
  Command command = Gated(
      "[ -z \"$STAY\" ] || { echo >>/tmp/began; while [ ! -e /tmp/go ]; do /bin/sleep 0.02; done; "
      "}\n"
      "echo in");
  command.environment.insert({{"CGI_GATE_CLIENT_SLOTS", "1"}, {"REMOTE_ADDR", address}});
  return command;
}

// When so many requests of the first may be here, and are.
bool IsLetInBeside(const std::string& address, const std::string& other, int number = 1) {
  WriteText("/tmp/began", "");
  std::filesystem::remove("/tmp/go");
  Command staying = OfClient(address);
  staying.environment["STAY"] = "1";
  staying.environment["CGI_GATE_CLIENT_SLOTS"] = std::to_string(number);
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
  Command command = Gated("echo $CGI_GATE_CLIENT_SLOTS.");
  command.environment["REMOTE_ADDR"] = "192.168.7.2";
  EXPECT_EQ(Execute(command).output, ".\n");
  command.environment["CGI_GATE_CLIENT_SLOTS"] = "0";
  EXPECT_EQ(Execute(command).output, ".\n");
}

}  // namespace
