// Toggling the allocation: what is asked, what is traced, what is left in the status file.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Files.h"
#include "NvmClient.h"
#include "ScriptedService.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;

constexpr char STATUS_FILE[] = "/tmp/cgirep.txt";
const std::string DECLARATION = "<?xml version='1.0'?>";
const std::string MARKS = "332\n335\n337\n339\n341\n";

// A status reply in which the variable's value is this element or text.
std::string StatusReply(const std::string& value) {
  return DECLARATION + "<var name=\"IsAllocated\">" + value + "</var><var name=\"Next\"></var>";
}

const std::string FREE = StatusReply("<string>0</string>");
const std::string FREE_TRACE = "21 69 <var name=\"IsAllocated\"><string>0</string></var>\n0\n";

std::string Framed(const std::string& reply) {
  return "\n\n" + reply + "\n";
}

class NvmToggle : public testing::Test {
 protected:
  void SetUp() override {
    EmptyLog();
    ForgetXmlCalls();
    std::filesystem::remove_all(STATUS_FILE);
  }
  void TearDown() override { std::filesystem::remove_all(STATUS_FILE); }

  // Toggles once, with a service that gives these bodies, and closes the connection in place of an
  // empty one; the trace is then in `trace_`, what it was asked in `requests_`.
  int ToggleWith(const std::vector<std::string>& bodies) {
    std::vector<ScriptedReply> replies;
    for (const std::string& body : bodies) {
      replies.push_back(body.empty() ? ScriptedReply{{}, ScriptedReply::End::kClose}
                                     : ScriptedReply{{HttpReply(body)}});
    }
    ScriptedService service(replies);
    testing::internal::CaptureStdout();
    const int result = ToggleDeviceAllocation();
    trace_ = testing::internal::GetCapturedStdout();
    requests_ = service.Requests();
    return result;
  }

  static std::string RequestFor(const std::string& functionName) {
    NvmClient client;
    client.address = "127.0.0.1";
    client.functionName = functionName;
    return client.BuildRequest();
  }

  // The log of an exchange: the reply is logged whole.
  static std::string Exchange(const std::string& functionName, const std::string& body) {
    const std::string begun = Debug(148, "SendToNvm") + Debug(151, "127.0.0.1 " + functionName);
    return body.empty() ? begun + Debug(185, "Receive:\n")
                        : begun + Debug(185, "Receive:\n" + HttpReply(body)) +
                              Debug(191, "ConLen: " + std::to_string(body.size()));
  }

  std::string trace_;
  std::vector<std::string> requests_;
};

// --- A free device, an allocated device

struct Allocation {
  std::string status;
  std::string trace;  // of the value
  std::string asked;
};

Allocation Released(const std::string& value) {
  const std::string variable = "<var name=\"IsAllocated\"><string>" + value + "</string></var>";
  const std::string end = std::to_string(21 + variable.size());
  return {StatusReply("<string>" + value + "</string>"),
          "21 " + end + " " + variable + "\n" + value + "\n", "nvmReleaseDevice"};
}

// The positions are those of the whole reply; the first variable of the name counts.
const Allocation ALLOCATIONS[] = {
    {FREE, FREE_TRACE, "nvmAllocateDevice"},
    Released("1"),
    Released(" 0"),
    Released("0 "),
    Released("00"),
    Released(""),
    Released("false"),
    Released("<string>0"),
    {DECLARATION + "<var name=\"First\"></var>\n" +
         StatusReply("\n<x/><string>0</string> ").substr(21),
     "46 100 <var name=\"IsAllocated\">\n<x/><string>0</string> </var>\n0\n", "nvmAllocateDevice"},
    {Released("1").status + FREE.substr(21), Released("1").trace, "nvmReleaseDevice"}};

using NvmAllocation = NvmToggle;

TEST_F(NvmAllocation, IsMadeWhenTheValueIsZeroAndElseReleased) {
  const std::string done = DECLARATION + "<done/>";
  const std::string last = DECLARATION + "<status/>";
  for (const auto& [status, trace, asked] : ALLOCATIONS) {
    EmptyLog();
    EXPECT_EQ(ToggleWith({status, done, last}), 0);
    EXPECT_EQ(trace_, Framed(status) + MARKS + trace + Framed(done) + Framed(last));
    EXPECT_THAT(requests_, ElementsAre(RequestFor("nvmGetDeviceStatus"), RequestFor(asked),
                                       RequestFor("nvmGetDeviceStatus")));
    EXPECT_EQ(LogText(), Exchange("nvmGetDeviceStatus", status) + Exchange(asked, done) +
                             Exchange("nvmGetDeviceStatus", last));
    EXPECT_EQ(ReadText(STATUS_FILE), status + "\n") << "the first reply and a line feed";
  }
}

