// What the log file of the whole program does not show; handlers and levels: CgiLogTest.cpp.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "Files.h"
#include "LogClient.h"
#include "LogEvent.h"
#include "LogFormater.h"
#include "LogHandler.h"
#include "LogLayout.h"

namespace {

using testing::ElementsAre;

class MessageInBrackets : public LogLayout {
 public:
  void FormatAndAppend(std::ostream& out, const LogEvent& event) override {
    out << "[" << event.message << "]\n";
  }
};

LogEvent EventWithMessage(const std::string& message) {
  LogEvent event;
  event.message = message;
  return event;
}

// A handler, and what it gets.
class LogFormaterTest : public testing::Test, private LogHandlerClient {
 protected:
  LogFormaterTest() { handler.AddLogClient(this); }

  LogHandler handler{"h"};
  std::vector<std::string> messages;
  timeval time{};  // of the latest

 private:
  void HandleEvent(const LogEvent& event) override {
    messages.push_back(event.message);
    time = event.time;
  }
};

TEST_F(LogFormaterTest, FormatsAsPrintfDoesAndLogsAFormatThatItRefusesAsItStands) {
  const char* volatile nothing = nullptr;
  const std::string whole(1 << 20, 'x');
  LogFormater(10, "src/X", 1).Log(&handler, "%s %d%%", "text", 42);
  LogFormater(10, "src/X", 1).Log(&handler, "text: %s", nothing);
  LogFormater(10, "src/X", 1).Log(&handler, "%s", whole.c_str());
  // No such character in the "C" locale.
  LogFormater(10, "src/X", 1).Log(&handler, "wide %ls", L"\x20ac");
  EXPECT_THAT(messages, ElementsAre("text 42%", "text: (null)", whole, "wide %ls"));
  EXPECT_LE(std::abs(time.tv_sec - std::time(nullptr)), 5);
}

// The descriptor of the file at `path` in this process; -1 when it is not open.
int DescriptorOf(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    if (std::filesystem::read_symlink(entry) == path) {
      return std::stoi(entry.path().filename());
    }
  }
  return -1;
}

class LogClientFileTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::remove(path); }
  const std::string path = "/tmp/client.log";
};

TEST_F(LogClientFileTest, WritesTheMessageAloneUntilItHasALayout) {
  MessageInBrackets layout;
  LogClientFile client(path, true);
  client.HandleEvent(EventWithMessage("one"));
  client.HandleEvent(EventWithMessage("two"));
  client.SetLayout(&layout);
  client.HandleEvent(EventWithMessage("three"));
  EXPECT_EQ(ReadText(path), "one\ntwo\n[three]\n");
}

// Also behind what others wrote meanwhile.
TEST_F(LogClientFileTest, AppendsOrBeginsAnew) {
  WriteText(path, "earlier\n");
  LogClientFile client(path, true);
  client.HandleEvent(EventWithMessage("appended"));
  EXPECT_EQ(ReadText(path), "earlier\nappended\n");
  LogClientFile(path, false).HandleEvent(EventWithMessage("anew"));
  client.HandleEvent(EventWithMessage("behind it"));
  EXPECT_EQ(ReadText(path), "anew\nbehind it\n");
}

// The limit on the size of files has room for ten bytes of it.
TEST_F(LogClientFileTest, EndsTheLineThatALimitOrAFullDiskCut) {
  WriteText(path, std::string(4096 - 11, 'x') + "\n");
  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit limit = {4096, before.rlim_max};
  testing::internal::CaptureStderr();
  LogClientFile client(path, true);
  setrlimit(RLIMIT_FSIZE, &limit);
  client.HandleEvent(EventWithMessage("0123456789 and more"));
  client.HandleEvent(EventWithMessage("nothing of this"));
  setrlimit(RLIMIT_FSIZE, &before);
  client.HandleEvent(EventWithMessage("the next"));
  LogClientFile(path, true).HandleEvent(EventWithMessage("another's"));
  client.HandleEvent(EventWithMessage("behind it"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Can't write log file /tmp/client.log: File too large\n");
  EXPECT_EQ(ReadText(path).substr(4096 - 10), "012345678\nthe next\nanother's\nbehind it\n");
}

TEST_F(LogClientFileTest, LeavesTheCallersSignalsAsTheyWere) {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  raise(SIGPIPE);
  LogClientFile(path, true).HandleEvent(EventWithMessage("one"));
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
  const timespec now = {0, 0};
  EXPECT_EQ(sigtimedwait(&pipe, nullptr, &now), SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
}

TEST_F(LogClientFileTest, StaysOffTheStandardDescriptors) {
  for (int closed = STDIN_FILENO; closed <= STDERR_FILENO; ++closed) {
    const int saved = fcntl(closed, F_DUPFD_CLOEXEC, 100);
    close(closed);
    {
      LogClientFile client(path, true);
      EXPECT_GT(DescriptorOf(path), STDERR_FILENO);
      EXPECT_EQ(fcntl(closed, F_GETFD), -1) << "still closed";
      EXPECT_NE(fcntl(DescriptorOf(path), F_GETFD) & FD_CLOEXEC, 0);
      EXPECT_NE(fcntl(DescriptorOf(path), F_GETFL) & O_APPEND, 0);
    }
    EXPECT_EQ(DescriptorOf(path), -1) << "closed with the client";
    dup2(saved, closed);
    close(saved);
  }
}

}  // namespace
