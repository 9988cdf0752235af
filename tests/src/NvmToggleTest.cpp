// Toggling the allocation: what is asked, what is said, what is left in the status file.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Files.h"
#include "NvmClient.h"
#include "NvmService.h"
#include "ScriptedService.h"
#include "XmlCalls.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;

constexpr char STATUS_FILE[] = "/tmp/cgirep.txt";
const std::string DECLARATION = "<?xml version='1.0'?>";

class NvmToggle : public testing::Test {
 protected:
  void SetUp() override {
    EmptyLog();
    ForgetXmlCalls();
    std::filesystem::remove_all(STATUS_FILE);
  }

  // Toggles once, with whoever is there; the trace is then in `trace_`.
  int Toggle() {
    testing::internal::CaptureStdout();
    const int result = ToggleDeviceAllocation();
    trace_ = testing::internal::GetCapturedStdout();
    return result;
  }

  // Toggles once, with a service that gives these bodies; what it was asked is then in `requests_`.
  int ToggleWith(const std::vector<std::string>& bodies) {
    std::vector<ScriptedReply> replies;
    for (const std::string& body : bodies) {
      replies.push_back({{HttpReply(body)}});
    }
    ScriptedService service(replies);
    const int result = Toggle();
    requests_ = service.Stop();
    return result;
  }

  static std::string RequestFor(const std::string& functionName) {
    NvmClient client;
    client.address = "127.0.0.1";
    client.functionName = functionName;
    return client.BuildRequest();
  }

  // The log of an exchange with a reply.
  static std::string Exchange(const std::string& functionName, const std::string& body) {
    return Debug(148, "SendToNvm") + Debug(151, "127.0.0.1 " + functionName) +
           Debug(185, "Receive:\n" + HttpReply(body)) +
           Debug(191, "ConLen: " + std::to_string(body.size()));
  }

  std::string trace_;
  std::vector<std::string> requests_;
};

// A status reply in which the variable's value is this element or text.
std::string StatusReply(const std::string& value) {
  return DECLARATION + "<var name=\"IsAllocated\">" + value + "</var><var name=\"Next\"></var>";
}

std::string Framed(const std::string& reply) {
  return "\n\n" + reply + "\n";
}

const std::string MARKS = "332\n335\n337\n339\n341\n";

// --- A free device, an allocated device

TEST_F(NvmToggle, AFreeDeviceIsAllocated) {
  EXPECT_EQ(ToggleWith({StatusReply("<string>0</string>"), DECLARATION + "<allocated/>",
                        DECLARATION + "<status/>"}),
            0);
  EXPECT_EQ(trace_,
            "\n"
            "\n"
            "<?xml version='1.0'?><var name=\"IsAllocated\"><string>0</string></var>"
            "<var name=\"Next\"></var>\n"
            "332\n"
            "335\n"
            "337\n"
            "339\n"
            "341\n"
            "21 69 <var name=\"IsAllocated\"><string>0</string></var>\n"
            "0\n"
            "\n"
            "\n"
            "<?xml version='1.0'?><allocated/>\n"
            "\n"
            "\n"
            "<?xml version='1.0'?><status/>\n");
  EXPECT_THAT(requests_,
              ElementsAre(RequestFor("nvmGetDeviceStatus"), RequestFor("nvmAllocateDevice"),
                          RequestFor("nvmGetDeviceStatus")));
  EXPECT_EQ(LogText(), Exchange("nvmGetDeviceStatus", StatusReply("<string>0</string>")) +
                           Exchange("nvmAllocateDevice", DECLARATION + "<allocated/>") +
                           Exchange("nvmGetDeviceStatus", DECLARATION + "<status/>"));
}

class NvmAllocatedValue : public NvmToggle, public testing::WithParamInterface<std::string> {};

TEST_P(NvmAllocatedValue, OtherThanZeroIsReleased) {
  const std::string status = StatusReply("<string>" + GetParam() + "</string>");
  EXPECT_EQ(ToggleWith({status, "<?xml version='1.0'?><released/>", status}), 0);
  const std::string variable = status.substr(21, 47 + GetParam().size());
  EXPECT_EQ(trace_, Framed(status) + MARKS + "21 " + std::to_string(21 + variable.size()) + " " +
                        variable + "\n" + GetParam() + "\n" +
                        Framed("<?xml version='1.0'?><released/>") + Framed(status));
  EXPECT_THAT(requests_,
              ElementsAre(RequestFor("nvmGetDeviceStatus"), RequestFor("nvmReleaseDevice"),
                          RequestFor("nvmGetDeviceStatus")));
  EXPECT_EQ(LogText(), Exchange("nvmGetDeviceStatus", status) +
                           Exchange("nvmReleaseDevice", "<?xml version='1.0'?><released/>") +
                           Exchange("nvmGetDeviceStatus", status));
}

INSTANTIATE_TEST_SUITE_P(, NvmAllocatedValue,
                         testing::Values("1", " 0", "0 ", "00", "", "false", "<string>0"));

