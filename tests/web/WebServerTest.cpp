// The device as a browser meets it: the real web server runs the real program; curl is the client.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <list>
#include <map>
#include <ostream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "Request.h"
#include "Tcp.h"

namespace {

using testing::AnyOfArray;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr char ROOT[] = "http://localhost:8080";
constexpr char CHANGE[] = "/setobdconf.cgi?CanDetectTimeout=500";
constexpr char SHIPPED_SETTINGS[] = "/source/standin/obd.conf";

struct Response {
  int status = 0;
  std::map<std::string, std::string> headers;  // by name, in lower case
  std::string body;
};

Command Curl(const std::vector<std::string>& arguments) {
  Command command;
  command.words = {"/usr/bin/curl", "-q", "--silent", "--show-error", "--max-time", "50"};
  command.words.insert(command.words.end(), arguments.begin(), arguments.end());
  return command;
}

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char character) { return std::tolower(character); });
  return text;
}

Response ParseResponse(const std::string& text) {
  static const std::regex statusLine(R"(HTTP/1\.[01] (\d{3}) .*\r)");
  static const std::regex headerLine(R"(([^:]+): (.*)\r)");
  Response response;
  const auto end = text.find("\r\n\r\n");
  if (end == std::string::npos) {
    ADD_FAILURE() << "not a response: " << text;
    return response;
  }
  response.body = text.substr(end + 4);
  for (const std::string& line : Lines(text.substr(0, end + 2))) {
    std::smatch match;
    if (std::regex_match(line, match, statusLine)) {
      response.status = std::stoi(match[1]);
    } else if (std::regex_match(line, match, headerLine)) {
      response.headers[LowerCase(match[1])] = match[2];
    }
  }
  return response;
}

// What the device answers. `arguments` are further ones of curl: a header, a body, a method.
Response Fetch(const std::string& path, std::vector<std::string> arguments = {}) {
  arguments.insert(arguments.end(), {"--include", "--path-as-is", ROOT + path});
  const Result result = Execute(Curl(arguments));
  EXPECT_EQ(result.exitStatus, 0) << path << ": " << result.error;
  return ParseResponse(result.output);
}

// Of exactly this request target, which curl would set right.
Response FetchTarget(const std::string& target) {
  return Fetch("/", {"--request-target", target});
}

// The page as it arrives: the web server takes the program's header off.
std::string Body(const std::string& page) {
  return page.substr(page.find("\n\n") + 2);
}

// The shipped settings, but for the one value.
std::string SettingsWith(const std::string& value) {
  const std::string key = "\nVEMODCanDetectTimeout=";
  std::string text = ReadText(SHIPPED_SETTINGS);
  const auto begin = text.find(key) + key.size();
  return text.replace(begin, text.find('\n', begin) - begin, value);
}

const auto isStoryOfSuccess =
    ElementsAre("DEBUG src/SetObdConf 30 main", "DEBUG src/JavaVmWrapper 73 OpenJavaVM",
                StartsWith("DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: "),
                "DEBUG src/JavaVmWrapper 99 JAVA_CLASSPATH:/srv/vemo/java",
                "DEBUG src/JavaVmWrapper 155 ChangeStdErr");

// Texts of the web server's configuration, and what a test puts in their place.
using Edits = std::vector<std::pair<std::string, std::string>>;

// The shipped configuration, or a copy of it with these edits, each made where it finds its text.
std::string ConfigurationWith(const Edits& edits) {
  const std::string shipped = "/srv/vemo/";
  const std::string copy = "/tmp/configuration/";
  if (edits.empty()) {
    return shipped + "lighttpd.conf";
  }
  std::map<std::string, std::string> files;
  for (const char* name : {"", "-paths", "-same-site", "-site"}) {
    const std::string file = "lighttpd" + std::string(name) + ".conf";
    files[file] = ReadText(shipped + file);
  }
  Edits all = {{"var.vemo_folder       = \"/srv/vemo\"", "var.vemo_folder = \"" + copy + "\""}};
  all.insert(all.end(), edits.begin(), edits.end());
  for (const auto& [before, after] : all) {
    bool isFound = false;
    for (auto& [file, text] : files) {
      const auto position = isFound ? std::string::npos : text.find(before);
      if (position != std::string::npos) {
        text.replace(position, before.size(), after);
        isFound = true;
      }
    }
    EXPECT_TRUE(isFound) << "not in the configuration: " << before;
  }
  for (const auto& [file, text] : files) {
    WriteText(copy + file, text);
  }
  return copy + "lighttpd.conf";
}

class WebServer : public testing::Test {
 protected:
  explicit WebServer(const Edits& edits = {}) : WebServer(ConfigurationWith(edits)) {}

  explicit WebServer(const std::string& configuration)
      : server_(
            Command{{"/usr/sbin/lighttpd", "-D", "-f", configuration}, {{"VEMO_PORT", "8080"}}}) {}

  void SetUp() override {
    ResetDevice();
    WriteText(SETTINGS_FILE, ReadText(SHIPPED_SETTINGS));
    ASSERT_TRUE(Eventually([] { return Execute(Curl({ROOT})).exitStatus == 0; }))
        << ReadText("/tmp/lighttpd-error.log");
  }

  static void ExpectNothingDone() {
    EXPECT_EQ(ReadText(SETTINGS_FILE), ReadText(SHIPPED_SETTINGS));
    EXPECT_EQ(ReadText(LOG_FILE), "") << "the program was started";
  }

  // The server's child processes: programs, and gates that wait.
  std::string Children() const {
    const std::string id = std::to_string(server_.Id());
    return ReadText("/proc/" + id + "/task/" + id + "/children");
  }

