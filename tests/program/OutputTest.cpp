// The page on its way out: what is written when, and what becomes of the request when standard
// output breaks.

#include <poll.h>
#include <sys/ioctl.h>

#include "Pipe.h"
#include "ProgramTest.h"

namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;

// The request succeeded, no matter who saw its page.
void ExpectStoredAndLogged(const Result& result) {
  EXPECT_EQ(result.exitStatus, 0);
  ExpectSettings(NEW_SETTINGS);
  EXPECT_THAT(LoggedLines(), ElementsAreArray(SuccessStatements()));
}

// What one `read` gives; empty at the end, or when nothing comes for long.
std::string ReadOnce(const Pipe& pipe) {
  pollfd wait{pipe.ends[0], POLLIN, 0};
  char bytes[65536];
  const ssize_t count =
      poll(&wait, 1, 20000) == 1 ? read(pipe.ends[0], bytes, sizeof bytes) : ssize_t{0};
  return std::string(bytes, static_cast<std::size_t>(std::max(count, ssize_t{0})));
}

// ---- Flushing.

// Every `write` to standard output: a pipe in packet mode keeps them apart.
Texts WritesOfPage(const std::string& query) {
  Pipe page(O_DIRECT);
  Command request = WithFakeVm(Get(query));
  request.prepare = [&page] { dup2(page.ends[1], STDOUT_FILENO); };
  const BackgroundProcess program(request);
  page.Close(1);
  Texts writes;
  for (std::string bytes; !(bytes = ReadOnce(page)).empty();) {
    writes.push_back(bytes);
  }
  return writes;
}

// The lines of a page as they are flushed: the one after the line break goes with it.
Texts FlushedLines(const std::string& page) {
  Texts flushed;
  bool goesOn = false;
  for (const std::string& line : Lines(page)) {
    if (!goesOn) {
      flushed.emplace_back();
    }
    flushed.back() += line + "\n";
    goesOn = line.find("<br />") != std::string::npos;
  }
  return flushed;
}

using Flushing = NoSettings;

TEST_F(Flushing, EveryLineOfAPageIsWrittenAtItsEnd) {
  EXPECT_THAT(WritesOfPage("CanDetectTimeout=500"),
              ElementsAreArray(FlushedLines(SuccessPage("500"))));
  EXPECT_THAT(WritesOfPage(""), ElementsAreArray(FlushedLines(WarningPage())));
}

TEST_F(Flushing, ALineEndInTheValueIsNotFlushed) {
  EXPECT_THAT(WritesOfPage("CanDetectTimeout=a%0Ab"),
              testing::Contains("<p>Set CanDetectTimeout to a\nb ms.\n"));
}

// ---- Standard descriptors that are closed.

struct Closed {
  const char* name;
  std::vector<int> descriptors;
};

class ClosedDescriptors : public NoSettings,
                          public testing::WithParamInterface<std::tuple<Closed, Vm>> {
 protected:
  // Makes the request in a process without these descriptors.
  static Result ExecuteWithout(const std::vector<int>& descriptors, Command request) {
    request.prepare = [descriptors] {
      for (const int descriptor : descriptors) {
        close(descriptor);
      }
    };
    return Execute(request);
  }
};

TEST_P(ClosedDescriptors, ChangeNothingButWhoSeesThePage) {
  const auto& [closed, vm] = GetParam();
  const Result result = ExecuteWithout(closed.descriptors, With(vm, Get("CanDetectTimeout=500")));
  const bool isPageSeen = testing::Value(closed.descriptors, Not(testing::Contains(STDOUT_FILENO)));
  EXPECT_EQ(result.output, isPageSeen ? SuccessPage("500") : "");
  EXPECT_EQ(result.error, "");
  ExpectStoredAndLogged(result);
}

TEST_P(ClosedDescriptors, KeepThePageOutOfTheLogOfAFailure) {
  const auto& [closed, vm] = GetParam();
  Command request = With(vm, Get("CanDetectTimeout=500"));
  request.environment["JAVA_CLASSPATH"] = "/nowhere";
  request.environment["FAKE_VM_FAILS"] = "FindClass com/";
  EXPECT_EQ(ExecuteWithout(closed.descriptors, request).exitStatus, 1);
  const std::string log = ReadText(LOG_FILE);
  EXPECT_THAT(log, Not(HasSubstr("Content-Type")));
  EXPECT_THAT(log, Not(HasSubstr("</html>")));
  const auto statements = LoggedStatements();
  ASSERT_FALSE(statements.empty());
  EXPECT_EQ(statements.back(),
            "ERROR src/JavaVmWrapper 118 Class 'com/tarn/vemo/config/ConfigVemo' not found");
}

INSTANTIATE_TEST_SUITE_P(
    Program, ClosedDescriptors,
    testing::Combine(testing::Values(Closed{"0", {0}}, Closed{"1", {1}}, Closed{"2", {2}},
                                     Closed{"01", {0, 1}}, Closed{"02", {0, 2}},
                                     Closed{"12", {1, 2}}, Closed{"012", {0, 1, 2}}),
                     testing::Values(Vm::kReal, Vm::kFake)),
    ParamName());

// ---- Requests with a body that comes late.

// Posts a value, but holds the body back; the page is read by hand.
class HeldRequest {
 public:
  HeldRequest(Vm vm, const std::string& value)
      : body_("CanDetectTimeout=" + value), program_(Connected(With(vm, PostForm(body_)))) {
    input_.Close(0);
    page_.Close(1);
  }

