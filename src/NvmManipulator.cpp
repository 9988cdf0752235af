#include "NvmManipulator.h"

#include <arpa/inet.h>
#include <libxml/parser.h>
#include <libxml/xmlmemory.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

#include "CgiLog.h"

namespace {

constexpr char SOURCE[] = "src/NvmManipulator";

// --- Requests

constexpr char PACKET_HEAD[] =
    "<?xml version='1.0'?>\n"
    "<!DOCTYPE wddxPacket SYSTEM 'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'>\n"
    "<wddxPacket version='1.0'>\n";
constexpr char PACKET_END[] = "</wddxPacket>";
constexpr char STRUCT_HEAD[] =
    "<header/>\n"
    "<data>\n"
    "<struct>\n";
constexpr char STRUCT_END[] =
    "</struct>\n"
    "</data>\n";

std::string BuildVariable(const std::string& name, const std::string& value) {
  return std::string("<var name='") + name + "'><string>" + value + "</string></var>\n";
}

// --- Transport

// A connection to the service; -1, and an ERROR in the log, when there is none. Logging may change
// errno, so it is saved right after the failing call.
// Contract and known issues: docs/kept-as-is.md, `Connect`.
int Connect(const std::string& address) {
  const int connection = socket(AF_INET, SOCK_STREAM, 0);
  if (connection == -1) {
    const int error = errno;
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 159)
        .Log(GetCgiLogHandler(), "socket %s", std::strerror(error));
    return -1;
  }
  sockaddr_in service{};
  service.sin_family = AF_INET;
  service.sin_port = htons(NVM_SERVICE_PORT);
  service.sin_addr.s_addr = inet_addr(address.c_str());
  if (connect(connection, reinterpret_cast<const sockaddr*>(&service), sizeof service) == -1) {
    const int error = errno;
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 168)
        .Log(GetCgiLogHandler(), "connect %s", std::strerror(error));
    close(connection);
    return -1;
  }
  return connection;
}

// The bytes of one `recv`, as a C string: a zero byte is added after them, and the first zero byte
// ends it.
struct ReceiveBuffer {
  // The number of bytes, zero bytes included; 0 at the end of the connection; -1 on a failure,
  // which leaves the text as it was.
  int Receive(int connection) {
    const auto count = static_cast<int>(recv(connection, text, sizeof text - 1, 0));
    if (count >= 0) {
      text[count] = '\0';
    }
    return count;
  }

  char text[4096 + 1] = "";
};

// --- Replies

struct XmlFree {
  void operator()(xmlChar* text) const { xmlFree(text); }
};
using XmlText = std::unique_ptr<xmlChar, XmlFree>;

const char* Characters(const XmlText& text) {
  return reinterpret_cast<const char*>(text.get());
}

XmlText GetName(xmlNodePtr node) {
  return XmlText(xmlGetProp(node, reinterpret_cast<const xmlChar*>("name")));
}

bool Equals(const XmlText& text, const std::string& wanted) {
  return text != nullptr && wanted == Characters(text);
}

std::string GetContent(xmlNodePtr node) {
  const XmlText content(xmlNodeGetContent(node));
  return content != nullptr ? Characters(content) : "";
}

}  // namespace

NvmManipulator::NvmManipulator() : doc(nullptr) {}

// Contract and known issues: docs/kept-as-is.md, `~NvmManipulator`.
NvmManipulator::~NvmManipulator() {
  xmlFreeDoc(doc);
  xmlCleanupParser();
  xmlMemoryDump();
}

// Contract and known issues: docs/kept-as-is.md, `GetEmptyPacket`.
std::string NvmManipulator::GetEmptyPacket() {
  return std::string(PACKET_HEAD) + "<header/>\n<data/>\n" + PACKET_END;
}

// Contract and known issues: docs/kept-as-is.md, `GetAllocatePacket`.
std::string NvmManipulator::GetAllocatePacket() {
  return std::string(PACKET_HEAD) + STRUCT_HEAD + BuildVariable("DeviceOwner", NVM_DEVICE_OWNER) +
         BuildVariable("IfhClientIpAddr", "0") + BuildVariable("IfhClientTcpPorts", "IP_PORT_ANY") +
         STRUCT_END + PACKET_END;
}

// Contract and known issues: docs/kept-as-is.md, `GetReleasePacket`.
std::string NvmManipulator::GetReleasePacket() {
  return std::string(PACKET_HEAD) + STRUCT_HEAD + BuildVariable("DeviceOwner", NVM_DEVICE_OWNER) +
         STRUCT_END + PACKET_END;
}

