// The sibling pages, as the web server starts them: with the nVm service and the Java side there,
// and without.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "Files.h"
#include "NvmService.h"
#include "PageTest.h"
#include "Request.h"
#include "Sandbox.h"
#include "ScriptedService.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr char TIMEOUT_300[] = "name=\"CanDetectTimeout\" value=\"300\" inputmode=\"numeric\"";
constexpr char FREE[] = "<dt>Allocation</dt><dd>Free</dd>";

class SiblingPages : public testing::Test {
 protected:
  void SetUp() override {
    ResetDevice();
    WriteText(SETTINGS_FILE, "[SETTINGS]\nVEMODCanDetectTimeout=300\n");
  }

  void StartService() { service_.emplace(); }

  static std::string Show(const Command& request) { return ShowPage(INFORMATION, request); }

  static std::string ShowWith(const std::string& classPath) {
    return Show(WithVariable(Get(""), "JAVA_CLASSPATH", classPath));
  }

 private:
  std::optional<NvmService> service_;
};

TEST_F(SiblingPages, InformationShowsSettingAllocationAndAddresses) {
  StartService();
  const std::string page = ShowWith("/build/tests/java/calling");
  for (const std::string text :
       {"<title>VEMO Web Server - Device Information</title>", TIMEOUT_300, FREE,
        "<dt>Owner</dt><dd>None</dd>", "<dt>Status</dt><dd>No error (code 0)</dd>",
        "<dt>LAN address</dt><dd>192.0.2.7</dd>", "<dt>WLAN address</dt><dd>198.51.100.9</dd>"}) {
    EXPECT_THAT(page, HasSubstr(text));
  }
}

TEST_F(SiblingPages, InformationReportsThatTheServiceIsNotThereAndShowsTheRest) {
  const std::string page = Show(Get(""));
  EXPECT_THAT(page, HasSubstr("The nVm service does not answer"));
  EXPECT_THAT(page, HasSubstr(TIMEOUT_300));
  // A network that is not our own may have an address.
  EXPECT_THAT(page, HasSubstr(IsTraced() ? "<dt>LAN address</dt><dd>"
                                         : "<dt>LAN address</dt><dd>Not connected</dd>"));
  EXPECT_THAT(page, Not(HasSubstr("<dt>Allocation</dt>")));
}

TEST_F(SiblingPages, InformationReportsThatTheJavaSideIsNotThereAndShowsTheRest) {
  StartService();
  const std::string page = ShowWith("/nowhere");
  EXPECT_THAT(page, HasSubstr("The Java side does not answer"));
  EXPECT_THAT(page, HasSubstr(TIMEOUT_300));
  EXPECT_THAT(page, HasSubstr(FREE));
  EXPECT_THAT(page, Not(HasSubstr("<dt>LAN address</dt>")));
}

TEST_F(SiblingPages, InformationShowsAllButTheAddressesWhenTheVmEndsTheProcess) {
  StartService();
  Command request = WithVariable(Get(""), "JAVA_OPTIONS", "-Xmx1k");
  request.words = {INFORMATION};
  const std::string page = Execute(request).output;
  EXPECT_THAT(page, HasSubstr(FREE));
  EXPECT_THAT(page, HasSubstr(TIMEOUT_300));
}

// Nothing is claimed about a network that could not be asked for.
TEST_F(SiblingPages, InformationReportsThatAnAddressIsNotKnownWhenItsMethodIsMissing) {
  const std::string page = ShowWith("/build/tests/java/without");
  EXPECT_THAT(page, HasSubstr("<dt>LAN address</dt><dd>Not known</dd>"));
  EXPECT_THAT(page, HasSubstr("<dt>WLAN address</dt><dd>Not known</dd>"));
}

TEST_F(SiblingPages, InformationExplainsTheTimeoutBesideItsField) {
  const std::string page = Show(Get(""));
  for (const std::string text :
       {"required=\"required\" pattern=\"[0-9]{1,6}\" maxlength=\"7\"",
        "aria-describedby=\"timeout-hint\"", "<p class=\"hint\" id=\"timeout-hint\" >",
        "number of milliseconds", "listens on a CAN line", "after a reboot", "some seconds"}) {
    EXPECT_THAT(page, HasSubstr(text));
  }
}

TEST_F(SiblingPages, InformationReportsThatTheSettingsCannotBeRead) {
  std::filesystem::permissions(SETTINGS_FILE, std::filesystem::perms(0));
  const std::string page = Show(Get(""));
  EXPECT_THAT(page, HasSubstr("The settings file cannot be read"));
  EXPECT_THAT(page, HasSubstr("name=\"CanDetectTimeout\" value=\"\""));
}

TEST_F(SiblingPages, InformationEscapesTheStoredValue) {
  WriteText(SETTINGS_FILE, "[SETTINGS]\nVEMODCanDetectTimeout=\"><script>&\xFC\n");
  EXPECT_THAT(Show(Get("")), HasSubstr("value=\"&quot;&gt;&lt;script&gt;&amp;&uuml;\" inputmode"));
}

