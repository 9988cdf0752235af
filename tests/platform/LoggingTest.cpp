// What the log file of the whole program does not show; handlers and levels: CgiLogTest.cpp.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

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
  LogFormater(10, "src/X", 1).Log(&handler, "%s %d%%", "text", 42);
  LogFormater(10, "src/X", 1).Log(&handler, "text: %s", nothing);
  // No such character in the "C" locale.
  LogFormater(10, "src/X", 1).Log(&handler, "wide %ls", L"\x20ac");
  EXPECT_THAT(messages, ElementsAre("text 42%", "text: (null)", "wide %ls"));
  EXPECT_LE(std::abs(time.tv_sec - std::time(nullptr)), 5);
}

TEST_F(LogFormaterTest, LogsAMessageOfAnyLengthWhole) {
  for (const std::size_t length : {0u, 1u, 255u, 256u, 4095u, 4096u, 1u << 20}) {
    const std::string text(length, 'x');
    LogFormater(10, "src/X", 1).Log(&handler, "<%s>", text.c_str());
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), "<" + text + ">");
  }
}

TEST(LogEvent, GivesItsLocalTimeWithMicrosecondsAfter2038Too) {
  setenv("TZ", "UTC-2", 1);  // two hours east
  tzset();
  LogEvent event;
  event.time = {1700000000, 42};
  EXPECT_EQ(event.GetDateTimeUsec(), "2023-11-15 00:13:20.000042");
  event.time = {2209032000, 7};
  EXPECT_EQ(event.GetDateTimeUsec(), "2040-01-01 14:00:00.000007");
  unsetenv("TZ");
  tzset();
}

// The descriptor of the file at `path` in this process; -1 when it is not open.
int DescriptorOf(const std::string& path) {
  for (int descriptor = 0; descriptor < 64; ++descriptor) {
    std::error_code error;
    if (std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error) ==
        path) {
      return descriptor;
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

// Nothing but its end takes room on the disk.
TEST_F(LogClientFileTest, AppendsBeyondTheOffsetsOf32Bits) {
  for (const std::uintmax_t size : {(1ULL << 31) - 3, (1ULL << 32) - 3, 5ULL << 30}) {
    SCOPED_TRACE(size);
    WriteText(path, "");
    std::filesystem::resize_file(path, size);
    LogClientFile(path, true).HandleEvent(EventWithMessage("the end"));
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(size));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "the end\n");
  }
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