// Contract and known issues: docs/kept-as-is.md, `BuildRequest`.
std::string NvmManipulator::BuildRequest() {
  std::string body;
  if (functionName == "nvmGetDeviceStatus") {
    body = GetEmptyPacket();
  }
  if (functionName == "nvmReleaseDevice") {
    body = GetReleasePacket();
  }
  if (functionName == "nvmAllocateDevice") {
    body = GetAllocatePacket();
  }
  if (body.empty()) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 116).Log(GetCgiLogHandler(), "Wrong command");
    return "";
  }

  char length[16];
  std::snprintf(length, sizeof length, "%d", static_cast<int>(body.size()));
  // The service expects a GET with a body; USER_AGENT is the agent's whole name.
  return "GET /nVm?FunctionName=" + functionName +
         " HTTP/1.1\r\n"
         "Host: " +
         address +
         "\r\n"
         "Accept: */*\r\n"
         "User-Agent: USER_AGENT\r\n"
         "Content-type: text/xml\r\n"
         "Content-length: " +
         length + "\r\n\r\n" + body;
}

// Contract and known issues: docs/kept-as-is.md, `SendToNvm`.
int NvmManipulator::SendToNvm(const std::string& serviceAddress, const std::string& function,
                              std::string& replyText) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 148).Log(GetCgiLogHandler(), "%s", "SendToNvm");
  if (serviceAddress.empty() || function.empty()) {
    return -1;
  }
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 151)
      .Log(GetCgiLogHandler(), "%s %s", serviceAddress.c_str(), function.c_str());
  functionName = function;
  address = serviceAddress;
  reply.clear();

  const int connection = Connect(address);
  if (connection == -1) {
    return -1;
  }
  const std::string request = BuildRequest();
  if (request.empty()) {
    return -1;  // the connection ends with the process
  }
  if (send(connection, request.data(), request.size(), 0) == -1) {
    const int error = errno;
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 178)
        .Log(GetCgiLogHandler(), "send %s", std::strerror(error));
    close(connection);
    return -1;
  }

  ReceiveBuffer received;
  received.Receive(connection);
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 185).Log(GetCgiLogHandler(), "Receive:\n%s", received.text);
  const char* const lengthHeader = std::strstr(received.text, "content-length");
  if (lengthHeader == nullptr) {
    return -1;  // the connection ends with the process
  }
  int announced = 0;
  std::sscanf(lengthHeader, "content-length: %d", &announced);
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 191).Log(GetCgiLogHandler(), "ConLen: %d", announced);

  int count = 0;
  if (const char* const body = std::strstr(received.text, "<?xml version='1.0'?>")) {
    reply = body;
    count = static_cast<int>(reply.size());
  }
  // Only the announced number of bytes ends this loop: a service that hangs up early keeps it
  // running, and a failed receive counts back by one and appends the buffer once more.
  while (count < announced) {
    count += received.Receive(connection);
    reply += received.text;
  }

  replyText = reply;
  close(connection);
  return 0;
}

// Contract and known issues: docs/kept-as-is.md, `FindChildNode`.
xmlNodePtr NvmManipulator::FindChildNode(xmlNodePtr node, const std::string& name) {
  if (node == nullptr) {
    return nullptr;
  }
  for (xmlNodePtr child = node->children; child != nullptr; child = child->next) {
    if (child->name != nullptr && name == reinterpret_cast<const char*>(child->name)) {
      return child;
    }
  }
  return nullptr;
}

// Contract and known issues: docs/kept-as-is.md, `GetVarNode`.
xmlNodePtr NvmManipulator::GetVarNode(const std::string& name) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 281)
      .Log(GetCgiLogHandler(), "%s %s", "GetVarNode", name.c_str());
  if (reply.empty()) {
    return nullptr;
  }
  if (doc != nullptr) {
    xmlFreeDoc(doc);
  }
  doc = xmlReadMemory(reply.data(), static_cast<int>(reply.size()), "noname.xml", nullptr,
                      XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (doc == nullptr) {
    return nullptr;
  }
  const xmlNodePtr variables =
      FindChildNode(FindChildNode(xmlDocGetRootElement(doc), "data"), "struct");
  if (variables == nullptr) {
    return nullptr;
  }
  for (xmlNodePtr variable = variables->children; variable != nullptr; variable = variable->next) {
    const XmlText variableName = GetName(variable);
    LogFormater(LOG_LEVEL_DEBUG, SOURCE, 292)
        .Log(GetCgiLogHandler(), "%s", Characters(variableName));
    if (Equals(variableName, name)) {
      return variable;
    }
  }
  return nullptr;
}

xmlNodePtr NvmManipulator::GetStatusNodeTree() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 236).Log(GetCgiLogHandler(), "%s", "GetStatusNodeTree");
  return GetVarNode("Status");
}

