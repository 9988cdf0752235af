#include "Wddx.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>
#include <new>

namespace {

std::string Text(xmlChar* text) {
  std::string copy = text != nullptr ? reinterpret_cast<const char*>(text) : "";
  xmlFree(text);
  return copy;
}

xmlNodePtr FindElement(xmlNodePtr parent, const std::string& name) {
  for (xmlNodePtr node = xmlFirstElementChild(parent); node != nullptr;
       node = xmlNextElementSibling(node)) {
    if (name == reinterpret_cast<const char*>(node->name)) {
      return node;
    }
  }
  return nullptr;
}

std::string Escape(const std::string& text) {
  return Text(xmlEncodeSpecialChars(nullptr, reinterpret_cast<const xmlChar*>(text.c_str())));
}

std::string WriteVariable(const std::string& name, const std::string& value) {
  return "<var name=\"" + name + "\"><string>" + Escape(value) + "</string></var>";
}

// A few entity declarations can expand to gigabytes; no client sends any.
void StopAtDeclaration(void* context, const xmlChar*, int, const xmlChar*, const xmlChar*,
                       xmlChar*) {
  auto* const parser = static_cast<xmlParserCtxtPtr>(context);
  parser->wellFormed = 0;
  xmlStopParser(parser);
}

// Null when the text is not well-formed, or declares an entity.
xmlDocPtr Parse(const std::string& text) {
  const std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> parser(xmlNewParserCtxt(),
                                                                            xmlFreeParserCtxt);
  if (parser == nullptr) {
    return nullptr;
  }
  parser->sax->entityDecl = StopAtDeclaration;
  // Ignores the declared encoding, so that libxml2 loads no converter.
  return xmlCtxtReadMemory(
      parser.get(), text.data(), static_cast<int>(text.size()), "request.xml", "UTF-8",
      XML_PARSE_IGNORE_ENC | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NONET);
}

}  // namespace

std::optional<std::map<std::string, std::string>> ReadPacket(const std::string& text) {
  // Allocates and frees 4 MiB first: when memory is short, this throws, and libxml2, which may
  // crash then, is not called.
  constexpr std::size_t ENOUGH_BYTES = std::size_t{4} * 1024 * 1024;
  operator delete(operator new(ENOUGH_BYTES));
  const std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> document(Parse(text), xmlFreeDoc);
  const xmlNodePtr root = xmlDocGetRootElement(document.get());
  const xmlNodePtr data = FindElement(root, "data");
  if (data == nullptr) {
    return std::nullopt;
  }
  std::map<std::string, std::string> variables;
  const xmlNodePtr fields = FindElement(data, "struct");
  for (xmlNodePtr field = xmlFirstElementChild(fields); field != nullptr;
       field = xmlNextElementSibling(field)) {
    const std::string name = Text(xmlGetProp(field, reinterpret_cast<const xmlChar*>("name")));
    variables[name] = Text(xmlNodeGetContent(field));
  }
  return variables;
}

// The clients search the text. So the declaration is in single quotes, names are in double quotes,
// and there is no white space between elements.
std::string WritePacket(const std::vector<std::pair<std::string, std::string>>& variables,
                        const Status& status) {
  std::string packet =
      "<?xml version='1.0'?>"
      "<!DOCTYPE wddxPacket SYSTEM 'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'>"
      "<wddxPacket version=\"1.0\"><header/><data><struct>";
  for (const auto& [name, value] : variables) {
    packet += WriteVariable(name, value);
  }
  return packet + "<var name=\"Status\"><struct>" +
         WriteVariable("code", std::to_string(status.code)) + WriteVariable("msg", status.message) +
         "</struct></var></struct></data></wddxPacket>";
}