  // What the page can hold before it is read again: one page of memory.
  static std::size_t PageRoom() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

  // Reads until the page ends so.
  std::string ReadUpTo(const std::string& end) {
    std::string text;
    std::string bytes;
    do {
      bytes = ReadOnce(page_);
      text += bytes;
    } while (!bytes.empty() && !testing::Value(text, testing::EndsWith(end)));
    return text;
  }

  std::string ReadRest() {
    std::string text;
    for (std::string bytes; !(bytes = ReadOnce(page_)).empty();) {
      text += bytes;
    }
    return text;
  }

  bool IsPageRoomFull() const {
    int size = 0;
    ioctl(page_.ends[0], FIONREAD, &size);
    return static_cast<std::size_t>(size) == PageRoom();
  }

  void SendBody() {
    EXPECT_EQ(write(input_.ends[1], body_.data(), body_.size()),
              static_cast<ssize_t>(body_.size()));
  }

  void GoAway() { page_.Close(0); }
  Result End(int signal) { return program_.End(signal); }

 private:
  Command Connected(Command request) {
    EXPECT_EQ(fcntl(page_.ends[1], F_SETPIPE_SZ, PageRoom()), static_cast<int>(PageRoom()));
    request.prepare = [this] {
      dup2(input_.ends[0], STDIN_FILENO);
      dup2(page_.ends[1], STDOUT_FILENO);
    };
    return request;
  }

  std::string body_;
  Pipe input_;
  Pipe page_;
  BackgroundProcess program_;
};

class LateBody : public OldSettings, public testing::WithParamInterface<Vm> {};

TEST_P(LateBody, AKillBeforeItLeavesAPageOfWholeLinesAndTheSettings) {
  HeldRequest request(GetParam(), "500");
  const std::string page = request.ReadUpTo(CONTENT_OPENING);
  EXPECT_EQ(request.End(SIGKILL).signal, SIGKILL);
  EXPECT_EQ(page + request.ReadRest(), PageUpTo(CONTENT_OPENING));
  ExpectSettings(OLD_SETTINGS);
  EXPECT_THAT(LoggedLines(), ElementsAreArray(SuccessStatements()));
}

TEST_P(LateBody, AKillInTheEchoLeavesTheSettings) {
  const std::string value(3 * HeldRequest::PageRoom(), '7');
  HeldRequest request(GetParam(), value);
  const std::string page = request.ReadUpTo(CONTENT_OPENING);
  request.SendBody();
  EXPECT_TRUE(Eventually([&] { return request.IsPageRoomFull(); }));
  EXPECT_EQ(request.End(SIGKILL).signal, SIGKILL);
  EXPECT_EQ(page + request.ReadRest(),
            SuccessPage(value).substr(0, page.size() + HeldRequest::PageRoom()));
  ExpectSettings(OLD_SETTINGS);
}

TEST_P(LateBody, AKillAfterTheStoreLeavesTheEchoAndTheNewSettings) {
  // Fills the page's room with the echo, but for less than the success text takes.
  const std::string value(HeldRequest::PageRoom() - 64, '7');
  const std::string newSettings = "[SETTINGS]\nVEMODCanDetectTimeout=" + value + "\n";
  HeldRequest request(GetParam(), value);
  const std::string page = request.ReadUpTo(CONTENT_OPENING);
  request.SendBody();
  EXPECT_TRUE(Eventually([&] { return ReadText(SETTINGS_FILE) == newSettings; }));
  EXPECT_EQ(request.End(SIGKILL).signal, SIGKILL);
  EXPECT_EQ(page + request.ReadRest(), PageUpTo(" ms.\n", value));
  ExpectSettings(newSettings);
}

INSTANTIATE_TEST_SUITE_P(Program, LateBody, testing::Values(Vm::kReal, Vm::kFake), ParamName());

// ---- A page without a reader.

class LostPage : public OldSettings, public testing::WithParamInterface<Vm> {};

TEST_P(LostPage, OnAFullDiskTheOptionIsStored) {
  Command request = With(GetParam(), Get("CanDetectTimeout=500"));
  request.prepare = [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };
  const Result result = Execute(request);
  EXPECT_EQ(result.error, "");
  ExpectStoredAndLogged(result);
}

TEST_P(LostPage, AReaderThatIsNotThereEndsTheRequestAtItsFirstLine) {
  Pipe page;
  page.Close(0);
  Command request = With(GetParam(), Get("CanDetectTimeout=500"));
  request.prepare = [&page] { dup2(page.ends[1], STDOUT_FILENO); };
  EXPECT_EQ(Execute(request).signal, SIGPIPE);
  ExpectSettings(OLD_SETTINGS);
  EXPECT_THAT(LoggedLines(), testing::ElementsAre("DEBUG src/SetObdConf 30 main"));
}

// The real VM, once it runs, catches the signal.
TEST_P(LostPage, AReaderThatLeavesEndsTheRequestBeforeTheStoreUnlessTheRealVmRuns) {
  HeldRequest request(GetParam(), "500");
  request.ReadUpTo(CONTENT_OPENING);
  request.GoAway();
  request.SendBody();
  const Result result = request.End(0);
  if (GetParam() == Vm::kReal) {
    ExpectStoredAndLogged(result);
  } else {
    EXPECT_EQ(result.signal, SIGPIPE);
    ExpectSettings(OLD_SETTINGS);
  }
}

INSTANTIATE_TEST_SUITE_P(Program, LostPage, testing::Values(Vm::kReal, Vm::kFake), ParamName());

}  // namespace
