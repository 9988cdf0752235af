// Replies that are made to do harm: what is read of them, and that nothing else is opened.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>

#include "Files.h"
#include "NvmClient.h"
#include "ScriptedService.h"

namespace {

constexpr char SECRET_FILE[] = "/tmp/secret.txt";

// Whether a file was opened, or a link to it, since this was made.
class OpenWatch {
 public:
  explicit OpenWatch(const std::string& path) : events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    EXPECT_NE(inotify_add_watch(events_, path.c_str(), IN_OPEN), -1);
  }
  ~OpenWatch() { close(events_); }
  OpenWatch(const OpenWatch&) = delete;
  OpenWatch& operator=(const OpenWatch&) = delete;

  bool HasSeenOne() const {
    alignas(inotify_event) char event[4096];
    return read(events_, event, sizeof event) > 0;
  }

 private:
  int events_;
};

// A packet whose variables "A" and "Status" hold `value`.
std::string Packet(const std::string& value, const std::string& documentType = "",
                   const std::string& declaration = "<?xml version='1.0'?>") {
  return declaration + documentType + "<wddxPacket version='1.0'><header/><data><struct>" +
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

class NvmHostileReply : public testing::Test {
 protected:
  void SetUp() override { EmptyLog(); }

  // What all operations of the reader make of the reply: a variable, and the status code.
  static std::string Read(const std::string& reply) {
    NvmClient client;
    client.reply = reply;
    std::string code = "none";
    std::string msg = "none";
    client.GetStatusMessages(code, msg);
    client.GetStatusNodeTree();
    const std::string value = client.GetSingleVar("A");
    EXPECT_EQ(msg, "none");
    return value + "|" + code;
  }

  // Lets the toggle parse the reply as its status file.
  static int Toggle(const std::string& reply) {
    ScriptedService service({{{HttpReply(reply)}}});
    testing::internal::CaptureStdout();
    const int result = ToggleDeviceAllocation();
    testing::internal::GetCapturedStdout();
    return result;
  }
};

constexpr char NOTHING[] = "|none";

TEST_F(NvmHostileReply, CutAtAnyByteNothingIsRead) {
  const std::string reply = Packet("x");
  for (std::size_t size = 0; size < reply.size(); ++size) {
    EXPECT_EQ(Read(reply.substr(0, size)), NOTHING) << reply.substr(0, size);
  }
}

TEST_F(NvmHostileReply, WithAByteMissingAnywhereNothingBreaks) {
  const std::string reply = Packet("x");
  for (std::size_t i = 0; i < reply.size(); ++i) {
    std::string damaged = reply;
    damaged.erase(i, 1);
    const std::string read = Read(damaged);
    EXPECT_TRUE(read == "x|x" || read == "|x" || read == "x|none" || read == "x|" ||
                read == NOTHING)
        << damaged << ": " << read;
  }
}

TEST_F(NvmHostileReply, AnEntityBombIsRefused) {
  std::string entities = "<!ENTITY e0 'boom'>";
  for (int i = 1; i < 12; ++i) {
    const std::string inner = "&e" + std::to_string(i - 1) + ";";
    entities += "<!ENTITY e" + std::to_string(i) + " '" + Repeated(inner, 10) + "'>";
  }
  const std::string bomb = Packet("&e11;", "<!DOCTYPE wddxPacket [" + entities + "]>");
  EXPECT_EQ(Read(bomb), NOTHING);
  EXPECT_EQ(Toggle(bomb), -1);
}

TEST_F(NvmHostileReply, AnEntityOfOneLevelGrowsWithoutALimit) {
  const std::string text(10000, 'x');
  const std::string reply =
      Packet(Repeated("&e;", 1000), "<!DOCTYPE wddxPacket [<!ENTITY e '" + text + "'>]>");
  EXPECT_LT(reply.size(), 20000u);
  EXPECT_EQ(Read(reply).size(), 2000 * text.size() + 1);
}

TEST_F(NvmHostileReply, AnEntityOfItselfIsRefused) {
  const std::string loop =
      Packet("&a;", "<!DOCTYPE wddxPacket [<!ENTITY a '&b;'><!ENTITY b '&a;'>]>");
  EXPECT_EQ(Read(loop), NOTHING);
  EXPECT_EQ(Toggle(loop), -1);
}

// --- Replies of unusual bytes, encodings and nodes

// In two bytes each, the lower first, behind a byte order mark.
std::string Utf16(const std::string& text) {
  std::string wide = "\xFF\xFE";
  for (const char character : text) {
    wide += character;
    wide += '\0';
  }
  return wide;
}

std::string InUtf8(const std::string& value) {
  return Packet(value, "", "<?xml version='1.0' encoding='UTF-8'?>");
}

// Where "data" and "struct" are expected: a node of that name, then the element.
std::string WithNodes(const std::string& beforeData, const std::string& beforeStruct) {
  return "<!DOCTYPE a [<!ENTITY data '<struct/>'><!ENTITY struct 'x'>]><a>" + beforeData +
         "<data>" + beforeStruct + "<struct><var name='A'>x</var></struct></data></a>";
}

struct Reading {
  const char* name;
  std::string reply;
  std::string read = NOTHING;

  friend std::ostream& operator<<(std::ostream& out, const Reading& row) { return out << row.name; }
};

class NvmUnusualReply : public NvmHostileReply, public testing::WithParamInterface<Reading> {};

TEST_P(NvmUnusualReply, IsReadOrRefusedWhole) {
  EXPECT_EQ(Read(GetParam().reply), GetParam().read);
}

const std::string UTF_16 = Utf16(Packet("x", "", "<?xml version='1.0' encoding='UTF-16'?>"));

const Reading UNUSUAL[] = {
    {"GoodPacket", Packet("x"), "x|x"},
    {"TenThousandLevels", Packet(Repeated("<a>", 10000) + Repeated("</a>", 10000))},
    {"UnknownEncoding", Packet("x", "", "<?xml version='1.0' encoding='nonsense'?>")},
    {"NoUtf8", Packet("\xFF")},
    {"CutUtf8", Packet("\xC3")},
    {"OverlongUtf8", Packet("\xC0\x80")},
    {"SurrogateInUtf8", Packet("\xED\xA0\x80")},
    {"BeyondUnicode", Packet("\xF5\x80\x80\x80")},
    {"NoUtf8BehindThePacket", InUtf8("x") + "\xFF"},
    {"CutUtf8BehindThePacket", InUtf8("x") + "\xC3"},
    {"Latin1", Packet("\xE4", "", "<?xml version='1.0' encoding='ISO-8859-1'?>"),
     "\xC3\xA4|\xC3\xA4"},
    {"ZeroByte", Packet(std::string("a\0b", 3))},
    {"ZeroReference", Packet("&#0;")},
    {"Utf16", UTF_16, "x|x"},
    {"CutUtf16", UTF_16.substr(0, UTF_16.size() - 1)},
    {"NoOtherNodes", WithNodes("", ""), "x|none"},
    {"InstructionForData", WithNodes("<?data?>", "")},
    {"InstructionForStruct", WithNodes("", "<?struct?>")},
    {"EntityForData", WithNodes("&data;", "")},
    {"EntityForStruct", WithNodes("", "&struct;")},
    {"EntityForTheStatus",
     "<!DOCTYPE a [<!ENTITY data '<struct/>'>]><a><data><struct><var name='Status'>"
     "&data;</var></struct></data></a>"}};

INSTANTIATE_TEST_SUITE_P(, NvmUnusualReply, testing::ValuesIn(UNUSUAL),
                         [](const auto& reading) { return reading.param.name; });

// --- What a reply may refer to

// Every way in which a document can name another one.
struct Reference {
  const char* name;
  const char* documentType;

  friend std::ostream& operator<<(std::ostream& out, const Reference& row) {
    return out << row.name;
  }
};

class NvmForeignReference : public NvmHostileReply, public testing::WithParamInterface<Reference> {
 protected:
  // A packet that refers to the address in this way.
  static std::string PacketReferringTo(const std::string& address) {
    std::string documentType = GetParam().documentType;
    documentType.replace(documentType.find("ADDRESS"), 7, address);
    return Packet("&e;", documentType);
  }
};

TEST_P(NvmForeignReference, IsNotFollowedToTheNetwork) {
  const std::string reply = PacketReferringTo("http://127.0.0.9:8080/");
  ForgetSocketCalls();
  Read(reply);
  EXPECT_THAT(SocketCalls(), testing::IsEmpty());
  EXPECT_EQ(Toggle(reply), -1);
  EXPECT_THAT(SocketCalls(), testing::Not(testing::Contains("connect 127.0.0.9:8080")));
}

TEST_P(NvmForeignReference, IsNotFollowedToAFile) {
  WriteText(SECRET_FILE, "secret");
  for (const std::string scheme : {"", "file://"}) {
    const OpenWatch watch(SECRET_FILE);
    const std::string reply = PacketReferringTo(scheme + SECRET_FILE);
    EXPECT_EQ(Read(reply).find("secret"), std::string::npos);
    EXPECT_FALSE(watch.HasSeenOne()) << "the reader opened it";
    EXPECT_EQ(Toggle(reply), -1);
    EXPECT_FALSE(watch.HasSeenOne()) << "the toggle opened it";
  }
}

TEST_P(NvmForeignReference, ToTheStatusFileItselfEnds) {
  EXPECT_EQ(Toggle(PacketReferringTo("/tmp/cgirep.txt")), -1);
}

constexpr Reference REFERENCES[] = {
    {"Entity", "<!DOCTYPE wddxPacket [<!ENTITY e SYSTEM 'ADDRESS'>]>"},
    {"PublicEntity", "<!DOCTYPE wddxPacket [<!ENTITY e PUBLIC 'id' 'ADDRESS'>]>"},
    {"ParameterEntity",
     "<!DOCTYPE wddxPacket [<!ENTITY % p SYSTEM 'ADDRESS'> %p;<!ENTITY e 'x'>]>"},
    {"DocumentType", "<!DOCTYPE wddxPacket SYSTEM 'ADDRESS' [<!ENTITY e 'x'>]>"},
    {"PublicDocumentType", "<!DOCTYPE wddxPacket PUBLIC 'id' 'ADDRESS' [<!ENTITY e 'x'>]>"},
    {"StyleSheet", "<?xml-stylesheet href='ADDRESS'?><!DOCTYPE wddxPacket [<!ENTITY e 'x'>]>"}};

INSTANTIATE_TEST_SUITE_P(, NvmForeignReference, testing::ValuesIn(REFERENCES),
                         [](const auto& reference) { return reference.param.name; });

TEST_F(NvmHostileReply, AnInclusionIsNotFollowed) {
  WriteText(SECRET_FILE, "secret");
  const OpenWatch watch(SECRET_FILE);
  const std::string inclusion =
      "<i:include xmlns:i='http://www.w3.org/2001/XInclude' href='/tmp/secret.txt' parse='text'/>";
  EXPECT_EQ(Read(Packet(inclusion)), "|");
  EXPECT_EQ(Toggle(Packet(inclusion)), -1);
  EXPECT_FALSE(watch.HasSeenOne());
}

TEST_F(NvmHostileReply, TheToggleLeavesLibxml2AsItWas) {
  WriteText(SECRET_FILE, "<!ENTITY e 'from the file'>");
  Toggle(Packet("x"));
  // Other users of libxml2 in this process still reach their files.
  const OpenWatch watch(SECRET_FILE);
  const std::string reply = Packet("&e;", "<!DOCTYPE wddxPacket SYSTEM '/tmp/secret.txt'>");
  xmlFreeDoc(xmlReadMemory(reply.data(), static_cast<int>(reply.size()), "other.xml", nullptr,
                           XML_PARSE_DTDLOAD | XML_PARSE_NOERROR));
  EXPECT_TRUE(watch.HasSeenOne());
}

// --- Sizes

TEST_F(NvmHostileReply, TenMebibytesOfVariablesAreRead) {
  const std::string variable = "<var name='B'>" + std::string(65536, 'b') + "</var>";
  std::string reply = Packet("x");
  reply.insert(reply.find("<var"), Repeated(variable, 160));
  EXPECT_GT(reply.size(), std::size_t{10} << 20);
  EXPECT_EQ(Read(reply), "x|x");
}

TEST_F(NvmHostileReply, TenMebibytesInOneTextAreRead) {
  const std::string text(10 << 20, 'x');
  EXPECT_TRUE(Read(Packet(text)) == text + "|" + text);
}

TEST_F(NvmHostileReply, ALongNameIsFoundAndLoggedWhole) {
  NvmClient client;
  const std::string name(100000, 'n');
  client.reply = "<a><data><struct><var name='" + name + "'>x</var></struct></data></a>";
  EXPECT_EQ(client.GetSingleVar(name), "x");
  EXPECT_EQ(LogText(), Debug(313, "GetSingleVar " + name) + Debug(281, "GetVarNode " + name) +
                           Debug(292, name));
}

TEST_F(NvmHostileReply, PercentSignsAreNoFormats) {
  NvmClient client;
  client.reply = "<a><data><struct><var name='%s%n%d'>x</var></struct></data></a>";
  EXPECT_EQ(client.GetSingleVar("%s%n%d"), "x");
  EXPECT_EQ(LogText(), Debug(313, "GetSingleVar %s%n%d") + Debug(281, "GetVarNode %s%n%d") +
                           Debug(292, "%s%n%d"));
}

}  // namespace
