#include "WddxSchema.h"

#include <libxml/parser.h>
#include <libxml/valid.h>

#include <cstdarg>
#include <cstdio>
#include <memory>

namespace {

constexpr char WDDX_1_0[] = "/source/tests/data/wddx_1_0.dtd";

template <typename Type>
using XmlPointer = std::unique_ptr<Type, void (*)(Type*)>;

void Note(void* errors, const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  static_cast<std::vector<std::string>*>(errors)->push_back(text);
}

}  // namespace

std::vector<std::string> WddxErrors(const std::string& packet) {
  const XmlPointer<xmlDoc> document(
      xmlReadMemory(packet.data(), static_cast<int>(packet.size()), "packet.xml", nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
      xmlFreeDoc);
  if (!document) {
    return {"not well-formed"};
  }
  const XmlPointer<xmlDtd> schema(xmlParseDTD(nullptr, reinterpret_cast<const xmlChar*>(WDDX_1_0)),
                                  xmlFreeDtd);
  if (!schema) {
    return {"no document type definition"};
  }
  std::vector<std::string> errors;
  const XmlPointer<xmlValidCtxt> context(xmlNewValidCtxt(), xmlFreeValidCtxt);
  context->userData = &errors;
  context->error = Note;
  const bool isValid = xmlValidateDtd(context.get(), document.get(), schema.get()) == 1;
  if (!isValid && errors.empty()) {
    errors.push_back("not valid");
  }
  return errors;
}