TEST_F(NvmToggle, AFailingLaterExchangeIsAnEmptyReplyAndNotReported) {
  const std::string done = DECLARATION + "<done/>";
  EXPECT_EQ(ToggleWith({FREE, "", done}), 0);
  EXPECT_THAT(trace_, EndsWith("\n0\n" + Framed("") + Framed(done)));
  EXPECT_EQ(ToggleWith({FREE, done, ""}), 0);
  EXPECT_THAT(trace_, EndsWith("\n0\n" + Framed(done) + Framed("")));
}

// --- Replies without the value: no further exchange

struct Unfound {
  const char* name;
  std::string status;
  std::string lastWords;
};

const Unfound UNFOUND[] = {
    {"EmptyReply", "", "Start 1 nicht gefunden!\n"},
    {"NoVariable",
     DECLARATION + "<var name=\"isAllocated\"><string>0</string></var><var name=\"N\"/>",
     "Start 1 nicht gefunden!\n"},
    {"VariableInSingleQuotes",
     DECLARATION + "<var name='IsAllocated'><string>0</string></var><var name='N'/>",
     "Start 1 nicht gefunden!\n"},
    {"LastVariable", DECLARATION + "<var name=\"IsAllocated\"><string>0</string></var></struct>",
     "End 1 nicht gefunden!\n"},
    {"NumberAsValue", StatusReply("<number>0</number>"),
     "21 69 <var name=\"IsAllocated\"><number>0</number></var>\nStart 2 nicht gefunden!\n"},
    {"ValueOfTheNextVariable", StatusReply("") + "<string>0</string>",
     "21 51 <var name=\"IsAllocated\"></var>\nStart 2 nicht gefunden!\n"},
    {"EndBeforeTheStart", StatusReply("</string><string>0"),
     "21 69 <var name=\"IsAllocated\"></string><string>0</var>\nEnd 2 nicht gefunden!\n"}};

using NvmToggleSearch = NvmToggle;

TEST_F(NvmToggleSearch, GivesUpWithItsReason) {
  for (const auto& [name, status, lastWords] : UNFOUND) {
    SCOPED_TRACE(name);
    EmptyLog();
    EXPECT_EQ(ToggleWith({status}), -1);
    EXPECT_EQ(trace_, Framed(status) + MARKS + lastWords);
    EXPECT_THAT(requests_, ElementsAre(RequestFor("nvmGetDeviceStatus")));
    EXPECT_EQ(LogText(), Exchange("nvmGetDeviceStatus", status));
    EXPECT_EQ(ReadText(STATUS_FILE), status + "\n");
  }
}

// --- The status file

TEST_F(NvmToggle, TheStatusFileIsWrittenAnewAndWhereALinkInItsPlaceLeads) {
  constexpr char ELSEWHERE[] = "/tmp/elsewhere";
  WriteText(ELSEWHERE, std::string(1000, 'x'));
  std::filesystem::create_symlink(ELSEWHERE, STATUS_FILE);
  ToggleWith({DECLARATION});
  EXPECT_EQ(ReadText(ELSEWHERE), DECLARATION + "\n");
  std::filesystem::remove(ELSEWHERE);
}

TEST_F(NvmToggle, AStatusFileThatCannotBeOpenedOrWrittenIsIgnored) {
  for (const std::string elsewhere : {"/tmp", "/dev/full"}) {
    std::filesystem::create_symlink(elsewhere, STATUS_FILE);
    EXPECT_EQ(ToggleWith({FREE, DECLARATION, DECLARATION}), 0);
    EXPECT_EQ(trace_,
              Framed(FREE) + MARKS + FREE_TRACE + Framed(DECLARATION) + Framed(DECLARATION));
    std::filesystem::remove(STATUS_FILE);
  }
}

TEST_F(NvmToggle, TheStatusFileIsReadOnceAndLibxml2CleanedUp) {
  ToggleWith({"<?xml version='1.0'?><status/>"});
  EXPECT_THAT(XmlCalls(), ElementsAre("xmlReadFile /tmp/cgirep.txt (null) 98", "xmlFreeDoc",
                                      "xmlCleanupParser", "xmlMemoryDump",
                                      // the client's end
                                      "xmlFreeDoc (null)", "xmlCleanupParser", "xmlMemoryDump"));
}

}  // namespace
