// Reading the kept reply as a tree: variables by name, their texts, the status.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include "NvmClient.h"
#include "XmlCalls.h"

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

  // The name attribute of the node, "none" without a node.
  static std::string NameOf(xmlNodePtr node) {
    if (node == nullptr) {
      return "none";
    }
    xmlChar* const name = xmlGetProp(node, reinterpret_cast<const xmlChar*>("name"));
    const std::string copy = reinterpret_cast<const char*>(name);
    xmlFree(name);
    return copy;
  }

  NvmClient client_;
};

// --- Without a reply

TEST_F(NvmReader, WithoutAReplyThereIsNoVariable) {
  EXPECT_EQ(client_.GetVarNode("A"), nullptr);
  EXPECT_EQ(LogText(), Debug(281, "GetVarNode A"));
}

TEST_F(NvmReader, WithoutAReplyThereIsNoStatus) {
  EXPECT_EQ(client_.GetStatusNodeTree(), nullptr);
  EXPECT_EQ(LogText(), Debug(236, "GetStatusNodeTree") + Debug(281, "GetVarNode Status"));
}

TEST_F(NvmReader, WithoutAReplyASingleVariableIsEmpty) {
  EXPECT_EQ(SingleVar(""), "");
  EXPECT_EQ(LogText(), Debug(313, "GetSingleVar A") + Debug(281, "GetVarNode A"));
}

TEST_F(NvmReader, WithoutAReplyTheStatusMessagesStay) {
  EXPECT_EQ(StatusMessages(""), "old code/old msg");
  EXPECT_EQ(LogText(), Debug(248, "GetStatusMessages") + Debug(236, "GetStatusNodeTree") +
                           Debug(281, "GetVarNode Status"));
}

TEST_F(NvmReader, AnEmptyReplyLeavesTheDocumentAlone) {
  SingleVar(Packet(Var("A", Text("a"))));
  const xmlDocPtr document = client_.doc;
  ForgetXmlCalls();
  EXPECT_EQ(SingleVar(""), "");
  EXPECT_EQ(client_.doc, document);
  EXPECT_THAT(XmlCalls(), IsEmpty());
}

// --- Finding a variable

TEST_F(NvmReader, FindsAVariableAndLogsTheNamesOnTheWay) {
  client_.reply =
      Packet(Var("IsAllocated", Text("1")) + Var("Status", "<struct/>") + Var("Behind", Text("x")));
  EXPECT_EQ(NameOf(client_.GetVarNode("Status")), "Status");
  EXPECT_EQ(LogText(), Debug(281, "GetVarNode Status") + Debug(292, "IsAllocated") +  //
                           Debug(292, "Status"));
}

TEST_F(NvmReader, TheFoundNodeBelongsToTheDocument) {
  client_.reply = Packet(Var("A", Text("a")));
  const xmlNodePtr variable = client_.GetVarNode("A");
  ASSERT_NE(variable, nullptr);
  EXPECT_EQ(variable->doc, client_.doc);
}

TEST_F(NvmReader, AMissingVariableIsNotFoundThoughAllAreSeen) {
  client_.reply = Packet(Var("A", Text("a")) + Var("B", Text("b")));
  EXPECT_EQ(client_.GetVarNode("C"), nullptr);
  EXPECT_EQ(LogText(), Debug(281, "GetVarNode C") + Debug(292, "A") + Debug(292, "B"));
}

TEST_F(NvmReader, ANameMustBeExact) {
  const std::string reply = Packet(Var("Name", Text("x")));
  for (const auto& name :
       std::vector<std::string>{"name", "NAME", "Nam", "Name ", " Name", "", {"Name\0", 5}}) {
    EXPECT_EQ(SingleVar(reply, name), "") << name;
  }
  EXPECT_EQ(SingleVar(reply, "Name"), "x");
}

TEST_F(NvmReader, AnEmptyNameIsANameToo) {
  EXPECT_EQ(SingleVar(Packet(Var("", Text("x"))), ""), "x");
}

TEST_F(NvmReader, OfTwoVariablesOfOneNameTheFirstIsFound) {
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("first")) + Var("A", Text("second")))), "first");
}

