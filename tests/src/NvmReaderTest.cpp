// Reading the kept reply as a tree: variables by name, their texts, the status.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include "NvmClient.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string HEAD = "<?xml version='1.0'?><wddxPacket version='1.0'><header/>";

// A packet with these variables.
std::string Packet(const std::string& variables) {
  return HEAD + "<data><struct>" + variables + "</struct></data></wddxPacket>";
}

std::string Var(const std::string& name, const std::string& value) {
  return "<var name=\"" + name + "\">" + value + "</var>";
}

std::string Text(const std::string& text) {
  return "<string>" + text + "</string>";
}

std::string StatusOf(const std::string& variables) {
  return Packet(Var("Status", "<struct>" + variables + "</struct>"));
}

// What the operations log: their names, and the names of the variables that they see.
std::string SingleVarLog(const std::string& name, const std::vector<std::string>& seen) {
  std::string log = Debug(313, "GetSingleVar " + name) + Debug(281, "GetVarNode " + name);
  for (const std::string& variable : seen) {
    log += Debug(292, variable);
  }
  return log;
}

std::string StatusLog(const std::vector<std::string>& seen) {
  std::string log = Debug(248, "GetStatusMessages") + Debug(236, "GetStatusNodeTree") +
                    Debug(281, "GetVarNode Status");
  for (const std::string& variable : seen) {
    log += Debug(variable == seen[0] ? 292 : 255, variable);
  }
  return log;
}

class NvmReader : public testing::Test {
 protected:
  void SetUp() override {
    EmptyLog();
    ForgetXmlCalls();
  }

  std::string SingleVar(const std::string& reply, const std::string& name = "A") {
    client_.reply = reply;
    return client_.GetSingleVar(name);
  }

  // Code and message after reading, from "old code" and "old msg", as in "0/done".
  std::string StatusMessages(const std::string& reply) {
    client_.reply = reply;
    std::string code = "old code";
    std::string msg = "old msg";
    client_.GetStatusMessages(code, msg);
    return code + "/" + msg;
  }

  NvmClient client_;
};

constexpr char NO_STATUS[] = "old code/old msg";

// --- Without a reply

TEST_F(NvmReader, WithoutAReplyThereIsNothingAndTheDocumentStays) {
  SingleVar(Packet(Var("A", Text("a"))));
  const xmlDocPtr document = client_.doc;
  client_.reply = "";
  EmptyLog();
  ForgetXmlCalls();
  EXPECT_EQ(client_.GetVarNode("A"), nullptr);
  EXPECT_EQ(client_.GetStatusNodeTree(), nullptr);
  EXPECT_EQ(SingleVar(""), "");
  EXPECT_EQ(StatusMessages(""), NO_STATUS);
  EXPECT_EQ(LogText(), Debug(281, "GetVarNode A") + Debug(236, "GetStatusNodeTree") +
                           Debug(281, "GetVarNode Status") + SingleVarLog("A", {}) + StatusLog({}));
  EXPECT_EQ(client_.doc, document);
  EXPECT_THAT(XmlCalls(), IsEmpty());
}

TEST_F(NvmReader, ANameMustBeExact) {
  const std::string reply = Packet(Var("Name", Text("x")));
  for (const auto& name :
       std::vector<std::string>{"name", "NAME", "Nam", "Name ", " Name", "", {"Name\0", 5}}) {
    EXPECT_EQ(SingleVar(reply, name), "") << name;
  }
  EXPECT_EQ(SingleVar(reply, "Name"), "x");
  EXPECT_EQ(SingleVar(Packet(Var("", Text("x"))), ""), "x") << "an empty name is one, too";
}

// --- The value of the variable A

struct Value {
  const char* name;
  std::string reply;
  std::string value;
  std::vector<std::string> seen;  // the names of the variables up to A; "(null)" of other nodes
};

const std::string A = Var("A", Text("a"));

const Value VALUES[] = {
    {"FirstOfItsName", Packet(Var("A", Text("first")) + Var("A", Text("2"))), "first", {"A"}},
    {"Missing", Packet(Var("B", Text("b")) + Var("C", "") + "\n"), "", {"B", "C", "(null)"}},
    {"BehindAnother", Packet(Var("B", Text("b")) + A), "a", {"B", "A"}},
    {"OfAnotherElement", Packet("<other name='A'>text</other>"), "text", {"A"}},
    {"BehindACommentAndBlanks", Packet("<!-- A -->\n" + A), "a", {"(null)", "(null)", "A"}},
    {"Nested", StatusOf(A), "", {"Status"}},
    {"OnlyOfTheFirstChild", Packet(Var("A", Text("1") + Text("2"))), "1", {"A"}},
    {"BlanksBeforeTheValue", Packet(Var("A", "\n " + Text("a"))), "\n ", {"A"}},
    {"BareText", Packet(Var("A", "bare")), "bare", {"A"}},
    {"EmptyVariable", Packet("<var name='A'/>"), "", {"A"}},
    {"EmptyString", Packet(Var("A", "<string/>")), "", {"A"}},
    {"CharacterData", Packet(Var("A", Text("1 <![CDATA[<2> & ]]>3"))), "1 <2> & 3", {"A"}},
    {"JoinedTexts", Packet(Var("A", "<struct>1<x> 2</x>&#65;</struct>")), "1 2A", {"A"}},
    // Other packets.
    {"AnyRoot", "<any><data><struct>" + A + "</struct></data></any>", "a", {"A"}},
    {"OtherData", "<any><Data><struct>" + A + "</struct></Data></any>", "", {}},
    {"OtherStruct", "<any><data><structs>" + A + "</structs></data></any>", "", {}},
    {"SecondData", "<any><data/><data><struct>" + A + "</struct></data></any>", "", {}},
    {"SecondStruct", "<any><data><struct/><struct>" + A + "</struct></data></any>", "", {}},
    {"NoData", "<any><struct>" + A + "</struct></any>", "", {}},
    {"TextAsStruct", HEAD + "<data>struct</data></wddxPacket>", "", {}},
    {"OthersAbove", "<a>\n<x/><data>\n<y/><struct>" + A + "</struct></data></a>", "a", {"A"}}};