  // Programs that the server has started and that have not ended; not who waits at the gate.
  std::vector<pid_t> RunningPrograms() const {
    std::istringstream children(Children());
    std::vector<pid_t> programs;
    for (std::string child; children >> child;) {
      std::error_code isGone;
      const auto path = std::filesystem::read_symlink("/proc/" + child + "/exe", isGone);
      if (!isGone && path.filename() != "cgi-gate" && path.filename() != "lighttpd") {
        programs.push_back(std::stoi(child));
      }
    }
    return programs;
  }

 private:
  BackgroundProcess server_;
};

TEST_F(WebServer, ServesAGetRequest) {
  const Response response = Fetch(CHANGE);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.headers.at("content-type"), "text/html");
  EXPECT_EQ(response.body, Body(SuccessPage("500")));
  EXPECT_EQ(ReadText(SETTINGS_FILE), SettingsWith("500"));
  EXPECT_THAT(LoggedStatements(), isStoryOfSuccess);
}

TEST_F(WebServer, ServesAPostedForm) {
  const Response response =
      Fetch("/setobdconf.cgi", {"--data", "CanDetectTimeout=half+a%20second"});
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, Body(SuccessPage("half a second")));
  EXPECT_EQ(ReadText(SETTINGS_FILE), SettingsWith("half a second"));
  EXPECT_THAT(LoggedStatements(), isStoryOfSuccess);
}

TEST_F(WebServer, ServesAPostedMultipartForm) {
  const Response response = Fetch("/setobdconf.cgi", {"--form", "CanDetectTimeout=500"});
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, Body(SuccessPage("500")));
  EXPECT_EQ(ReadText(SETTINGS_FILE), SettingsWith("500"));
  EXPECT_THAT(LoggedStatements(), isStoryOfSuccess);
}

// The program's exit status 1 is no error of the server's.
TEST_F(WebServer, ServesTheWarningAsAnOrdinaryPage) {
  const Response response = Fetch("/setobdconf.cgi");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, Body(WarningPage()));
  EXPECT_EQ(ReadText(SETTINGS_FILE), ReadText(SHIPPED_SETTINGS));
}

TEST_F(WebServer, CutsThePageWhereTheProgramAborts) {
  const std::string partWithoutEmptyLine =
      "--frontier\r\n"
      "Content-Disposition: form-data; name=\"CanDetectTimeout\"\r\n"
      "--frontier--\r\n";
  const Response response =
      Fetch("/setobdconf.cgi", {"--header", "Content-Type: multipart/form-data; boundary=frontier",
                                "--data-binary", partWithoutEmptyLine});
  const std::string whole = Body(WarningPage());
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, whole.substr(0, whole.find("<p class=\"warn\"")));
  EXPECT_EQ(ReadText(SETTINGS_FILE), ReadText(SHIPPED_SETTINGS));
}

// The program would abort on it.
TEST_F(WebServer, KeepsABodyShorterThanDeclaredFromTheProgram) {
  const Result result =
      Execute(Curl({"--max-time", "1", "--header", "Content-Length: 100", "--data",
                    "CanDetectTimeout=500", std::string(ROOT) + "/setobdconf.cgi"}));
  EXPECT_NE(result.exitStatus, 0);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(Fetch("/").status, 200);
  ExpectNothingDone();
}

// The Java VM leaves its door for debuggers behind when it does not end by itself.
TEST_F(WebServer, KeepsNothingOfAProgramThatAborts) {
  Fetch("/setobdconf.cgi", {"--header", "Content-Type: multipart/form-data; boundary=frontier",
                            "--data-binary", "--frontier\r\nX: y\r\n--frontier--\r\n"});
  EXPECT_THAT(ReadText(LOG_FILE), HasSubstr("ChangeStdErr"));
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    EXPECT_THAT(entry.path().filename(), Not(StartsWith(".java_pid")));
  }
}

// --- Limits

// The configuration class holds every program in its Java VM until it is let go.
const Edits HELD = {{"\"/srv/vemo/java\"", "\"/build/tests/java/holding\""}};
constexpr char LET_GO[] = "/tmp/let-go";

class HeldPrograms : public WebServer {
 protected:
  explicit HeldPrograms(Edits edits = {}) : WebServer((edits.push_back(HELD[0]), edits)) {}

  void SetUp() override {
    std::filesystem::remove(LET_GO);
    WebServer::SetUp();
  }

  void TearDown() override {
    LetGo();
    EXPECT_TRUE(Eventually([this] { return Children().empty(); }));
    std::filesystem::remove(LET_GO);
  }

  static void LetGo() { WriteText(LET_GO, ""); }

  std::list<BackgroundProcess> StartClients(int count) const {
    std::list<BackgroundProcess> clients;
    for (int i = 0; i < count; ++i) {
      clients.emplace_back(client_);
    }
    return clients;
  }

  const Command client_ = Curl({"--output", "/dev/null", std::string(ROOT) + CHANGE});
};

TEST_F(HeldPrograms, FinishTheRequestOfAClientThatWentAway) {
  BackgroundProcess client(client_);
  ASSERT_TRUE(Eventually([this] { return RunningPrograms().size() == 1; }));
  client.End(SIGKILL);
  // Who is answered now was heard after the end of the other.
  EXPECT_EQ(Fetch("/").status, 200);
  EXPECT_EQ(ReadText(SETTINGS_FILE), ReadText(SHIPPED_SETTINGS));
  LetGo();
  EXPECT_TRUE(Eventually([] { return ReadText(SETTINGS_FILE) == SettingsWith("500"); }));
}

