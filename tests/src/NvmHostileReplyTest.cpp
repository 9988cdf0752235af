// Replies that are made to do harm: nothing is opened that they refer to, and sizes do no harm.
// What is read of odd encodings, nodes and broken documents: tests/fuzz.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "Files.h"
#include "NvmClient.h"
#include "ScriptedService.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char SECRET_FILE[] = "/tmp/secret.txt";

// Whether the file was opened, or a link to it, since the latest call.
bool WasSecretOpened() {
  static const int events = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  alignas(inotify_event) char event[4096];
  const bool wasOpened = read(events, event, sizeof event) > 0;
  EXPECT_NE(inotify_add_watch(events, SECRET_FILE, IN_OPEN), -1);
  return wasOpened;
}

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
  ScriptedService service({{{HttpReply(reply)}}});
  testing::internal::CaptureStdout();
  const int result = ToggleDeviceAllocation();
  testing::internal::GetCapturedStdout();
  return result;
}

// --- What a reply may refer to

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
  WriteText(SECRET_FILE, "secret");
  WasSecretOpened();
  for (const std::string& reference : REFERENCES) {
    for (const std::string address :
         {"http://127.0.0.9:8080/", SECRET_FILE, "file:///tmp/secret.txt", "/tmp/cgirep.txt"}) {
      std::string reply = reference;
      reply.replace(reply.find("ADDRESS"), 7, address);
      SCOPED_TRACE(reply);
      ForgetSocketCalls();
      EXPECT_THAT(Read(reply), Not(HasSubstr("secret")));
      EXPECT_THAT(SocketCalls(), IsEmpty());
      EXPECT_EQ(Toggle(reply), -1);
      EXPECT_THAT(SocketCalls(), Not(Contains("connect 127.0.0.9:8080")));
      EXPECT_FALSE(WasSecretOpened());
    }
  }
}

TEST(NvmHostileReply, TheToggleLeavesLibxml2AsItWas) {
  WriteText(SECRET_FILE, "<!ENTITY e 'from the file'>");
  Toggle(Packet("x"));
  // Other users of libxml2 in this process still reach their files.
  WasSecretOpened();
  const std::string reply = Packet("&e;", "<!DOCTYPE p SYSTEM '/tmp/secret.txt'>");
  xmlFreeDoc(xmlReadMemory(reply.data(), static_cast<int>(reply.size()), "other.xml", nullptr,
                           XML_PARSE_DTDLOAD | XML_PARSE_NOERROR));
  EXPECT_TRUE(WasSecretOpened());
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