TEST_F(NvmToggle, ThePositionsAreThoseOfTheWholeReply) {
  const std::string status = DECLARATION + "<var name=\"First\"></var>\n" +
                             StatusReply("\n<x/><string>0</string> ").substr(21);
  EXPECT_EQ(ToggleWith({status, DECLARATION, DECLARATION}), 0);
  EXPECT_EQ(trace_, Framed(status) + MARKS +
                        "46 100 <var name=\"IsAllocated\">\n<x/><string>0</string> </var>\n0\n" +
                        Framed(DECLARATION) + Framed(DECLARATION));
}

TEST_F(NvmToggle, OnlyTheFirstVariableOfThatNameCounts) {
  const std::string status = StatusReply("<string>1</string>") +
                             StatusReply("<string>0</string>").substr(DECLARATION.size());
  EXPECT_EQ(ToggleWith({status, DECLARATION, DECLARATION}), 0);
  EXPECT_THAT(requests_, Contains(RequestFor("nvmReleaseDevice")));
}

TEST_F(NvmToggle, AFailingAllocationIsAnEmptyReplyAndNotReported) {
  ScriptedService service({{{HttpReply(StatusReply("<string>0</string>"))}},
                           {{}, ScriptedReply::End::kClose},
                           {{HttpReply(DECLARATION + "<status/>")}}});
  EXPECT_EQ(Toggle(), 0);
  EXPECT_THAT(trace_, EndsWith("\n0\n" + Framed("") + Framed(DECLARATION + "<status/>")));
}

TEST_F(NvmToggle, AFailingSecondStatusIsAnEmptyReplyAndNotReported) {
  ScriptedService service({{{HttpReply(StatusReply("<string>0</string>"))}},
                           {{HttpReply(DECLARATION + "<allocated/>")}},
                           {{}, ScriptedReply::End::kClose}});
  EXPECT_EQ(Toggle(), 0);
  EXPECT_THAT(trace_, EndsWith("\n0\n" + Framed(DECLARATION + "<allocated/>") + Framed("")));
}

// --- Replies without the value: no further exchange

class NvmToggleSearch : public NvmToggle {
 protected:
  void ExpectGivesUp(const std::string& status, const std::string& lastWords) {
    EXPECT_EQ(ToggleWith({status}), -1);
    EXPECT_EQ(trace_, Framed(status) + MARKS + lastWords);
    EXPECT_THAT(requests_, ElementsAre(RequestFor("nvmGetDeviceStatus")));
    EXPECT_EQ(LogText(), Exchange("nvmGetDeviceStatus", status));
    EXPECT_EQ(ReadText(STATUS_FILE), status + "\n");
  }
};

TEST_F(NvmToggleSearch, MissesTheVariable) {
  ExpectGivesUp(DECLARATION + "<var name=\"isAllocated\"><string>0</string></var><var name=\"N\"/>",
                "Start 1 nicht gefunden!\n");
}

TEST_F(NvmToggleSearch, MissesAVariableInSingleQuotes) {
  ExpectGivesUp(DECLARATION + "<var name='IsAllocated'><string>0</string></var><var name='N'/>",
                "Start 1 nicht gefunden!\n");
}

TEST_F(NvmToggleSearch, MissesTheEndOfTheLastVariable) {
  ExpectGivesUp(DECLARATION + "<var name=\"IsAllocated\"><string>0</string></var></struct>",
                "End 1 nicht gefunden!\n");
}

TEST_F(NvmToggleSearch, MissesTheStartOfTheValue) {
  ExpectGivesUp(StatusReply("<number>0</number>"),
                "21 69 <var name=\"IsAllocated\"><number>0</number></var>\n"
                "Start 2 nicht gefunden!\n");
}

TEST_F(NvmToggleSearch, MissesAValueThatBelongsToTheNextVariable) {
  ExpectGivesUp(StatusReply("") + "<string>0</string>",
                "21 51 <var name=\"IsAllocated\"></var>\nStart 2 nicht gefunden!\n");
}

TEST_F(NvmToggleSearch, MissesTheEndOfTheValue) {
  ExpectGivesUp(StatusReply("<string>0"),
                "21 60 <var name=\"IsAllocated\"><string>0</var>\nEnd 2 nicht gefunden!\n");
}

TEST_F(NvmToggleSearch, MissesAnEndBeforeTheStart) {
  ExpectGivesUp(StatusReply("</string><string>0"),
                "21 69 <var name=\"IsAllocated\"></string><string>0</var>\n"
                "End 2 nicht gefunden!\n");
}

TEST_F(NvmToggle, AnUnreachableServiceIsAnEmptyReply) {
  EXPECT_EQ(Toggle(), -1);
  EXPECT_EQ(trace_, "\n\n\n332\n335\n337\n339\n341\nStart 1 nicht gefunden!\n");
  EXPECT_EQ(ReadText(STATUS_FILE), "\n");
  EXPECT_EQ(LogText(), Debug(148, "SendToNvm") + Debug(151, "127.0.0.1 nvmGetDeviceStatus") +
                           Error(168, "connect Connection refused"));
}

// --- The status file

