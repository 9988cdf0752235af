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
  ExpectTexts(
      ShowWith("/build/tests/java/calling"),
      {"<title>VEMO Web Server - Device Information</title>", TIMEOUT_300, FREE,
       "<dt>Owner</dt><dd>None</dd>", "<dt>Status</dt><dd>No error (code 0)</dd>",
       "<dt>LAN address</dt><dd>192.0.2.7</dd>", "<dt>WLAN address</dt><dd>198.51.100.9</dd>"});
}

TEST_F(SiblingPages, InformationReportsThatTheServiceIsNotThereAndShowsTheRest) {
  // A network that is not our own may have an address.
  const std::string network = IsTraced() ? "" : "Not connected</dd>";
  ExpectTexts(
      Show(Get("")),
      {"The nVm service does not answer", TIMEOUT_300, "<dt>LAN address</dt><dd>" + network},
      {"<dt>Allocation</dt>"});
}

TEST_F(SiblingPages, InformationReportsThatTheJavaSideIsNotThereAndShowsTheRest) {
  StartService();
  ExpectTexts(ShowWith("/nowhere"), {"The Java side does not answer", TIMEOUT_300, FREE},
              {"<dt>LAN address</dt>"});
}

TEST_F(SiblingPages, InformationShowsAllButTheAddressesWhenTheVmEndsTheProcess) {
  StartService();
  Command request = WithVariable(Get(""), "JAVA_OPTIONS", "-Xmx1k");
  request.words = {INFORMATION};
  ExpectTexts(Execute(request).output, {FREE, TIMEOUT_300});
}

// Nothing is claimed about a network that could not be asked for.
TEST_F(SiblingPages, InformationReportsThatAnAddressIsNotKnownWhenItsMethodIsMissing) {
  ExpectTexts(ShowWith("/build/tests/java/without"), {"<dt>LAN address</dt><dd>Not known</dd>",
                                                      "<dt>WLAN address</dt><dd>Not known</dd>"});
}

TEST_F(SiblingPages, InformationExplainsTheTimeoutBesideItsField) {
  ExpectTexts(Show(Get("")), {"required=\"required\" pattern=\"[0-9]{1,6}\" maxlength=\"7\"",
                              "aria-describedby=\"timeout-hint\"",
                              "<p class=\"hint\" id=\"timeout-hint\" >", "number of milliseconds",
                              "listens on a CAN line", "after a reboot", "some seconds"});
}

TEST_F(SiblingPages, InformationReportsThatTheSettingsCannotBeRead) {
  std::filesystem::permissions(SETTINGS_FILE, std::filesystem::perms(0));
  ExpectTexts(Show(Get("")),
              {"The settings file cannot be read", "name=\"CanDetectTimeout\" value=\"\""});
}

TEST_F(SiblingPages, InformationEscapesTheStoredValue) {
  WriteText(SETTINGS_FILE, "[SETTINGS]\nVEMODCanDetectTimeout=\"><script>&\xFC\n");
  ExpectTexts(Show(Get("")), {"value=\"&quot;&gt;&lt;script&gt;&amp;&uuml;\" inputmode"});
}

// ---- The allocation.

// An nVm service that answers an order and the question behind it with the same packet.
std::string ShowAnswered(const std::string& body, const Command& request = Get("")) {
  const ScriptedReply reply = {{HttpReply(body)}, ScriptedReply::End::kClose};
  ScriptedService service({reply, reply});
  return ShowPage(INFORMATION, request);
}

TEST_F(SiblingPages, InformationShowsTheServicesCodeAndMessage) {
  ExpectTexts(ShowAnswered(NvmReply("0", "", "", "0", "Done")), {"<dd>Done (code 0)</dd>"});
  ExpectTexts(ShowAnswered(NvmReply("0", "", "", "7", "")),
              {"<dd>Error without a message (code 7)</dd>"});
}

TEST_F(SiblingPages, InformationReportsWhatTheServicesAnswerDoesNotContainAsNotKnown) {
  ExpectTexts(ShowAnswered("<?xml version='1.0'?><html/>", PostForm("allocation=allocate")),
              {"Allocate may have failed: the nVm service's answer cannot be read.",
               "<dt>Allocation</dt><dd>Not known</dd>", "<dt>Owner</dt><dd>Not known</dd>",
               "<dt>Status</dt><dd>Not known</dd>"},
              {"name=\"allocation\""});
}

TEST_F(SiblingPages, InformationAllocatesAndReleases) {
  StartService();
  ExpectTexts(Show(PostForm("allocation=allocate")),
              {"<dt>Allocation</dt><dd>Allocated</dd>", "<dt>Owner</dt><dd>VEMO_WEB</dd>",
               "value=\"Release\""},
              {"value=\"Allocate\""});
  ExpectTexts(Show(PostForm("allocation=release")), {FREE, "value=\"Allocate\""},
              {"value=\"Release\""});
}

TEST_F(SiblingPages, InformationChangesNothingOnAGetOrAnUnknownOrder) {
  StartService();
  for (const Command& request :
       {Get("allocation=allocate"), PostForm("allocation=other"), PostForm("")}) {
    ExpectTexts(Show(request), {FREE});
  }
}

TEST_F(SiblingPages, InformationReportsARefusalAndOffersNothingToOthers) {
  StartService();
  AllocateAs("Werkstatt &lt;M\xC3\xBCller&gt;");
  ExpectTexts(Show(PostForm("allocation=allocate")),
              {"<p class=\"warn\" >Allocate was refused: Device is allocated by "
               "Werkstatt &lt;M&uuml;ller&gt; (code 1).</p>",
               "<dt>Owner</dt><dd>Werkstatt &lt;M&uuml;ller&gt;</dd>"},
              {"name=\"allocation\""});
}

TEST_F(SiblingPages, InformationReportsAnOrderThatDidNotReachTheService) {
  ExpectTexts(Show(PostForm("allocation=allocate")),
              {"<p class=\"warn\" >Allocate did not reach the nVm service.</p>"});
  ExpectTexts(Show(PostForm("allocation=other")), {}, {"did not reach"});
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
  ExpectTexts(Show(Get("")), {information + "</div>\n<h2>Device Information</h2>\n"});
  ExpectTexts(ShowPage(REBOOT, Get("")),
              {information + " / <a class=\"small\" href=\"reboot.cgi\" >Reboot</a></div>\n"
                             "<h2>Reboot</h2>\n"});
}

TEST_F(SiblingPages, TheyLogUnderTheirOwnNames) {
  ShowPage(REBOOT, Get(""));
  EXPECT_THAT(ReadText(LOG_FILE), testing::HasSubstr("pages/Reboot             1     main\n"));
}

}  // namespace