// ---- The allocation.

// An nVm service that answers an order and the question behind it with the same packet.
std::string ShowAnswered(const std::string& body, const Command& request = Get("")) {
  const ScriptedReply reply = {{HttpReply(body)}, ScriptedReply::End::kClose};
  ScriptedService service({reply, reply});
  return ShowPage(INFORMATION, request);
}

TEST_F(SiblingPages, InformationShowsTheServicesCodeAndMessage) {
  EXPECT_THAT(ShowAnswered(NvmReply("0", "", "", "0", "Done")),
              HasSubstr("<dd>Done (code 0)</dd>"));
  EXPECT_THAT(ShowAnswered(NvmReply("0", "", "", "7", "")),
              HasSubstr("<dd>Error without a message (code 7)</dd>"));
}

TEST_F(SiblingPages, InformationReportsWhatTheServicesAnswerDoesNotContainAsNotKnown) {
  const std::string page =
      ShowAnswered("<?xml version='1.0'?><html/>", PostForm("allocation=allocate"));
  EXPECT_THAT(page,
              HasSubstr("Allocate may have failed: the nVm service's answer cannot be read."));
  for (const std::string name : {"Allocation", "Owner", "Status"}) {
    EXPECT_THAT(page, HasSubstr("<dt>" + name + "</dt><dd>Not known</dd>"));
  }
  EXPECT_THAT(page, Not(HasSubstr("name=\"allocation\"")));
}

TEST_F(SiblingPages, InformationAllocatesAndReleases) {
  StartService();
  std::string page = Show(PostForm("allocation=allocate"));
  EXPECT_THAT(page, HasSubstr("<dt>Allocation</dt><dd>Allocated</dd>"));
  EXPECT_THAT(page, HasSubstr("<dt>Owner</dt><dd>VEMO_WEB</dd>"));
  EXPECT_THAT(page, HasSubstr("value=\"Release\""));
  EXPECT_THAT(page, Not(HasSubstr("value=\"Allocate\"")));

  page = Show(PostForm("allocation=release"));
  EXPECT_THAT(page, HasSubstr(FREE));
  EXPECT_THAT(page, HasSubstr("value=\"Allocate\""));
  EXPECT_THAT(page, Not(HasSubstr("value=\"Release\"")));
}

TEST_F(SiblingPages, InformationChangesNothingOnAGetOrAnUnknownOrder) {
  StartService();
  for (const Command& request :
       {Get("allocation=allocate"), PostForm("allocation=other"), PostForm("")}) {
    EXPECT_THAT(Show(request), HasSubstr(FREE));
  }
}

TEST_F(SiblingPages, InformationReportsARefusalAndOffersNothingToOthers) {
  StartService();
  AllocateAs("Werkstatt &lt;M\xC3\xBCller&gt;");
  const std::string page = Show(PostForm("allocation=allocate"));
  EXPECT_THAT(page, HasSubstr("<p class=\"warn\" >Allocate was refused: Device is allocated by "
                              "Werkstatt &lt;M&uuml;ller&gt; (code 1).</p>"));
  EXPECT_THAT(page, HasSubstr("<dt>Owner</dt><dd>Werkstatt &lt;M&uuml;ller&gt;</dd>"));
  EXPECT_THAT(page, Not(HasSubstr("name=\"allocation\"")));
}

TEST_F(SiblingPages, InformationReportsAnOrderThatDidNotReachTheService) {
  EXPECT_THAT(Show(PostForm("allocation=allocate")),
              HasSubstr("<p class=\"warn\" >Allocate did not reach the nVm service.</p>"));
  EXPECT_THAT(Show(PostForm("allocation=other")), Not(HasSubstr("did not reach")));
}

// ---- Both pages.

TEST_F(SiblingPages, AMalformedRequestEndsBeforeAnyOutput) {
  for (const std::string page : {INFORMATION, REBOOT}) {
    Command request = WithVariable(PostForm("x=1"), "CONTENT_LENGTH", "100");
    request.words = {page};
    const Result result = Execute(request);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.signal, SIGABRT);
  }
}

TEST_F(SiblingPages, TheNavigationLeadsOverThePagesParents) {
  const std::string information =
      "\n<div class=\"navi\" ><a class=\"small\" href=\"/index.html\" >Home</a> / "
      "<a class=\"small\" href=\"channeldeviceconfig.cgi\" >Device Information</a>";
  EXPECT_THAT(Show(Get("")), HasSubstr(information + "</div>\n<h2>Device Information</h2>\n"));
  EXPECT_THAT(
      ShowPage(REBOOT, Get("")),
      HasSubstr(information + " / <a class=\"small\" href=\"reboot.cgi\" >Reboot</a></div>\n"
                              "<h2>Reboot</h2>\n"));
}

TEST_F(SiblingPages, TheyLogUnderTheirOwnNames) {
  ShowPage(REBOOT, Get(""));
  EXPECT_THAT(ReadText(LOG_FILE), HasSubstr("pages/Reboot             1     main\n"));
}

}  // namespace
