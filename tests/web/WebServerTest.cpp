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
#include <string>
#include <vector>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "Request.h"

namespace {

using testing::AnyOfArray;
using testing::Each;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::SizeIs;
using testing::StartsWith;

constexpr char ROOT[] = "http://localhost:8080";
constexpr char CHANGE[] = "/setobdconf.cgi?CanDetectTimeout=500";
constexpr char SHIPPED_SETTINGS[] = "/source/device/obd.conf";

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

class WebServer : public testing::Test {
 protected:
  WebServer()
      : server_(Command{{"/usr/sbin/lighttpd", "-D", "-f", "/srv/vemo/lighttpd.conf"},
                        {{"VEMO_PORT", "8080"}}}) {}

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

  // Programs that the server has started and that have not ended.
  std::size_t RunningPrograms() const {
    const std::string id = std::to_string(server_.Id());
    const std::string children = ReadText("/proc/" + id + "/task/" + id + "/children");
    return static_cast<std::size_t>(std::count(children.begin(), children.end(), ' '));
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

class HeldPrograms : public WebServer {
 protected:
  // The log file is a pipe without a reader: it holds every program at its first statement.
  void SetUp() override {
    WebServer::SetUp();
    ASSERT_EQ(mkfifo(LOG_FILE, 0600), 0);
  }

  void TearDown() override {
    LetGo();
    EXPECT_TRUE(Eventually([this] { return RunningPrograms() == 0; }));
    close(log_);
  }

  void LetGo() {
    if (log_ < 0) {
      log_ = open(LOG_FILE, O_RDWR | O_CLOEXEC);
    }
  }

  const Command client_ = Curl({"--output", "/dev/null", std::string(ROOT) + CHANGE});

 private:
  int log_ = -1;
};

TEST_F(HeldPrograms, FinishTheRequestOfAClientThatWentAway) {
  BackgroundProcess client(client_);
  ASSERT_TRUE(Eventually([this] { return RunningPrograms() == 1; }));
  client.End(SIGKILL);
  // Who is answered now was heard after the end of the other.
  EXPECT_EQ(Fetch("/").status, 200);
  EXPECT_EQ(ReadText(SETTINGS_FILE), ReadText(SHIPPED_SETTINGS));
  LetGo();
  EXPECT_TRUE(Eventually([] { return ReadText(SETTINGS_FILE) == SettingsWith("500"); }));
}

// Each holds a Java VM.
TEST_F(HeldPrograms, AreFourAtMost) {
  std::list<BackgroundProcess> clients;
  for (int i = 0; i < 6; ++i) {
    clients.emplace_back(client_);
  }
  EXPECT_TRUE(Eventually([this] { return RunningPrograms() == 4; }));
  EXPECT_FALSE(Eventually([this] { return RunningPrograms() > 4; }, std::chrono::seconds(1)));
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
};

void PrintTo(const Case& request, std::ostream* out) {
  *out << request.status;
}

std::string NameOf(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

class WebServerRefuses : public WebServer, public testing::WithParamInterface<Case> {};

TEST_P(WebServerRefuses, AndLeavesTheSettingsAlone) {
  EXPECT_EQ(Fetch(CHANGE, GetParam().arguments).status, GetParam().status);
  ExpectNothingDone();
}

INSTANTIATE_TEST_SUITE_P(
    ARequestWith, WebServerRefuses,
    testing::Values(
        Case{"AForeignHost", {"--header", "Host: foreign.example"}, 403},
        Case{"AHostThatBeginsLikeOurs", {"--header", "Host: localhost.foreign.example"}, 403},
        Case{"NoHost", {"--http1.0", "--header", "Host:"}, 403},
        Case{"AForeignOrigin", {"--header", "Origin: http://foreign.example"}, 403},
        Case{"AHiddenOrigin", {"--header", "Origin: null"}, 403},
        Case{"AnOriginThatBeginsLikeOurs", {"--header", "Origin: http://localhost.example"}, 403},
        Case{"AForeignReferer", {"--header", "Referer: http://foreign.example/"}, 403},
        Case{"ARefererThatBeginsLikeOurs", {"--header", "Referer: http://localhost@example/"}, 403},
        Case{"AForeignSiteSaidByTheBrowser", {"--header", "Sec-Fetch-Site: cross-site"}, 403},
        Case{"ASiblingSiteSaidByTheBrowser", {"--header", "Sec-Fetch-Site: same-site"}, 403},
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
    testing::Values(Case{"OurOrigin", {"--header", "Origin: http://localhost:8080"}},
                    Case{"OurOriginByAddress", {"--header", "Origin: http://127.0.0.1:8080"}},
                    Case{"OurReferer", {"--header", "Referer: http://localhost:8080/index.html"}},
                    Case{"OurSiteSaidByTheBrowser", {"--header", "Sec-Fetch-Site: same-origin"}},
                    Case{"ATypedAddressSaidByTheBrowser", {"--header", "Sec-Fetch-Site: none"}},
                    Case{"ThePortOfATunnel", {"--header", "Host: localhost:9090"}}),
    NameOf);

// The pages without an effect may be linked from anywhere; what is posted to them may not.
TEST_F(WebServer, TakesNoOrderForTheDeviceFromAForeignSite) {
  for (const std::string page : {"/channeldeviceconfig.cgi", "/reboot.cgi"}) {
    EXPECT_EQ(
        Fetch(page, {"--header", "Origin: http://foreign.example", "--data", "allocation=allocate"})
            .status,
        403);
  }
  ExpectNothingDone();
  EXPECT_EQ(
      Fetch("/channeldeviceconfig.cgi", {"--header", "Referer: http://foreign.example/"}).status,
      200);
}

// Other spellings of the same address, none of which gets round the look at the origin.
class ForeignOrigin : public WebServer, public testing::WithParamInterface<const char*> {};

TEST_P(ForeignOrigin, IsRefusedHoweverTheAddressIsSpelt) {
  const Response response = Fetch(std::string(GetParam()) + "?CanDetectTimeout=500",
                                  {"--header", "Origin: http://foreign.example"});
  EXPECT_EQ(response.status, 403);
  ExpectNothingDone();
}

INSTANTIATE_TEST_SUITE_P(Address, ForeignOrigin,
                         testing::Values("/setobdconf.cgi/more", "/setobdconf%2Ecgi",
                                         "/%73etobdconf.cgi", "//setobdconf.cgi",
                                         "/./setobdconf.cgi", "/css/../setobdconf.cgi",
                                         "/css/%2e%2e/setobdconf.cgi"));

TEST_F(WebServer, LetsNoForeignSiteReboot) {
  const Response response =
      Fetch("/reboot.cgi", {"--data", "", "--header", "Origin: http://foreign.example"});
  EXPECT_EQ(response.status, 403);
}

class WebServerAnswer : public WebServer, public testing::WithParamInterface<Case> {};

TEST_P(WebServerAnswer, TellsTheBrowserToKeepInjectedTextInert) {
  const Response response = Fetch(GetParam().path, GetParam().arguments);
  EXPECT_EQ(response.status, GetParam().status);
  EXPECT_EQ(response.headers.at("content-security-policy"),
            "sandbox allow-same-origin allow-forms; default-src 'none'; style-src 'self'; "
            "img-src 'self'; form-action 'self'; base-uri 'none'; frame-ancestors 'none'");
  EXPECT_EQ(response.headers.at("referrer-policy"), "same-origin");
  EXPECT_EQ(response.headers.at("x-content-type-options"), "nosniff");
  EXPECT_EQ(response.headers.at("x-frame-options"), "DENY");
}

INSTANTIATE_TEST_SUITE_P(
    With, WebServerAnswer,
    testing::Values(Case{"Home", {}, 200, "/"}, Case{"TheSuccess", {}},
                    Case{"TheWarning", {}, 200, "/setobdconf.cgi"},
                    Case{"DeviceInformation", {}, 200, "/channeldeviceconfig.cgi"},
                    Case{"Reboot", {}, 200, "/reboot.cgi"},
                    Case{"TheStyleSheet", {}, 200, "/css/all.css"},
                    Case{"ALogo", {}, 200, "/images/tarn.gif"},
                    Case{"NotFound", {}, 404, "/nowhere.html"},
                    Case{"Forbidden", {"--header", "Origin: http://foreign.example"}, 403}),
    NameOf);

TEST_F(WebServer, ForbidsBrowsersToKeepPagesOfPrograms) {
  for (const std::string path : {"/setobdconf.cgi", "/channeldeviceconfig.cgi", "/reboot.cgi"}) {
    EXPECT_THAT(Fetch(path).headers.at("cache-control"), "no-store") << path;
  }
}

}  // namespace
