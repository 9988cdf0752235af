// Replies that are made to do harm: nothing is opened that they refer to, and sizes do no harm.
// What is read of odd encodings, nodes and broken documents: tests/fuzz.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include "NvmClient.h"
#include "ScriptedService.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// A packet whose variables "A" and "Status" hold `value`.
std::string Packet(const std::string& value, const std::string& documentType = "") {
  return "<?xml version='1.0'?>" + documentType + "<wddxPacket version='1.0'><data><struct>" +
         "<var name=\"A\"><string>" + value + "</string></var>" +
         "<var name=\"Status\"><struct><var name=\"code\">" + value +
         "</var></struct></var></struct></data></wddxPacket>";
}

std::string Repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) {
    all += text;
  }
  return all;
}

// What the operations of the reader make of the reply: a variable, and the status code.
std::string Read(const std::string& reply) {
  NvmClient client;
  client.reply = reply;
  std::string code = "none";
  std::string msg;
  client.GetStatusMessages(code, msg);
  return client.GetSingleVar("A") + "|" + code;
}

// Lets the toggle parse the reply as its status file.
int Toggle(const std::string& reply) {
  ScriptedService service(std::vector(3, ScriptedService::Reply{HttpReply(reply)}));
  testing::internal::CaptureStdout();
  const int result = ToggleDeviceAllocation();
  testing::internal::GetCapturedStdout();
  return result;
}

// --- What a reply may refer to

std::vector<std::string> opened;
const xmlExternalEntityLoader LOADER = xmlGetExternalEntityLoader();

// Before libxml2 opens a file or a connection, it asks here.
xmlParserInputPtr RecordAndOpen(const char* url, const char* id, xmlParserCtxtPtr context) {
  opened.emplace_back(url != nullptr ? url : "");
  return LOADER(url, id, context);
}

// Every way in which a document can name another one.
const std::string REFERENCES[] = {
    Packet("&e;", "<!DOCTYPE p [<!ENTITY e SYSTEM 'ADDRESS'>]>"),
    Packet("&e;", "<!DOCTYPE p [<!ENTITY e PUBLIC 'id' 'ADDRESS'>]>"),
    Packet("&e;", "<!DOCTYPE p [<!ENTITY % p SYSTEM 'ADDRESS'> %p;<!ENTITY e 'x'>]>"),
    Packet("&e;", "<!DOCTYPE p SYSTEM 'ADDRESS' [<!ENTITY e 'x'>]>"),
    Packet("&e;", "<!DOCTYPE p PUBLIC 'id' 'ADDRESS' [<!ENTITY e 'x'>]>"),
    Packet("x", "<?xml-stylesheet href='ADDRESS'?>"),
    Packet("<i:include xmlns:i='http://www.w3.org/2001/XInclude' href='ADDRESS' parse='text'/>")};

TEST(NvmForeignReference, IsFollowedByNeitherTheReaderNorTheToggle) {
  xmlSetExternalEntityLoader(RecordAndOpen);
  for (const std::string& reference : REFERENCES) {
    for (const std::string address :
         {"http://127.0.0.9:8080/", "/etc/passwd", "file:///etc/passwd", "/tmp/cgirep.txt"}) {
      std::string reply = reference;
      reply.replace(reply.find("ADDRESS"), 7, address);
      SCOPED_TRACE(reply);
      opened.clear();
      Read(reply);
      EXPECT_THAT(opened, IsEmpty());
      EXPECT_EQ(Toggle(reply), -1);
      EXPECT_THAT(opened, Each("/tmp/cgirep.txt"));
      ASSERT_EQ(xmlGetExternalEntityLoader(), RecordAndOpen) << "others still reach their files";
    }
  }
  xmlSetExternalEntityLoader(LOADER);
}

// --- The toggle's own ways. What it asks, prints, logs and writes: test_toggle_command.py.

TEST(NvmToggle, ReadsTheStatusFileOnceAndCleansUpLibxml2WhateverTheReply) {
  const std::string start = "<?xml version='1.0'?><var name=\"IsAllocated\">";
  const std::string end = "</var><var name";
  const std::pair<std::string, int> replies[] = {{"<?xml version='1.0'?><status/>", -1},
                                                 {start, -1},
                                                 {start + end, -1},
                                                 {start + "<string>" + end, -1},
                                                 {start + "<string>0</string>" + end, 0},
                                                 {start + "<string>1</string>" + end, 0}};
  for (const auto& [reply, result] : replies) {
    SCOPED_TRACE(reply);
    ForgetXmlCalls();
    EXPECT_EQ(Toggle(reply), result);
    EXPECT_THAT(XmlCalls(),
                ElementsAre("xmlReadFile /tmp/cgirep.txt (null) 98", StartsWith("xmlFreeDoc"),
                            "xmlCleanupParser", "xmlMemoryDump",
                            // the client's end
                            "xmlFreeDoc (null)", "xmlCleanupParser", "xmlMemoryDump"));
  }
}

// --- Sizes

TEST(NvmHostileReply, EntitiesWithoutAnEndAreRefused) {
  std::string entities = "<!ENTITY a '&b;'><!ENTITY b '&a;'><!ENTITY e0 'boom'>";
  for (int i = 1; i < 12; ++i) {
    const std::string inner = "&e" + std::to_string(i - 1) + ";";
    entities += "<!ENTITY e" + std::to_string(i) + " '" + Repeated(inner, 10) + "'>";
  }
  for (const std::string reference : {"&a;", "&e11;"}) {
    const std::string reply = Packet(reference, "<!DOCTYPE p [" + entities + "]>");
    EXPECT_EQ(Read(reply), "|none");
    EXPECT_EQ(Toggle(reply), -1);
  }
}

TEST(NvmHostileReply, AnEntityOfOneLevelGrowsWithoutALimit) {
  const std::string text(10000, 'x');
  const std::string reply =
      Packet(Repeated("&e;", 1000), "<!DOCTYPE p [<!ENTITY e '" + text + "'>]>");
  EXPECT_LT(reply.size(), 20000u);
  EXPECT_EQ(Read(reply).size(), 2000 * text.size() + 1);
}

TEST(NvmHostileReply, ManyMebibytesAreRead) {
  const std::string text(10 << 20, 'x');
  std::string reply = Packet(text);
  reply.insert(reply.find("<var"),
               Repeated("<var name='B'>" + std::string(65536, 'b') + "</var>", 160));
  EXPECT_TRUE(Read(reply) == text + "|" + text);
}

TEST(NvmHostileReply, AnyNameIsFoundAndLoggedWhole) {
  for (const std::string& name : {std::string(100000, 'n'), std::string("%s%n%d")}) {
    EmptyLog();
    NvmClient client;
    client.reply = "<a><data><struct><var name='" + name + "'>x</var></struct></data></a>";
    EXPECT_EQ(client.GetSingleVar(name), "x");
    EXPECT_EQ(LogText(), Debug(313, "GetSingleVar " + name) + Debug(281, "GetVarNode " + name) +
                             Debug(292, name));
  }
}

}  // namespace