TEST_F(NvmToggle, TheStatusFileIsTheFirstReplyAndALineFeed) {
  const std::string status = StatusReply("<string>0</string>");
  ToggleWith({status, DECLARATION + "<second/>", DECLARATION + "<third/>"});
  EXPECT_EQ(ReadText(STATUS_FILE), status + "\n");
}

TEST_F(NvmToggle, TheStatusFileIsWrittenAnew) {
  WriteText(STATUS_FILE, std::string(1000, 'x'));
  ToggleWith({DECLARATION});
  EXPECT_EQ(ReadText(STATUS_FILE), DECLARATION + "\n");
}

TEST_F(NvmToggle, TheStatusFileIsWrittenWhereALinkInItsPlaceLeads) {
  constexpr char ELSEWHERE[] = "/tmp/elsewhere";
  WriteText(ELSEWHERE, "somebody's");
  std::filesystem::create_symlink(ELSEWHERE, STATUS_FILE);
  ToggleWith({DECLARATION});
  EXPECT_EQ(ReadText(ELSEWHERE), DECLARATION + "\n");
  std::filesystem::remove(ELSEWHERE);
}

TEST_F(NvmToggle, AStatusFileThatCannotBeOpenedIsIgnored) {
  std::filesystem::create_directory(STATUS_FILE);
  const std::string status = StatusReply("<string>0</string>");
  EXPECT_EQ(ToggleWith({status, DECLARATION, DECLARATION}), 0);
  EXPECT_EQ(trace_, Framed(status) + MARKS +
                        "21 69 <var name=\"IsAllocated\"><string>0</string></var>\n0\n" +
                        Framed(DECLARATION) + Framed(DECLARATION));
  EXPECT_THAT(std::filesystem::directory_iterator(STATUS_FILE),
              std::filesystem::directory_iterator());
}

TEST_F(NvmToggle, AStatusFileThatCannotBeWrittenIsIgnored) {
  std::filesystem::create_symlink("/dev/full", STATUS_FILE);
  EXPECT_EQ(ToggleWith({StatusReply("<string>0</string>"), DECLARATION, DECLARATION}), 0);
  std::filesystem::remove(STATUS_FILE);
}

TEST_F(NvmToggle, TheStatusFileIsReadOnceAndLibxml2CleanedUp) {
  ToggleWith({"<?xml version='1.0'?><status/>"});
  EXPECT_THAT(XmlCalls(), ElementsAre("xmlReadFile /tmp/cgirep.txt (null) 98", "xmlFreeDoc",
                                      "xmlCleanupParser", "xmlMemoryDump",
                                      // the client's end
                                      "xmlFreeDoc (null)", "xmlCleanupParser", "xmlMemoryDump"));
}

// --- With the stand-in device's service

TEST_F(NvmToggle, TheServiceAllocatesAndReleasesAgain) {
  const NvmService service;
  const auto segment = [](const std::string& reply, const std::string& value) {
    return std::to_string(reply.find("<var")) + " " +
           std::to_string(reply.find("<var", reply.find("<var") + 1)) +
           " <var name=\"IsAllocated\"><string>" + value + "</string></var>\n" + value + "\n";
  };
  EXPECT_EQ(Toggle(), 0);
  EXPECT_EQ(trace_, Framed(FreeReply()) + MARKS + segment(FreeReply(), "0") +
                        Framed(AllocatedReply()) + Framed(AllocatedReply()));
  EXPECT_EQ(ReadText(STATUS_FILE), FreeReply() + "\n");
  EXPECT_EQ(Toggle(), 0);
  EXPECT_EQ(trace_, Framed(AllocatedReply()) + MARKS + segment(AllocatedReply(), "1") +
                        Framed(FreeReply()) + Framed(FreeReply()));
  EXPECT_EQ(ReadText(STATUS_FILE), AllocatedReply() + "\n");
  EXPECT_THAT(NvmServiceStatements(),
              ElementsAre("INFO nvmGetDeviceStatus: 0 ; owner now: nobody",
                          "INFO nvmAllocateDevice: 0 ; owner now: VEMO_WEB",
                          "INFO nvmGetDeviceStatus: 0 ; owner now: VEMO_WEB",
                          "INFO nvmGetDeviceStatus: 0 ; owner now: VEMO_WEB",
                          "INFO nvmReleaseDevice: 0 ; owner now: nobody",
                          "INFO nvmGetDeviceStatus: 0 ; owner now: nobody"));
}

TEST_F(NvmToggle, TheServicesRepliesAreLoggedWhole) {
  const NvmService service;
  Toggle();
  // The service writes another header than the scripted one.
  const auto exchange = [](const std::string& functionName, const std::string& body) {
    const std::string length = std::to_string(body.size());
    return Debug(148, "SendToNvm") + Debug(151, "127.0.0.1 " + functionName) +
           Debug(185, "Receive:\n" + NvmHttpReply(body)) + Debug(191, "ConLen: " + length);
  };
  EXPECT_EQ(Undated(LogText()), exchange("nvmGetDeviceStatus", FreeReply()) +
                                    exchange("nvmAllocateDevice", AllocatedReply()) +
                                    exchange("nvmGetDeviceStatus", AllocatedReply()));
}

}  // namespace
