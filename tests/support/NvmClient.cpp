#include "NvmClient.h"

#include <dlfcn.h>
#include <libxml/parser.h>
#include <libxml/xmlmemory.h>

#include <filesystem>
#include <regex>

#include "CgiLog.h"
#include "Files.h"

namespace {

std::vector<std::string> calls;

template <typename Function>
Function* Original(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string Words(const char* url, const char* encoding, int options) {
  return std::string(" ") + url + " " + (encoding != nullptr ? encoding : "(null)") + " " +
         std::to_string(options);
}

}  // namespace

void EmptyLog() {
  GetCgiLogHandler();
  std::filesystem::resize_file(LOG_FILE, 0);
}

std::string LogText() {
  // Time, level, handler, process, file and line: at most this long.
  constexpr std::size_t COLUMNS = 120;
  static const std::regex columns(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  ([A-Z]+) +cgi +\d+ *(src/\w+) +(\d+) +)");
  std::string text;
  for (const std::string& line : Lines(ReadText(LOG_FILE))) {
    const std::string start = line.substr(0, COLUMNS);
    text +=
        std::regex_replace(start, columns, "$1 $2 $3 ", std::regex_constants::match_continuous) +
        line.substr(start.size()) + "\n";
  }
  return text;
}

std::string Debug(int line, const std::string& message) {
  return "DEBUG src/NvmManipulator " + std::to_string(line) + " " + message + "\n";
}

std::string Error(int line, const std::string& message) {
  return "ERROR src/NvmManipulator " + std::to_string(line) + " " + message + "\n";
}

std::vector<std::string> XmlCalls() {
  return calls;
}

void ForgetXmlCalls() {
  calls.clear();
}

extern "C" xmlDocPtr xmlReadMemory(const char* buffer, int size, const char* url,
                                   const char* encoding, int options) {
  calls.push_back("xmlReadMemory" + Words(url, encoding, options));
  return Original(xmlReadMemory, "xmlReadMemory")(buffer, size, url, encoding, options);
}

extern "C" xmlDocPtr xmlReadFile(const char* url, const char* encoding, int options) {
  calls.push_back("xmlReadFile" + Words(url, encoding, options));
  return Original(xmlReadFile, "xmlReadFile")(url, encoding, options);
}

extern "C" void xmlFreeDoc(xmlDocPtr document) {
  calls.push_back(document != nullptr ? "xmlFreeDoc" : "xmlFreeDoc (null)");
  Original(xmlFreeDoc, "xmlFreeDoc")(document);
}

extern "C" void xmlCleanupParser() {
  calls.push_back("xmlCleanupParser");
  Original(xmlCleanupParser, "xmlCleanupParser")();
}

extern "C" void xmlMemoryDump() {
  calls.push_back("xmlMemoryDump");
  Original(xmlMemoryDump, "xmlMemoryDump")();
}
