// The sibling pages, as the web server starts them: with the nVm service and the Java side there,
// and without.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "Files.h"
#include "NvmService.h"
#include "Process.h"
#include "Request.h"
#include "Sandbox.h"
#include "ScriptedService.h"

namespace {

using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char INFORMATION[] = "/srv/vemo/htdocs/channeldeviceconfig.cgi";
constexpr char REBOOT[] = "/srv/vemo/htdocs/reboot.cgi";

class SiblingPages : public testing::Test {
 protected:
  void SetUp() override {
    ResetDevice();
    WriteText(SETTINGS_FILE, "[SETTINGS]\nVEMODCanDetectTimeout=300\n");
  }

  void StartService() { service_.emplace(); }

  static std::string Show(Command request, const std::string& page = INFORMATION) {
    request.words = {page};
    const Result result = Execute(request);
    EXPECT_EQ(result.exitStatus, 0) << result.error;
    EXPECT_THAT(result.output, StartsWith("Content-Type: text/html\n\n"));
    EXPECT_THAT(result.output, EndsWith("</div>\n</body>\n</html>\n"));
    return result.output;
  }

 private:
  std::optional<NvmService> service_;
};

TEST_F(SiblingPages, InformationShowsSettingAllocationAndAddresses) {
  StartService();
  Command request = Get("");
  request.environment["JAVA_CLASSPATH"] = "/build/tests/java/calling";
  const std::string page = Show(request);
  EXPECT_THAT(page, HasSubstr("<title>VEMO Web Server - Device Information</title>"));
  EXPECT_THAT(page, HasSubstr("name=\"CanDetectTimeout\" value=\"300\" inputmode=\"numeric\""));
  EXPECT_THAT(page, HasSubstr("<dt>Allocation</dt><dd>Free</dd>"));
  EXPECT_THAT(page, HasSubstr("<dt>Owner</dt><dd>None</dd>"));
  EXPECT_THAT(page, HasSubstr("<dt>Status</dt><dd>No error (code 0)</dd>"));
  EXPECT_THAT(page, HasSubstr("<dt>LAN address</dt><dd>192.0.2.7</dd>"));
  EXPECT_THAT(page, HasSubstr("<dt>WLAN address</dt><dd>198.51.100.9</dd>"));
}

TEST_F(SiblingPages, InformationSaysThatTheServiceIsNotThereAndShowsTheRest) {
  const std::string page = Show(Get(""));
  EXPECT_THAT(page, HasSubstr("The nVm service does not answer"));
  EXPECT_THAT(page, HasSubstr("value=\"300\""));
  // A network that is not our own may have an address.
  EXPECT_THAT(page, HasSubstr(IsTraced() ? "<dt>LAN address</dt><dd>"
                                         : "<dt>LAN address</dt><dd>Not connected</dd>"));
  EXPECT_THAT(page, Not(HasSubstr("<dt>Allocation</dt>")));
}

TEST_F(SiblingPages, InformationSaysThatTheJavaSideIsNotThereAndShowsTheRest) {
  StartService();
  Command request = Get("");
  request.environment["JAVA_CLASSPATH"] = "/nowhere";
  const std::string page = Show(request);
  EXPECT_THAT(page, HasSubstr("The Java side does not answer"));
  EXPECT_THAT(page, HasSubstr("value=\"300\""));
  EXPECT_THAT(page, HasSubstr("<dt>Allocation</dt><dd>Free</dd>"));
  EXPECT_THAT(page, Not(HasSubstr("<dt>LAN address</dt>")));
}

// Nothing is told of a network that nobody could ask about.
TEST_F(SiblingPages, InformationSaysThatAnAddressIsNotKnownWhenItsMethodIsMissing) {
  Command request = Get("");
  request.environment["JAVA_CLASSPATH"] = "/build/tests/java/without";
  const std::string page = Show(request);
  EXPECT_THAT(page, HasSubstr("<dt>LAN address</dt><dd>Not known</dd>"));
  EXPECT_THAT(page, HasSubstr("<dt>WLAN address</dt><dd>Not known</dd>"));
}

TEST_F(SiblingPages, InformationTellsTheTimeoutsUnitAndUseBesideItsField) {
  const std::string page = Show(Get(""));
  EXPECT_THAT(page, HasSubstr("required=\"required\" pattern=\"[0-9]{1,6}\" maxlength=\"7\""));
  EXPECT_THAT(page, HasSubstr("aria-describedby=\"timeout-hint\""));
  for (const std::string text :
       {"<p class=\"hint\" id=\"timeout-hint\" >", "number of milliseconds",
        "listens on a CAN line", "after a reboot", "some seconds"}) {
    EXPECT_THAT(page, HasSubstr(text));
  }
}

// An nVm service that answers an order and the question behind it with the same packet.
class ScriptedAnswer : public SiblingPages {
 protected:
  static std::string Show(const std::string& body, Command request = Get("")) {
    const ScriptedReply reply = {{HttpReply(body)}, ScriptedReply::End::kClose};
    ScriptedService service({reply, reply});
    return SiblingPages::Show(std::move(request));
  }
};

TEST_F(ScriptedAnswer, CodeAndMessageAreSaidInWords) {
  EXPECT_THAT(Show(NvmReply("0", "", "", "0", "Done")), HasSubstr("<dd>Done (code 0)</dd>"));
  EXPECT_THAT(Show(NvmReply("0", "", "", "7", "")),
              HasSubstr("<dd>Error without a message (code 7)</dd>"));
}

TEST_F(ScriptedAnswer, WhatTheAnswerDoesNotTellIsNotKnown) {
  const std::string page = Show("<?xml version='1.0'?><html/>", PostForm("allocation=allocate"));
  EXPECT_THAT(page,
              HasSubstr("Allocate may have failed: the nVm service's answer cannot be read."));
  for (const std::string name : {"Allocation", "Owner", "Status"}) {
    EXPECT_THAT(page, HasSubstr("<dt>" + name + "</dt><dd>Not known</dd>"));
  }
  EXPECT_THAT(page, Not(HasSubstr("name=\"allocation\"")));
}

TEST_F(SiblingPages, InformationShowsAllButTheAddressesWhenTheVmEndsTheProcess) {
  StartService();
  Command request = Get("");
  request.words = {INFORMATION};
  request.environment["JAVA_OPTIONS"] = "-Xmx1k";
  const std::string page = Execute(request).output;
  EXPECT_THAT(page, HasSubstr("<dt>Allocation</dt><dd>Free</dd>"));
  EXPECT_THAT(page, HasSubstr("value=\"300\""));
}

TEST_F(SiblingPages, InformationSaysThatTheSettingsCannotBeRead) {
  std::filesystem::permissions(SETTINGS_FILE, std::filesystem::perms(0));
  const std::string page = Show(Get(""));
  EXPECT_THAT(page, HasSubstr("The settings file cannot be read"));
  EXPECT_THAT(page, HasSubstr("name=\"CanDetectTimeout\" value=\"\""));
}

TEST_F(SiblingPages, InformationEscapesTheStoredValue) {
  WriteText(SETTINGS_FILE, "[SETTINGS]\nVEMODCanDetectTimeout=\"><script>&\xFC\n");
  EXPECT_THAT(Show(Get("")), HasSubstr("value=\"&quot;&gt;&lt;script&gt;&amp;&uuml;\" inputmode"));
}

TEST_F(SiblingPages, InformationAllocatesAndReleases) {
  StartService();
  std::string page = Show(PostForm("allocation=allocate"));
  EXPECT_THAT(page, HasSubstr("<dt>Allocation</dt><dd>Allocated</dd>"));
  EXPECT_THAT(page, HasSubstr("<dt>Owner</dt><dd>VEMO_WEB</dd>"));
  EXPECT_THAT(page, HasSubstr("value=\"Release\""));
  EXPECT_THAT(page, Not(HasSubstr("value=\"Allocate\"")));

  page = Show(PostForm("allocation=release"));
  EXPECT_THAT(page, HasSubstr("<dt>Allocation</dt><dd>Free</dd>"));
  EXPECT_THAT(page, HasSubstr("value=\"Allocate\""));
  EXPECT_THAT(page, Not(HasSubstr("value=\"Release\"")));
}

TEST_F(SiblingPages, InformationChangesNothingOnAGetOrAnUnknownOrder) {
  StartService();
  EXPECT_THAT(Show(Get("allocation=allocate")), HasSubstr("<dd>Free</dd>"));
  EXPECT_THAT(Show(PostForm("allocation=other")), HasSubstr("<dd>Free</dd>"));
  EXPECT_THAT(Show(PostForm("")), HasSubstr("<dd>Free</dd>"));
}

TEST_F(SiblingPages, InformationTellsOfARefusalAndOffersNothingToOthers) {
  StartService();
  AllocateAs("Werkstatt &lt;M\xC3\xBCller&gt;");
  const std::string page = Show(PostForm("allocation=allocate"));
  EXPECT_THAT(page, HasSubstr("<p class=\"warn\" >Allocate was refused: Device is allocated by "
                              "Werkstatt &lt;M&uuml;ller&gt; (code 1).</p>"));
  EXPECT_THAT(page, HasSubstr("<dt>Owner</dt><dd>Werkstatt &lt;M&uuml;ller&gt;</dd>"));
  EXPECT_THAT(page, Not(HasSubstr("name=\"allocation\"")));
}

TEST_F(SiblingPages, InformationTellsOfAnOrderThatDidNotReachTheService) {
  EXPECT_THAT(Show(PostForm("allocation=allocate")),
              HasSubstr("<p class=\"warn\" >Allocate did not reach the nVm service.</p>"));
  EXPECT_THAT(Show(PostForm("allocation=other")), Not(HasSubstr("did not reach")));
}

TEST_F(SiblingPages, AMalformedRequestEndsBeforeAnyOutput) {
  for (const std::string page : {INFORMATION, REBOOT}) {
    Command request = PostForm("x=1");
    request.words = {page};
    request.environment["CONTENT_LENGTH"] = "100";
    const Result result = Execute(request);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.signal, SIGABRT);
  }
}

TEST_F(SiblingPages, TheNavigationLeadsOverThePagesParents) {
  const std::string information =
      "<div class=\"navi\" ><a class=\"small\" href=\"/index.html\" >Home</a> / "
      "<a class=\"small\" href=\"channeldeviceconfig.cgi\" >Device Information</a>";
  EXPECT_THAT(Show(Get("")),
              HasSubstr("\n" + information + "</div>\n<h2>Device Information</h2>\n"));
  EXPECT_THAT(Show(Get(""), REBOOT),
              HasSubstr("\n" + information +
                        " / <a class=\"small\" href=\"reboot.cgi\" >Reboot</a></div>\n"
                        "<h2>Reboot</h2>\n"));
}

TEST_F(SiblingPages, TheyLogUnderTheirOwnNames) {
  Show(Get(""), REBOOT);
  EXPECT_THAT(ReadText(LOG_FILE), HasSubstr("pages/Reboot             1     main\n"));
}

}  // namespace