// The Java VM is started behind the frame.
TEST_F(HeldPrograms, AreSeenAtWork) {
  static constexpr char PAGE[] = "/tmp/page";
  BackgroundProcess client(Curl({"--no-buffer", "--output", PAGE, std::string(ROOT) + CHANGE}));
  EXPECT_TRUE(Eventually([] { return ReadText(PAGE).find("clear:both") != std::string::npos; }));
  EXPECT_THAT(RunningPrograms(), SizeIs(1));
}

// Each holds a Java VM.
TEST_F(HeldPrograms, AreFourAtMost) {
  const auto clients = StartClients(12);
  EXPECT_TRUE(Eventually([this] { return RunningPrograms().size() == 4; }));
  EXPECT_FALSE(
      Eventually([this] { return RunningPrograms().size() > 4; }, std::chrono::seconds(1)));
}

TEST_F(HeldPrograms, KeepNobodyFromThePagesThatNeedNone) {
  const auto clients = StartClients(12);
  ASSERT_TRUE(Eventually([this] { return RunningPrograms().size() == 4; }));
  EXPECT_EQ(Fetch("/").status, 200);
  EXPECT_THAT(RunningPrograms(), SizeIs(4));
}

TEST_F(HeldPrograms, GiveTheirPlaceToTheNextHoweverTheyEnd) {
  const auto clients = StartClients(5);
  ASSERT_TRUE(Eventually([this] { return RunningPrograms().size() == 4; }));
  const auto first = RunningPrograms();
  kill(first[0], SIGKILL);
  EXPECT_TRUE(Eventually([&] {
    const auto now = RunningPrograms();
    return now.size() == 4 && now != first;
  }));
}

class ImpatientGate : public HeldPrograms {
 protected:
  ImpatientGate() : HeldPrograms({{"PATIENCE\" => \"60", "PATIENCE\" => \"1"}}) {}
};

TEST_F(ImpatientGate, TellsWhoGetsNoPlaceToComeAgain) {
  const auto clients = StartClients(4);
  ASSERT_TRUE(Eventually([this] { return RunningPrograms().size() == 4; }));
  const Response response = Fetch(CHANGE);
  EXPECT_EQ(response.status, 503);
  EXPECT_EQ(response.headers.count("retry-after"), 1u);
  EXPECT_EQ(response.body, ReadText("/source/web/htdocs/errors/503.html"));
  EXPECT_EQ(ReadText(SETTINGS_FILE), ReadText(SHIPPED_SETTINGS));
}

// A client that sends its request byte by byte.
TEST_F(WebServer, ServesOthersBesideSlowClients) {
  std::list<Connection> slow;
  for (int i = 0; i < 60; ++i) {
    slow.emplace_back("127.0.0.1", 8080).Send("GET / HTTP/1.1\r\nX: ");
  }
  std::filesystem::remove("/tmp/page");
  const BackgroundProcess client(Curl({"--output", "/tmp/page", ROOT}));
  bool isServed = false;
  for (int i = 0; i < 15 && !isServed; ++i) {
    for (Connection& connection : slow) {
      connection.Send("x");
    }
    isServed =
        Eventually([] { return std::filesystem::exists("/tmp/page"); }, std::chrono::seconds(1));
  }
  EXPECT_TRUE(isServed);
}

// Its streams would be many requests on one connection.
TEST_F(WebServer, SpeaksNoHttp2) {
  const std::vector<std::string> version = {"--output", "/dev/null", "--write-out",
                                            "%{http_version}", ROOT};
  auto arguments = version;
  arguments.push_back("--http2");
  EXPECT_EQ(Execute(Curl(arguments)).output, "1.1");
  arguments.back() = "--http2-prior-knowledge";
  EXPECT_NE(Execute(Curl(arguments)).output, "2");
}

// The gate's time limit, short, and programs of the test's own beside the device's.
class TimeLimit : public WebServer {
 protected:
  explicit TimeLimit(Edits edits = {})
      : WebServer((edits.push_back({"LIMIT\"    => \"60", "LIMIT\"    => \"1"}), edits)) {}

  // More than may run at once: the limit has to hold while others wait.
  void ExpectThatAllEndWithAnAnswer(const std::string& path) const {
    const Result result =
        Execute(Curl({"--parallel", "--parallel-immediate", "--parallel-max", "12", "--write-out",
                      "%{http_code}\n", "--output", "/dev/null", ROOT + path + "?number=[1-12]"}));
    EXPECT_EQ(result.exitStatus, 0) << result.error;
    EXPECT_THAT(Lines(result.output), testing::AllOf(SizeIs(12), Each(AnyOfArray({"200", "500"}))));
    EXPECT_TRUE(Eventually([this] { return RunningPrograms().empty(); }));
  }
};

TEST_F(TimeLimit, EndsAProgramThatWaitsForItsLogFile) {
  ASSERT_EQ(mkfifo(LOG_FILE, 0600), 0);
  ExpectThatAllEndWithAnAnswer("/setobdconf.cgi");
  std::filesystem::remove(LOG_FILE);
  EXPECT_EQ(Fetch("/").status, 200);
}

TEST_F(TimeLimit, EndsAProgramThatWaitsForTheNvmService) {
  const Listener service("127.0.0.1", NVM_PORT);
  ExpectThatAllEndWithAnAnswer("/channeldeviceconfig.cgi");
}

class TimeLimitInJava : public TimeLimit {
 protected:
  TimeLimitInJava() : TimeLimit(HELD) {}
};

TEST_F(TimeLimitInJava, EndsAProgram) {
  std::filesystem::remove(LET_GO);
  ExpectThatAllEndWithAnAnswer("/setobdconf.cgi");
}

class OwnProgram : public TimeLimit {
 protected:
  OwnProgram() : TimeLimit({{"\"/srv/vemo/htdocs\"", "\"/tmp/programs\""}}) {}

