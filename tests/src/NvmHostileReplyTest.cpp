// Replies that are made to do harm: what is read of them, and that nothing else is opened.

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "Files.h"
#include "NvmClient.h"
#include "NvmService.h"
#include "ScriptedService.h"
#include "Tcp.h"

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

// Somebody on the network, who turns every visitor away and counts them.
class Stranger {
 public:
  Stranger() : listener_("127.0.0.1"), thread_([this] { TurnAway(); }) {}
  ~Stranger() { Visitors(); }
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(listener_.Port()) + "/"; }

  // How many came; there are none after this.
  int Visitors() {
    isLeaving_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
    return visitors_;
  }

 private:
  void TurnAway() {
    bool isLastLook = false;
    while (!isLastLook) {
      isLastLook = isLeaving_;
      while (listener_.HasVisitor(1)) {
        close(listener_.Accept());
        ++visitors_;
      }
    }
  }

  const Listener listener_;
  std::atomic<bool> isLeaving_ = false;
  int visitors_ = 0;
  std::thread thread_;
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

TEST_F(NvmHostileReply, AGoodPacketIsReadForComparison) {
  EXPECT_EQ(Read(Packet("x")), "x|x");
}

TEST_F(NvmHostileReply, CutAtAnyByteNothingIsRead) {
  const std::string reply = FreeReply();
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

TEST_F(NvmHostileReply, TenThousandLevelsAreRefused) {
  EXPECT_EQ(Read(Packet(Repeated("<a>", 10000) + Repeated("</a>", 10000))), NOTHING);
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

// --- What a reply may refer to

// Every way in which a document can name another one.
struct Reference {
  const char* name;
  const char* documentType;
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

TEST_P(NvmForeignReference, IsNotFollowedToTheNetworkByTheReader) {
  Stranger stranger;
  Read(PacketReferringTo(stranger.Url()));
  EXPECT_EQ(stranger.Visitors(), 0);
}

TEST_P(NvmForeignReference, IsNotFollowedToTheNetworkByTheToggle) {
  Stranger stranger;
  EXPECT_EQ(Toggle(PacketReferringTo(stranger.Url())), -1);
  EXPECT_EQ(stranger.Visitors(), 0);
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
  // Whoever else uses libxml2 in this process still reaches its files.
  const OpenWatch watch(SECRET_FILE);
  const std::string reply = Packet("&e;", "<!DOCTYPE wddxPacket SYSTEM '/tmp/secret.txt'>");
  xmlFreeDoc(xmlReadMemory(reply.data(), static_cast<int>(reply.size()), "other.xml", nullptr,
                           XML_PARSE_DTDLOAD | XML_PARSE_NOERROR));
  EXPECT_TRUE(watch.HasSeenOne());
}

// --- Encodings

TEST_F(NvmHostileReply, AnUnknownEncodingIsRefused) {
  EXPECT_EQ(Read(Packet("x", "", "<?xml version='1.0' encoding='nonsense'?>")), NOTHING);
}

TEST_F(NvmHostileReply, BytesThatAreNoUtf8AreRefused) {
  for (const std::string bytes : {"\xFF", "\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF5\x80\x80\x80"}) {
    EXPECT_EQ(Read(Packet(bytes)), NOTHING);
    EXPECT_EQ(Read(Packet("x", "", "<?xml version='1.0' encoding='UTF-8'?>") + bytes), NOTHING);
  }
}

TEST_F(NvmHostileReply, AnotherEncodingComesOutAsUtf8) {
  EXPECT_EQ(Read(Packet("\xE4", "", "<?xml version='1.0' encoding='ISO-8859-1'?>")),
            "\xC3\xA4|\xC3\xA4");
}

TEST_F(NvmHostileReply, ZeroBytesAreRefused) {
  EXPECT_EQ(Read(Packet(std::string("a\0b", 3))), NOTHING);
  EXPECT_EQ(Read(Packet("&#0;")), NOTHING);
}

// In two bytes each, the lower first, behind a byte order mark.
std::string Utf16(const std::string& text) {
  std::string wide = "\xFF\xFE";
  for (const char character : text) {
    wide += character;
    wide += '\0';
  }
  return wide;
}

TEST_F(NvmHostileReply, Utf16IsRead) {
  EXPECT_EQ(Read(Utf16(Packet("x", "", "<?xml version='1.0' encoding='UTF-16'?>"))), "x|x");
}

TEST_F(NvmHostileReply, CutUtf16IsRefused) {
  const std::string reply = Utf16(Packet("x"));
  EXPECT_EQ(Read(reply.substr(0, reply.size() - 1)), NOTHING);
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

// Nodes of unusual kinds where elements are expected.
TEST_F(NvmHostileReply, OtherKindsOfNodesAreNoPackets) {
  const std::string entities = "<!DOCTYPE a [<!ENTITY data '<struct/>'><!ENTITY struct 'x'>]>";
  const std::string variable = "<struct><var name='A'>x</var></struct>";
  EXPECT_EQ(Read("<a><?data?><data>" + variable + "</data></a>"), NOTHING);
  EXPECT_EQ(Read("<a><data><?struct?>" + variable + "</data></a>"), NOTHING);
  EXPECT_EQ(Read(entities + "<a>&data;<data>" + variable + "</data></a>"), NOTHING);
  EXPECT_EQ(Read(entities + "<a><data>&struct;" + variable + "</data></a>"), NOTHING);
  EXPECT_EQ(Read(entities + "<a><data><struct><var name='Status'>&data;</var></struct></data></a>"),
            NOTHING);
}

}  // namespace