TEST_F(NvmReader, EverythingInTheStructThatHasTheNameIsAVariable) {
  EXPECT_EQ(SingleVar(Packet("<other name='A'>text</other>")), "text");
}

TEST_F(NvmReader, BlankTextBetweenVariablesShowsAsNull) {
  EXPECT_EQ(SingleVar(Packet("\n" + Var("A", Text("a")) + "\n"), "B"), "");
  EXPECT_EQ(LogText(), Debug(313, "GetSingleVar B") + Debug(281, "GetVarNode B") +
                           Debug(292, "(null)") + Debug(292, "A") + Debug(292, "(null)"));
}

TEST_F(NvmReader, CommentsBetweenVariablesShowAsNull) {
  EXPECT_EQ(SingleVar(Packet("<!-- A -->" + Var("A", Text("a")))), "a");
  EXPECT_EQ(LogText(), Debug(313, "GetSingleVar A") + Debug(281, "GetVarNode A") +
                           Debug(292, "(null)") + Debug(292, "A"));
}

TEST_F(NvmReader, VariablesInsideAVariableAreNotAtTheTop) {
  EXPECT_EQ(SingleVar(StatusOf(Var("A", Text("nested")))), "");
}

TEST_F(NvmReader, TheNamesOfTheElementsAboveMustBeExact) {
  const std::string variable = Var("A", Text("a"));
  EXPECT_EQ(SingleVar("<any><data><struct>" + variable + "</struct></data></any>"), "a");
  EXPECT_EQ(SingleVar("<any><Data><struct>" + variable + "</struct></Data></any>"), "");
  EXPECT_EQ(SingleVar("<any><data><structs>" + variable + "</structs></data></any>"), "");
}

TEST_F(NvmReader, OnlyTheFirstDataAndTheFirstStructAreSearched) {
  const std::string full = "<struct>" + Var("A", Text("a")) + "</struct>";
  EXPECT_EQ(SingleVar("<any><data/><data>" + full + "</data></any>"), "");
  EXPECT_EQ(SingleVar("<any><data><struct/>" + full + "</data></any>"), "");
}

TEST_F(NvmReader, WhiteSpaceAndOtherElementsAboveDoNoHarm) {
  EXPECT_EQ(SingleVar("<any>\n<x/>\n<data>\n<null/>\n<struct>" + Var("A", Text("a")) +
                      "</struct>\n</data>\n</any>\n"),
            "a");
}

// --- FindChildNode

class NvmChildNode : public NvmReader {
 protected:
  void SetUp() override {
    NvmReader::SetUp();
    client_.doc = xmlReadDoc(
        reinterpret_cast<const xmlChar*>("<top>text<a n='1'/><?b?><a n='2'/><b/><!--c--></top>"),
        "test.xml", nullptr, 0);
    top_ = xmlDocGetRootElement(client_.doc);
  }

  xmlNodePtr top_ = nullptr;
};

TEST_F(NvmChildNode, IsTheFirstOfThatName) {
  EXPECT_EQ(client_.FindChildNode(top_, "a"), top_->children->next);
}

TEST_F(NvmChildNode, IsComparedByNameWhateverItsKind) {
  const xmlNodePtr found = client_.FindChildNode(top_, "b");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->type, XML_PI_NODE);
  EXPECT_EQ(client_.FindChildNode(top_, "text"), top_->children);
  EXPECT_EQ(client_.FindChildNode(top_, "comment"), top_->last);
}

TEST_F(NvmChildNode, IsNullForAnotherName) {
  EXPECT_EQ(client_.FindChildNode(top_, "A"), nullptr);
  EXPECT_EQ(client_.FindChildNode(top_, "top"), nullptr);
  EXPECT_EQ(client_.FindChildNode(top_, ""), nullptr);
}

TEST_F(NvmChildNode, IsNullWithoutChildrenOrWithoutANode) {
  EXPECT_EQ(client_.FindChildNode(top_->children->next, "a"), nullptr);
  EXPECT_EQ(client_.FindChildNode(nullptr, "a"), nullptr);
}

TEST_F(NvmChildNode, IsNotLogged) {
  client_.FindChildNode(top_, "a");
  EXPECT_EQ(LogText(), "");
}

// --- The value of a variable