using NvmReaderValue = NvmReader;

TEST_F(NvmReaderValue, IsReadAndTheNamesOnTheWayLogged) {
  for (const Value& row : VALUES) {
    SCOPED_TRACE(row.name);
    EmptyLog();
    EXPECT_EQ(SingleVar(row.reply), row.value);
    EXPECT_EQ(LogText(), SingleVarLog("A", row.seen));
    EXPECT_NE(client_.doc, nullptr);
  }
}

// --- FindChildNode

using NvmChildNode = NvmReader;

TEST_F(NvmChildNode, IsTheFirstOfThatNameWhateverItsKind) {
  const std::string document = "<top>text<a n='1'/><?b?><a n='2'/><b/><!--c--></top>";
  client_.doc = xmlReadMemory(document.data(), static_cast<int>(document.size()), "", nullptr, 0);
  const xmlNodePtr top = xmlDocGetRootElement(client_.doc);
  const xmlNodePtr text = top->children;
  const xmlNodePtr a = text->next;
  const xmlNodePtr instruction = a->next;
  EXPECT_EQ(client_.FindChildNode(top, "a"), a);
  EXPECT_EQ(client_.FindChildNode(top, "b"), instruction);
  EXPECT_EQ(client_.FindChildNode(top, "text"), text);
  EXPECT_EQ(client_.FindChildNode(top, "comment"), top->last);
  for (const std::string other : {"A", "top", ""}) {
    EXPECT_EQ(client_.FindChildNode(top, other), nullptr);
  }
  EXPECT_EQ(client_.FindChildNode(a, "a"), nullptr) << "it has no children";
  EXPECT_EQ(client_.FindChildNode(nullptr, "a"), nullptr);
  EXPECT_EQ(LogText(), "");
}

// --- The status

struct Status {
  const char* name;
  std::string reply;
  std::string messages;
  std::vector<std::string> seen;  // "Status", then what stands in it
};

const std::string CODE = Var("code", Text("1"));
const std::string MSG = Var("msg", Text("held"));

const Status STATUSES[] = {
    {"CodeAndMessage", StatusOf(CODE + MSG), "1/held", {"Status", "code", "msg"}},
    {"MessageAndCode", StatusOf(MSG + CODE), "1/held", {"Status", "msg", "code"}},
    {"EmptyMessage", StatusOf(CODE + Var("msg", Text(""))), "1/", {"Status", "code", "msg"}},
    {"MessageAlone", StatusOf(MSG), "old code/held", {"Status", "msg"}},
    {"Alike",
     StatusOf(Var("Code", "1") + Var("msg ", "2") + Var("codes", "3") + Var("ms", "4")),
     NO_STATUS,
     {"Status", "Code", "msg ", "codes", "ms"}},
    {"LastOfSeveral",
     StatusOf(CODE + MSG + Var("code", Text("2")) + Var("msg", Text("b"))),
     "2/b",
     {"Status", "code", "msg", "code", "msg"}},
    {"AllTextOfTheVariable",
     StatusOf(Var("code", " " + Text("1") + Text("2")) +
              Var("msg", "bare" + Text(" <![CDATA[&]]>"))),
     " 12/bare &",
     {"Status", "code", "msg"}},
    {"CodeAlone", StatusOf("\n" + CODE), "1/old msg", {"Status", "(null)", "code"}},
    {"BlanksBeforeTheStruct",
     Packet(Var("Status", "\n<struct>" + CODE + "</struct>")),
     NO_STATUS,
     {"Status"}},
    {"WithoutAStruct", Packet("<var name='Status'/>"), NO_STATUS, {"Status"}},
    {"BareText", Packet(Var("Status", "text")), NO_STATUS, {"Status"}},
    {"Missing", Packet(A), NO_STATUS, {"A"}}};

using NvmReaderStatus = NvmReader;

TEST_F(NvmReaderStatus, GivesCodeAndMessageAndLeavesWhatIsMissing) {
  for (const Status& row : STATUSES) {
    SCOPED_TRACE(row.name);
    EmptyLog();
    EXPECT_EQ(StatusMessages(row.reply), row.messages);
    EXPECT_EQ(LogText(), StatusLog(row.seen));
    EXPECT_EQ(client_.reply, row.reply);
  }
}

TEST_F(NvmReader, AReplyThatIsNotXmlLeavesNoDocument) {
  SingleVar(Packet(A));
  testing::internal::CaptureStderr();
  EmptyLog();
  EXPECT_EQ(SingleVar("no XML"), "");
  EXPECT_EQ(client_.doc, nullptr);
  EXPECT_EQ(LogText(), SingleVarLog("A", {}));
  EXPECT_EQ(StatusMessages("<a><b></a>"), NO_STATUS);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "libxml2 is to be silent";
}

// --- The document

TEST_F(NvmReader, EachCallReadsTheReplyAnewAndFreesTheDocumentBefore) {
  constexpr char READ[] = "xmlReadMemory noname.xml (null) 96";
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("first")))), "first");
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("second")))), "second");
  StatusMessages("no XML");
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("again")))), "again");
  EXPECT_THAT(XmlCalls(), ElementsAre(READ, "xmlFreeDoc", READ, "xmlFreeDoc", READ, READ));
}

}  // namespace