  void SetUp() override {
    WriteText("/tmp/programs/index.html", "");
    TimeLimit::SetUp();
  }

  static void Write(const std::string& script) {
    const std::string path = "/tmp/programs/own.cgi";
    WriteText(path, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(path, std::filesystem::perms(0755));
  }

  static std::string Answer() { return "printf 'Content-Type: text/plain\\n\\n'; "; }
};

TEST_F(OwnProgram, IsEndedWhenItOnlyWaits) {
  Write("exec sleep 1000");
  ExpectThatAllEndWithAnAnswer("/own.cgi");
}

TEST_F(OwnProgram, IsSaidInTheServersLogToHaveBeenEnded) {
  static constexpr char ERROR_LOG[] = "/tmp/lighttpd-error.log";
  WriteText(ERROR_LOG, "");
  Write("exec sleep 1000");
  Fetch("/own.cgi");
  EXPECT_TRUE(Eventually(
      [] { return ReadText(ERROR_LOG).find("died with signal 14\n") != std::string::npos; }));
}

TEST_F(OwnProgram, IsEndedWhenItIsBusyAndDoesNotLetItselfBeTerminated) {
  Write("trap '' TERM HUP INT; while :; do :; done");
  ExpectThatAllEndWithAnAnswer("/own.cgi");
}

TEST_F(OwnProgram, IsEndedWhileItSpeaks) {
  Write(Answer() + "while :; do echo more; sleep 0.1; done");
  ExpectThatAllEndWithAnAnswer("/own.cgi");
}

TEST_F(OwnProgram, IsEndedWhenItClosedItsOutput) {
  Write(Answer() + "exec >&- 2>&-; exec sleep 1000");
  ExpectThatAllEndWithAnAnswer("/own.cgi");
}

TEST_F(OwnProgram, SeesNothingOfTheGate) {
  Write(Answer() + "/usr/bin/env");
  const Response response = Fetch("/own.cgi");
  EXPECT_THAT(response.body, HasSubstr("JAVA_CLASSPATH=/srv/vemo/java\n"));
  EXPECT_THAT(response.body, Not(HasSubstr("CGI_GATE")));
}

TEST_F(OwnProgram, IsNotShownWhenItIsNotExecutable) {
  Write(Answer());
  std::filesystem::permissions("/tmp/programs/own.cgi", std::filesystem::perms(0644));
  const Response response = Fetch("/own.cgi");
  EXPECT_EQ(response.status, 403);
  EXPECT_THAT(response.body, Not(HasSubstr("printf")));
}

class GateWithoutItsFile : public WebServer {
 protected:
  GateWithoutItsFile() : WebServer(Edits{{"/tmp/cgi-gate.lock", "/nowhere/cgi-gate.lock"}}) {}
};

TEST_F(GateWithoutItsFile, LetsNobodyIn) {
  EXPECT_EQ(Fetch(CHANGE).status, 500);
  ExpectNothingDone();
}

TEST_F(WebServer, HasNoDeadLink) {
  static const std::regex link(R"-((?:href|src|action)="([^"]*)")-");
  constexpr std::size_t MOST_PAGES = 50;
  std::vector<std::string> open = {"/", CHANGE};
  std::set<std::string> visited;
  while (!open.empty() && visited.size() < MOST_PAGES) {
    const std::string path = open.back();
    open.pop_back();
    if (!visited.insert(path).second) {
      continue;
    }
    const Response response = Fetch(path);
    EXPECT_EQ(response.status, 200) << path;
    if (response.headers.at("content-type").find("text/html") != 0) {
      continue;
    }
    const auto& page = response.body;
    for (std::sregex_iterator found(page.begin(), page.end(), link), end; found != end; ++found) {
      const std::string target = (*found)[1];
      // All pages stand at the top of the tree.
      open.push_back(target.find('/') == 0 ? target : "/" + target);
    }
  }
  EXPECT_THAT(open, SizeIs(0)) << "no end of pages";
  EXPECT_THAT(visited, IsSupersetOf({"/index.html", "/channeldeviceconfig.cgi", "/setobdconf.cgi",
                                     "/reboot.cgi", "/css/all.css", "/images/kesta.jpg",
                                     "/images/tarn.gif"}));
}

class TwentyRequestsAtOnce : public WebServer {
 protected:
  void SetUp() override {
    WebServer::SetUp();
    const Result result =
        Execute(Curl({"--parallel", "--parallel-immediate", "--parallel-max", "20", "--write-out",
                      "%{http_code}\n", "--output", "/tmp/page-#1",
                      std::string(ROOT) + "/setobdconf.cgi?CanDetectTimeout=[100-119]"}));
    ASSERT_EQ(result.exitStatus, 0) << result.error;
    EXPECT_THAT(Lines(result.output), testing::AllOf(SizeIs(20), Each("200")));
  }

  static std::vector<std::string> Values() {
    std::vector<std::string> values;
    for (int value = 100; value < 120; ++value) {
      values.push_back(std::to_string(value));
    }
    return values;
  }
};

TEST_F(TwentyRequestsAtOnce, GetTheirOwnPageEach) {
  for (const std::string& value : Values()) {
    EXPECT_EQ(ReadText("/tmp/page-" + value), Body(SuccessPage(value)));
  }
}

TEST_F(TwentyRequestsAtOnce, TellTheirStoryInWholeLinesEach) {
  std::map<int, std::vector<std::string>> stories;
  for (const std::string& text : Lines(ReadText(LOG_FILE))) {
    const LogLine line = ParseLogLine(text);
    stories[line.processId].push_back(Summary(line));
  }
  EXPECT_THAT(stories, SizeIs(20));
  for (const auto& [processId, story] : stories) {
    EXPECT_THAT(story, isStoryOfSuccess) << "of process " << processId;
  }
}

TEST_F(TwentyRequestsAtOnce, LeaveOneOfTheirValuesAndEverythingElseAsItWas) {
  std::vector<std::string> allowed;
  for (const std::string& value : Values()) {
    allowed.push_back(SettingsWith(value));
  }
  EXPECT_THAT(ReadText(SETTINGS_FILE), AnyOfArray(allowed));

  std::vector<std::string> files;
  const auto folder = std::filesystem::path(SETTINGS_FILE).parent_path();
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    files.push_back(entry.path().filename());
  }
  EXPECT_THAT(files, ElementsAre("obd.conf"));
}

// A request by what sets it apart, and the status of its answer.
struct Case {
  std::string name;
  std::vector<std::string> arguments;  // of curl
  int status = 200;
  std::string path = CHANGE;
  bool isEcho = false;
};

void PrintTo(const Case& request, std::ostream* out) {
  *out << request.status;
}

std::string NameOf(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

// As a browser asks for an address that was typed, but for this header.
std::vector<std::string> Typed(const std::string& header) {
  return {"--header", "Sec-Fetch-Site: none",     "--header", "Sec-Fetch-Mode: navigate",
          "--header", "Sec-Fetch-Dest: document", "--header", header};
}

// With which nothing but the host is wrong.
const std::string OWN_REFERER = "Referer: http://localhost:8080/";

class WebServerRefuses : public WebServer, public testing::WithParamInterface<Case> {};

TEST_P(WebServerRefuses, AndLeavesTheSettingsAlone) {
  const Response response = Fetch(CHANGE, GetParam().arguments);
  EXPECT_EQ(response.status, GetParam().status);
  // A page for people, which says nothing of the request.
  EXPECT_EQ(response.body, GetParam().arguments[0] == "--head"
                               ? ""
                               : ReadText("/source/web/htdocs/errors/" +
                                          std::to_string(GetParam().status) + ".html"));
  ExpectNothingDone();
}

INSTANTIATE_TEST_SUITE_P(
    ARequestWith, WebServerRefuses,
    testing::Values(
        Case{"AForeignHost", {"--header", "Host: foreign.example", "--header", OWN_REFERER}, 403},
        Case{"AHostThatBeginsLikeOurs",
             {"--header", "Host: localhost.foreign.example", "--header", OWN_REFERER},
             403},
        Case{"NoHost", {"--http1.0", "--header", "Host:", "--header", OWN_REFERER}, 403},
        Case{"AForeignOrigin", {"--header", "Origin: http://foreign.example"}, 403},
        Case{"AHiddenOrigin", {"--header", "Origin: null"}, 403},
        Case{"AnOriginThatBeginsLikeOurs", {"--header", "Origin: http://localhost.example"}, 403},
        Case{"AForeignReferer", {"--header", "Referer: http://foreign.example/"}, 403},
        Case{"ARefererThatBeginsLikeOurs", {"--header", "Referer: http://localhost@example/"}, 403},
        Case{"AForeignSiteSaidByTheBrowser", {"--header", "Sec-Fetch-Site: cross-site"}, 403},
        Case{"ASiblingSiteSaidByTheBrowser", {"--header", "Sec-Fetch-Site: same-site"}, 403},
        Case{"TwoSitesSaidByTheBrowser",
             {"--header", "Sec-Fetch-Site: none", "--header", "Sec-Fetch-Site: cross-site"},
             403},
        Case{"AnUnknownSite", {"--header", "Sec-Fetch-Site: future"}, 403},
        Case{"APrefetchSaidByTheBrowser", Typed("Sec-Purpose: prefetch"), 403},
        Case{"APrerenderSaidByTheBrowser", Typed("Sec-Purpose: prefetch;prerender"), 403},
        Case{"APrefetchSaidTheOlderWay", Typed("Purpose: prefetch"), 403},
        Case{"APrefetchSaidByFirefox", Typed("X-Moz: prefetch"), 403},
        Case{"APreviewSaidBySafari", Typed("X-Purpose: preview"), 403},
        Case{"AWebSocketHandshake",
             {"--header", "Connection: Upgrade", "--header", "Upgrade: websocket", "--header",
              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==", "--header",
              "Origin: http://localhost:9090"},
             403},
        Case{"APictureForItsUse", {"--header", "Sec-Fetch-Dest: image"}, 403},
        Case{"AFrameForItsUse", {"--header", "Sec-Fetch-Dest: iframe"}, 403},
        Case{"AnUnknownUse", {"--header", "Sec-Fetch-Dest: future"}, 403},
        Case{"NoUse", {"--header", "Sec-Fetch-Dest: empty"}, 403},
        Case{"TheModeOfAPicture", {"--header", "Sec-Fetch-Mode: no-cors"}, 403},
        Case{"TheModeOfAScript", {"--header", "Sec-Fetch-Mode: cors"}, 403},
        Case{"TheModeOfAWebSocket", {"--header", "Sec-Fetch-Mode: websocket"}, 403},
        Case{"AnUnknownMode", {"--header", "Sec-Fetch-Mode: future"}, 403},
        Case{"MethodHead", {"--head"}, 403},
        Case{"MethodPut", {"--request", "PUT", "--data", "CanDetectTimeout=500"}, 403},
        Case{"MethodDelete", {"--request", "DELETE"}, 403},
        Case{"MethodOptions", {"--request", "OPTIONS"}, 403},
        Case{"TooLargeABody", {"--data", "CanDetectTimeout=" + std::string(5000, '5')}, 413},
        Case{"TooLargeABodyInChunks",
             {"--header", "Transfer-Encoding: chunked", "--data",
              "CanDetectTimeout=" + std::string(5000, '5')},
             413},
        Case{"TooLargeAHeader", {"--header", "Cookie: " + std::string(5000, '5')}, 431}),
    NameOf);

class WebServerAccepts : public WebServer, public testing::WithParamInterface<Case> {};

TEST_P(WebServerAccepts, AndChangesTheSetting) {
  EXPECT_EQ(Fetch(CHANGE, GetParam().arguments).status, 200);
  EXPECT_EQ(ReadText(SETTINGS_FILE), SettingsWith("500"));
}

INSTANTIATE_TEST_SUITE_P(
    ARequestWith, WebServerAccepts,
    testing::Values(Case{"NothingSaid", {}},
                    Case{"OurOrigin", {"--header", "Origin: http://localhost:8080"}},
                    Case{"OurOriginBehindTls", {"--header", "Origin: https://localhost"}},
                    Case{"OurOriginByAddress", {"--header", "Origin: http://127.0.0.1:8080"}},
                    Case{"OurReferer", {"--header", "Referer: http://localhost:8080/index.html"}},
                    Case{"OurSiteSaidByTheBrowser", {"--header", "Sec-Fetch-Site: same-origin"}},
                    Case{"ATypedAddressSaidByTheBrowser", Typed("Sec-Fetch-User: ?1")},
                    Case{"OurFormSaidByTheBrowser",
                         {"--header", "Sec-Fetch-Site: same-origin", "--header",
                          "Sec-Fetch-Mode: navigate", "--header", "Sec-Fetch-Dest: document",
                          "--header", "Origin: http://localhost:8080", "--header",
                          "Referer: http://localhost:8080/channeldeviceconfig.cgi"}},
                    Case{"ThePortOfATunnel", {"--header", "Host: localhost:9090"}}),
    NameOf);

class ForeignOrder : public WebServer, public testing::WithParamInterface<const char*> {};

// The pages without an effect may be linked from anywhere; what is posted to them may not.
TEST_P(ForeignOrder, IsNotTaken) {
  for (const std::string page : {"/channeldeviceconfig.cgi", "/reboot.cgi", "/setobdconf.cgi",
                                 "/index.html", "/channeldeviceconfig.cgi/more"}) {
    EXPECT_EQ(Fetch(page, {"--header", GetParam(), "--data", "allocation=allocate"}).status, 403)
        << page;
  }
  EXPECT_EQ(Fetch("/reboot.cgi", {"--header", GetParam()}).status, 403);
  ExpectNothingDone();
  EXPECT_EQ(Fetch("/channeldeviceconfig.cgi", {"--header", GetParam()}).status,
            std::string(GetParam()) == "Sec-Fetch-Dest: image" ? 403 : 200);
}

INSTANTIATE_TEST_SUITE_P(With, ForeignOrder,
                         testing::Values("Origin: http://foreign.example",
                                         "Referer: http://foreign.example/",
                                         "Sec-Fetch-Site: cross-site", "Sec-Fetch-Dest: image",
                                         "Sec-Fetch-Mode: no-cors", "Sec-Purpose: prefetch",
                                         "Sec-WebSocket-Key: x"));

// Those that change nothing, too: each costs a process, and a foreign page asks as often as it
// likes.
TEST_F(WebServer, StartsNoProgramForWhatIsNoPageOfItsOwn) {
  for (const std::string page : {"/channeldeviceconfig.cgi", "/setobdconf.cgi", "/reboot.cgi",
                                 "/channeldeviceconfig.cgi/more"}) {
    for (const std::string use : {"empty", "image", "iframe", "future"}) {
      EXPECT_EQ(Fetch(page, {"--header", "Sec-Fetch-Dest: " + use}).status, 403) << page << use;
    }
  }
  for (const std::string page : {"/channeldeviceconfig.cgi", "/setobdconf.cgi", "/reboot.cgi"}) {
    EXPECT_EQ(Fetch(page, Typed("Sec-Fetch-User: ?1")).status, 200) << page;
  }
  EXPECT_EQ(Fetch("/css/all.css", {"--header", "Sec-Fetch-Dest: style"}).status, 200);
}

// Other spellings of the same address, none of which gets round the look at the origin.
class ForeignOrigin : public WebServer, public testing::WithParamInterface<const char*> {};

TEST_P(ForeignOrigin, IsRefusedHoweverTheAddressIsSpelt) {
  for (const std::string header : {"Origin: http://foreign.example", "Sec-Purpose: prefetch",
                                   "Sec-WebSocket-Key: x", "Sec-Fetch-Dest: image"}) {
    const Response response =
        Fetch(std::string(GetParam()) + "?CanDetectTimeout=500", {"--header", header});
    EXPECT_EQ(response.status, 403) << header;
  }
  ExpectNothingDone();
}

const auto spellings = testing::Values(
    "/setobdconf.cgi/more", "/setobdconf%2Ecgi", "/%73etobdconf.cgi", "//setobdconf.cgi",
    "/./setobdconf.cgi", "/css/../setobdconf.cgi", "/css/%2e%2e/setobdconf.cgi",
    "/css//../setobdconf.cgi", "/setobdconf.cgi%2Fmore", "/setobdconf.cgi/", "/setobdconf.cgi//",
    "/setobdconf%2ecgi/more", "/%2Fsetobdconf.cgi", "/%2E/setobdconf.cgi");

INSTANTIATE_TEST_SUITE_P(Address, ForeignOrigin, spellings);

// The pages in a web server of somebody else's, which has none of the modules that they rely on.
class AnotherServer : public WebServer {
 protected:
  AnotherServer() : WebServer(Configuration()) {}

  static std::string Configuration() {
    std::string text = ReadText("/source/web/lighttpd/50-vemo-web.conf.in");
    for (const auto& [before, after] : Edits{{"@VEMO_SHARED@", "/srv/vemo"},
                                             {"@VEMO_PROGRAMS@", "/srv/vemo/bin"},
                                             {"@VEMO_SETTINGS@", "/srv/vemo"},
                                             {"/run/lighttpd/", "/tmp/"}}) {
      for (auto at = text.find(before); at != std::string::npos; at = text.find(before)) {
        text.replace(at, before.size(), after);
      }
    }
    const std::string path = "/tmp/another.conf";
    WriteText(path,
              "server.modules = ( \"mod_access\" )\nserver.compat-module-load = \"disable\"\n"
              "server.document-root = \"/tmp\"\nserver.port = 8079\n"
              "server.upload-dirs = ( \"/tmp\" )\n"
              "server.errorlog = \"/tmp/lighttpd-error.log\"\n" +
                  text);
    return path;
  }
};

TEST_F(AnotherServer, ServesThePages) {
  EXPECT_THAT(Fetch("/").body, HasSubstr("<h2>VEMO Web Server</h2>"));
  EXPECT_EQ(Fetch(CHANGE).status, 200);
  EXPECT_EQ(ReadText(SETTINGS_FILE), SettingsWith("500"));
}

TEST_F(AnotherServer, RefusesForeignOrdersWithTheResponseHeaders) {
  const Response response = Fetch(CHANGE, {"--header", "Origin: http://foreign.example"});
  EXPECT_EQ(response.status, 403);
  EXPECT_EQ(response.headers.count("content-security-policy"), 1);
  ExpectNothingDone();
}

// Under an address that is not loopback, where browsers send no Sec-Fetch-*.
class NetworkServer : public WebServer {
 protected:
  NetworkServer() : WebServer(Edits{{R"(localhost|127\.0\.0\.1)", R"(192\.168\.7\.1)"}}) {}

  static Response FetchThere(const std::string& path, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--header", "Host: 192.168.7.1:8080"});
    return Fetch(path, arguments);
  }
};

class NobodysOrder : public NetworkServer, public testing::WithParamInterface<const char*> {};

TEST_P(NobodysOrder, IsRefusedHoweverTheAddressIsSpelt) {
  EXPECT_EQ(FetchThere(std::string(GetParam()) + "?CanDetectTimeout=500").status, 403);
  EXPECT_EQ(FetchThere(GetParam(), {"--data", "CanDetectTimeout=500"}).status, 403);
  ExpectNothingDone();
}

INSTANTIATE_TEST_SUITE_P(Address, NobodysOrder, spellings);

TEST_F(NetworkServer, TakesNobodysOrderForNoPage) {
  for (const std::string path : {"/channeldeviceconfig.cgi", "/reboot.cgi", "/index.html"}) {
    EXPECT_EQ(FetchThere(path, {"--data", "allocation=allocate"}).status, 403) << path;
  }
  EXPECT_EQ(FetchThere("/reboot.cgi").status, 403);
  EXPECT_EQ(FetchThere(CHANGE).status, 403);
  EXPECT_EQ(FetchThere(CHANGE, {"--header", "Origin: null"}).status, 403);
  EXPECT_EQ(FetchThere(CHANGE, {"--header", "Origin: http://192.168.7.2"}).status, 403);
  EXPECT_EQ(FetchThere(CHANGE, Typed("Sec-Fetch-User: ?1")).status, 403);
  ExpectNothingDone();
}

TEST_F(NetworkServer, ShowsToEverybodyWhatChangesNothing) {
  for (const std::string path : {"/setobdconf.cgi", "/setobdconf.cgi?", "/channeldeviceconfig.cgi",
                                 "/channeldeviceconfig.cgi?", "/index.html", "/css/all.css"}) {
    EXPECT_EQ(FetchThere(path).status, 200) << path;
  }
}

class OwnOrder : public NetworkServer, public testing::WithParamInterface<const char*> {};

TEST_P(OwnOrder, IsTaken) {
  EXPECT_EQ(FetchThere(CHANGE, {"--header", GetParam()}).status, 200);
  EXPECT_EQ(ReadText(SETTINGS_FILE), SettingsWith("500"));
  EXPECT_EQ(
      FetchThere("/setobdconf.cgi", {"--header", GetParam(), "--data", "CanDetectTimeout=501"})
          .status,
      200);
  EXPECT_EQ(ReadText(SETTINGS_FILE), SettingsWith("501"));
}

INSTANTIATE_TEST_SUITE_P(With, OwnOrder,
                         testing::Values("Origin: http://192.168.7.1:8080",
                                         "Origin: https://192.168.7.1",
                                         "Referer: http://192.168.7.1:8080/channeldeviceconfig.cgi",
                                         "Referer: https://192.168.7.1/"));

TEST_F(WebServer, RefusesAFragmentInTheAddressOfAProgram) {
  for (const std::string path :
       {"/setobdconf.cgi#?CanDetectTimeout=500", "/setobdconf.cgi?CanDetectTimeout=500#",
        "/channeldeviceconfig.cgi#", "/setobdconf.cgi?CanDetectTimeout=500#/index.html"}) {
    EXPECT_EQ(FetchTarget(path).status, 400) << path;
  }
  FetchTarget("/#/../setobdconf.cgi?CanDetectTimeout=500");
  ExpectNothingDone();
}

// The pipe by which the device is rebooted, and its reader.
class RebootOrders {
 public:
  RebootOrders() {
    std::filesystem::create_directory(std::filesystem::path(PIPE).parent_path());
    EXPECT_EQ(mkfifo(PIPE, 0600), 0);
    reader_ = open(PIPE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GE(reader_, 0);
  }
  ~RebootOrders() {
    close(reader_);
    std::filesystem::remove(PIPE);
  }
  RebootOrders(const RebootOrders&) = delete;
  RebootOrders& operator=(const RebootOrders&) = delete;

  // Those that came since the last look.
  std::string Read() const {
    char text[100];
    const ssize_t length = read(reader_, text, sizeof text);
    return {text, length > 0 ? static_cast<std::size_t>(length) : 0};
  }

 private:
  static constexpr char PIPE[] = "/run/vemo-web-reboot";
  int reader_ = -1;
};

TEST_F(WebServer, RebootsByItsOwnPagesOrderAlone) {
  const RebootOrders orders;
  for (const std::string header :
       {"Origin: http://foreign.example", "Origin: null", "Referer: http://foreign.example/",
        "Sec-Fetch-Site: cross-site", "Sec-Fetch-Site: same-site", "Sec-Fetch-Mode: no-cors",
        "Sec-Purpose: prefetch"}) {
    for (const std::string path : {"/reboot.cgi", "/reboot.cgi?before=x", "/%72eboot.cgi/more"}) {
      EXPECT_EQ(Fetch(path, {"--data", "", "--header", header}).status, 403) << path << header;
      EXPECT_EQ(Fetch(path, {"--header", header}).status, 403) << path << header;
    }
  }
  ExpectNothingDone();
  EXPECT_EQ(Fetch("/reboot.cgi").status, 200);
  EXPECT_EQ(orders.Read(), "");

  const Response response =
      Fetch("/reboot.cgi", {"--data", "", "--header", "Origin: http://localhost:8080"});
  EXPECT_THAT(response.body, HasSubstr("The device reboots now."));
  EXPECT_EQ(orders.Read(), "reboot\n");
}

class WebServerAnswer : public WebServer, public testing::WithParamInterface<Case> {};

TEST_P(WebServerAnswer, TellsTheBrowserToKeepInjectedTextInert) {
  const Response response = Fetch(GetParam().path, GetParam().arguments);
  EXPECT_EQ(response.status, GetParam().status);
  const std::string policy =
      "default-src 'none'; style-src 'self' 'unsafe-hashes' "
      "'sha256-YFOIjkCvZnAH6R5z1ZjUI/Zgf7uslK5vN80+lsdvYss='; img-src 'self'; base-uri 'none'; "
      "frame-ancestors 'none'";
  const std::string frameFiles =
      ", img-src *:*/images/kesta.jpg *:*/images/tarn.gif; style-src *:*/css/all.css "
      "'unsafe-hashes' "
      "'sha256-YFOIjkCvZnAH6R5z1ZjUI/Zgf7uslK5vN80+lsdvYss='";
  // What may echo has no form of its own, and asks for no program.
  EXPECT_EQ(response.headers.at("content-security-policy"),
            (GetParam().isEcho ? "sandbox allow-same-origin; form-action 'none'; "
                               : "sandbox allow-same-origin allow-forms; form-action 'self'; ") +
                policy + (GetParam().isEcho ? frameFiles : ""));
  EXPECT_EQ(response.headers.at("referrer-policy"), "same-origin");
  EXPECT_EQ(response.headers.at("x-content-type-options"), "nosniff");
  EXPECT_EQ(response.headers.at("x-frame-options"), "DENY");
}

INSTANTIATE_TEST_SUITE_P(
    With, WebServerAnswer,
    testing::Values(
        Case{"Home", {}, 200, "/"}, Case{"TheSuccess", {}, 200, CHANGE, true},
        Case{"ThePostedSuccess",
             {"--data", "CanDetectTimeout=500"},
             200,
             "/setobdconf.cgi/more",
             true},
        Case{"TheWarningOfAnotherField", {}, 200, "/setobdconf.cgi?x=500", true},
        Case{"TheWarning", {}, 200, "/setobdconf.cgi"},
        Case{"DeviceInformation", {}, 200, "/channeldeviceconfig.cgi"},
        Case{"TheStyleSheet", {}, 200, "/css/all.css"}, Case{"ALogo", {}, 200, "/images/tarn.gif"},
        Case{"NotFound", {}, 404, "/nowhere.html"},
        Case{"Forbidden", {"--header", "Origin: http://foreign.example"}, 403, CHANGE, true}),
    NameOf);

// The script is the page's own: browser_journey.py sees it work.
TEST_F(WebServer, LetsNoPageButTheRebootsRunAScript) {
  const std::string policy =
      "form-action 'self'; script-src 'sha256-pkwqPw7ExsSz0s1jEBEUOfXQt3sk31RQ2nS+Kb93KQE='; "
      "connect-src 'self'; default-src 'none'; style-src 'self' 'unsafe-hashes' "
      "'sha256-YFOIjkCvZnAH6R5z1ZjUI/Zgf7uslK5vN80+lsdvYss='; img-src 'self'; base-uri 'none'; "
      "frame-ancestors 'none'";
  for (const std::string path : {"/reboot.cgi", "/reboot.cgi?before=x"}) {
    EXPECT_EQ(Fetch(path).headers.at("content-security-policy"), policy) << path;
  }
  for (const std::string path : {"/reboot.cgix", "/setobdconf.cgi/reboot.cgi", "/x/reboot.cgi"}) {
    EXPECT_THAT(Fetch(path).headers.at("content-security-policy"), Not(HasSubstr("script-src")))
        << path;
  }
}

TEST_F(WebServer, ForbidsBrowsersToKeepPagesOfPrograms) {
  for (const std::string path : {"/setobdconf.cgi", "/channeldeviceconfig.cgi", "/reboot.cgi"}) {
    EXPECT_THAT(Fetch(path).headers.at("cache-control"), "no-store") << path;
  }
}

}  // namespace