TEST_F(NvmReader, ASingleVariableIsTheTextOfItsValue) {
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("a text")))), "a text");
  EXPECT_EQ(LogText(), Debug(313, "GetSingleVar A") + Debug(281, "GetVarNode A") + Debug(292, "A"));
}

TEST_F(NvmReader, OnlyTheFirstChildIsTheValue) {
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("first") + Text("second")))), "first");
}

TEST_F(NvmReader, BlankTextBeforeAValueIsTheValue) {
  EXPECT_EQ(SingleVar(Packet(Var("A", "\n " + Text("a")))), "\n ");
}

TEST_F(NvmReader, BareTextIsAValue) {
  EXPECT_EQ(SingleVar(Packet(Var("A", "bare"))), "bare");
}

TEST_F(NvmReader, AVariableWithoutAValueIsEmpty) {
  EXPECT_EQ(SingleVar(Packet("<var name='A'/>")), "");
  EXPECT_EQ(SingleVar(Packet(Var("A", "<string/>"))), "");
  EXPECT_EQ(SingleVar(Packet(Var("A", "<null/>"))), "");
}

TEST_F(NvmReader, CharacterDataSectionsAreText) {
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("1 <![CDATA[<2> & ]]>3")))), "1 <2> & 3");
}

TEST_F(NvmReader, EntitiesAreTheirText) {
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("&lt;&amp;&#65;&quot;")))), "<&A\"");
  EXPECT_EQ(SingleVar("<!DOCTYPE p [<!ENTITY e 'own'>]><p><data><struct>" + Var("A", Text("&e;!")) +
                      "</struct></data></p>"),
            "own!");
}

TEST_F(NvmReader, EntitiesInNamesAreTheirText) {
  EXPECT_EQ(SingleVar(Packet(Var("&#65;", Text("a")))), "a");
}

TEST_F(NvmReader, TheTextsOfANestedStructAreJoined) {
  EXPECT_EQ(
      SingleVar(Packet(Var("A", "<struct>" + Var("x", Text("1")) + " " +
                                    Var("y", "<array><number>2</number></array>") + "</struct>"))),
      "1 2");
}

// --- The status

TEST_F(NvmReader, TheStatusIsTheVariableOfThatName) {
  client_.reply = StatusOf("");
  EXPECT_EQ(NameOf(client_.GetStatusNodeTree()), "Status");
  EXPECT_EQ(LogText(), Debug(236, "GetStatusNodeTree") + Debug(281, "GetVarNode Status") +
                           Debug(292, "Status"));
}

TEST_F(NvmReader, CodeAndMessageAreRead) {
  EXPECT_EQ(StatusMessages(StatusOf(Var("code", Text("0")) + Var("msg", Text("")))), "0/");
  EXPECT_EQ(LogText(), Debug(248, "GetStatusMessages") + Debug(236, "GetStatusNodeTree") +
                           Debug(281, "GetVarNode Status") + Debug(292, "Status") +
                           Debug(255, "code") + Debug(255, "msg"));
}

TEST_F(NvmReader, TheOrderOfCodeAndMessageDoesNotMatter) {
  EXPECT_EQ(StatusMessages(StatusOf(Var("msg", Text("held")) + Var("code", Text("1")))), "1/held");
}

TEST_F(NvmReader, AMissingCodeOrMessageStays) {
  EXPECT_EQ(StatusMessages(StatusOf(Var("code", Text("1")))), "1/old msg");
  EXPECT_EQ(StatusMessages(StatusOf(Var("msg", Text("held")))), "old code/held");
  EXPECT_EQ(StatusMessages(StatusOf(Var("Code", Text("1")) + Var("msg ", Text("x")) +
                                    Var("codes", Text("2")) + Var("ms", Text("y")))),
            "old code/old msg");
}

TEST_F(NvmReader, OfSeveralCodesTheLastOneWins) {
  EXPECT_EQ(StatusMessages(StatusOf(Var("code", Text("1")) + Var("msg", Text("a")) +
                                    Var("code", Text("2")) + Var("msg", Text("b")))),
            "2/b");
}

