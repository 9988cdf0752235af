#include "XmlCalls.h"

#include <dlfcn.h>
#include <libxml/parser.h>
#include <libxml/xmlmemory.h>

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