// Contract and known issues: docs/kept-as-is.md, `GetStatusMessages`.
void NvmManipulator::GetStatusMessages(std::string& code, std::string& msg) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 248).Log(GetCgiLogHandler(), "%s", "GetStatusMessages");
  const xmlNodePtr status = GetStatusNodeTree();
  if (status == nullptr || status->children == nullptr) {
    return;
  }
  for (xmlNodePtr variable = status->children->children; variable != nullptr;
       variable = variable->next) {
    const XmlText variableName = GetName(variable);
    LogFormater(LOG_LEVEL_DEBUG, SOURCE, 255)
        .Log(GetCgiLogHandler(), "%s", Characters(variableName));
    if (Equals(variableName, "code")) {
      code = GetContent(variable);
    } else if (Equals(variableName, "msg")) {
      msg = GetContent(variable);
    }
  }
}

// Contract and known issues: docs/kept-as-is.md, `GetSingleVar`.
std::string NvmManipulator::GetSingleVar(const std::string& name) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 313)
      .Log(GetCgiLogHandler(), "%s %s", "GetSingleVar", name.c_str());
  const xmlNodePtr variable = GetVarNode(name);
  if (variable == nullptr || variable->children == nullptr) {
    return "";
  }
  return GetContent(variable->children);
}

namespace {

// --- Allocation

constexpr char STATUS_FILE[] = "/tmp/cgirep.txt";

xmlExternalEntityLoader defaultEntityLoader;

// Opens the status file and no file that it refers to: a reply must not make us open files or the
// network.
xmlParserInputPtr LoadStatusFileAlone(const char* url, const char* id, xmlParserCtxtPtr context) {
  if (url == nullptr || std::strcmp(url, STATUS_FILE) != 0) {
    return nullptr;
  }
  return defaultEntityLoader(url, id, context);
}

xmlDocPtr ReadStatusFile() {
  defaultEntityLoader = xmlGetExternalEntityLoader();
  xmlSetExternalEntityLoader(LoadStatusFileAlone);
  const xmlDocPtr status =
      xmlReadFile(STATUS_FILE, nullptr, XML_PARSE_NOENT | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  xmlSetExternalEntityLoader(defaultEntityLoader);
  return status;
}

void PrintReply(const std::string& reply) {
  std::printf("\n\n%s\n", reply.c_str());
}

// Traces each step as a number.
// Contract and known issues: docs/kept-as-is.md, `CheckStatusFile`.
void CheckStatusFile() {
  std::printf("%d\n", 332);
  const xmlDocPtr status = ReadStatusFile();
  std::printf("%d\n", 335);
  xmlFreeDoc(status);
  std::printf("%d\n", 337);
  xmlCleanupParser();
  std::printf("%d\n", 339);
  xmlMemoryDump();
  std::printf("%d\n", 341);
}

// Finds and traces the value of the variable "IsAllocated", which must not be the last one of the
// reply. Returns false, and reports it on standard output, when there is none.
// Contract and known issues: docs/kept-as-is.md, `FindIsAllocated`.
bool FindIsAllocated(const std::string& reply, std::string& value) {
  const std::size_t begin = reply.find("<var name=\"IsAllocated\">");
  if (begin == std::string::npos) {
    std::puts("Start 1 nicht gefunden!");
    return false;
  }
  const std::size_t end = reply.find("<var name", begin + 1);
  if (end == std::string::npos) {
    std::puts("End 1 nicht gefunden!");
    return false;
  }
  const std::string variable = reply.substr(begin, end - begin);
  std::printf("%d %d %s\n", static_cast<int>(begin), static_cast<int>(end), variable.c_str());

  const std::size_t openingTag = variable.find("<string>");
  if (openingTag == std::string::npos) {
    std::puts("Start 2 nicht gefunden!");
    return false;
  }
  const std::size_t closingTag = variable.find("</string>", openingTag);
  if (closingTag == std::string::npos) {
    std::puts("End 2 nicht gefunden!");
    return false;
  }
  const std::size_t valueBegin = openingTag + std::strlen("<string>");
  value = variable.substr(valueBegin, closingTag - valueBegin);
  std::puts(value.c_str());
  return true;
}

}  // namespace

// Contract and known issues: docs/kept-as-is.md, `ToggleDeviceAllocation`.
int ToggleDeviceAllocation() {
  std::string reply;
  NvmManipulator nvm;
  nvm.SendToNvm(NVM_SERVICE_ADDRESS, "nvmGetDeviceStatus", reply);
  PrintReply(reply);
  std::ofstream(STATUS_FILE) << reply << std::endl;
  CheckStatusFile();

  std::string isAllocated;
  if (!FindIsAllocated(reply, isAllocated)) {
    return -1;
  }
  reply.clear();
  nvm.SendToNvm(NVM_SERVICE_ADDRESS, isAllocated == "0" ? "nvmAllocateDevice" : "nvmReleaseDevice",
                reply);
  PrintReply(reply);

  reply.clear();
  nvm.SendToNvm(NVM_SERVICE_ADDRESS, "nvmGetDeviceStatus", reply);
  PrintReply(reply);
  return 0;
}