TEST_F(NvmReader, TheMessageIsAllTextOfItsVariable) {
  EXPECT_EQ(StatusMessages(StatusOf(Var("code", " " + Text("1") + Text("2")) +
                                    Var("msg", "bare" + Text(" <![CDATA[&]]>")))),
            " 12/bare &");
}

TEST_F(NvmReader, BlankTextInTheStatusShowsAsNull) {
  EXPECT_EQ(StatusMessages(StatusOf("\n" + Var("code", Text("7")) + "\n")), "7/old msg");
  EXPECT_EQ(LogText(), Debug(248, "GetStatusMessages") + Debug(236, "GetStatusNodeTree") +
                           Debug(281, "GetVarNode Status") + Debug(292, "Status") +
                           Debug(255, "(null)") + Debug(255, "code") + Debug(255, "(null)"));
}

TEST_F(NvmReader, BlankTextBeforeTheStatusStructHidesIt) {
  EXPECT_EQ(
      StatusMessages(Packet(Var("Status", "\n<struct>" + Var("code", Text("1")) + "</struct>"))),
      "old code/old msg");
}

TEST_F(NvmReader, AStatusWithoutAStructLeavesTheMessages) {
  EXPECT_EQ(StatusMessages(Packet("<var name='Status'/>")), "old code/old msg");
  EXPECT_EQ(StatusMessages(StatusOf("")), "old code/old msg");
  EXPECT_EQ(StatusMessages(Packet(Var("Status", "text"))), "old code/old msg");
  EXPECT_EQ(StatusMessages(Packet(Var("A", Text("a")))), "old code/old msg");
}

// --- Replies of another shape

TEST_F(NvmReader, AReplyWithoutDataOrStructHasNoVariable) {
  for (const std::string& reply :
       {HEAD + "</wddxPacket>", HEAD + "<data/></wddxPacket>",
        HEAD + "<data><string>text</string></data></wddxPacket>",
        HEAD + "<data>struct</data></wddxPacket>", Packet(""), std::string("<struct/>")}) {
    EmptyLog();
    EXPECT_EQ(SingleVar(reply), "") << reply;
    EXPECT_NE(client_.doc, nullptr) << reply;
    EXPECT_EQ(LogText(), Debug(313, "GetSingleVar A") + Debug(281, "GetVarNode A")) << reply;
    EXPECT_EQ(StatusMessages(reply), "old code/old msg") << reply;
  }
}

TEST_F(NvmReader, AReplyThatIsNotXmlLeavesNoDocument) {
  SingleVar(Packet(Var("A", Text("a"))));
  testing::internal::CaptureStderr();
  EmptyLog();
  EXPECT_EQ(SingleVar("no XML"), "");
  EXPECT_EQ(client_.doc, nullptr);
  EXPECT_EQ(LogText(), Debug(313, "GetSingleVar A") + Debug(281, "GetVarNode A"));
  EXPECT_EQ(StatusMessages("<a><b></a>"), "old code/old msg");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "libxml2 is to be silent";
}

// --- The document

TEST_F(NvmReader, EachCallReadsTheReplyAnewAndFreesTheDocumentBefore) {
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("first")))), "first");
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("second")))), "second");
  StatusMessages(client_.reply);
  EXPECT_THAT(XmlCalls(),
              ElementsAre("xmlReadMemory noname.xml (null) 96",                //
                          "xmlFreeDoc", "xmlReadMemory noname.xml (null) 96",  //
                          "xmlFreeDoc", "xmlReadMemory noname.xml (null) 96"));
}

TEST_F(NvmReader, AFailedReadIsFollowedByAnother) {
  SingleVar(Packet(Var("A", Text("a"))));
  SingleVar("no XML");
  EXPECT_EQ(SingleVar(Packet(Var("A", Text("again")))), "again");
  EXPECT_THAT(XmlCalls(),
              ElementsAre("xmlReadMemory noname.xml (null) 96",                //
                          "xmlFreeDoc", "xmlReadMemory noname.xml (null) 96",  //
                          "xmlReadMemory noname.xml (null) 96"));
}

TEST_F(NvmReader, ReadingLeavesTheReplyAsItIs) {
  const std::string reply = StatusOf(Var("code", Text("1")));
  StatusMessages(reply);
  EXPECT_EQ(client_.reply, reply);
}

}  // namespace
