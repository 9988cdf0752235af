#include "Wddx.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>

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
  std::string escaped;
  for (const char character : text) {
    switch (character) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      default:
        escaped += character;
    }
  }
  return escaped;
}

std::string WriteVariable(const std::string& name, const std::string& value) {
  return "<var name=\"" + name + "\"><string>" + Escape(value) + "</string></var>";
}

}  // namespace

std::optional<std::map<std::string, std::string>> ReadPacket(const std::string& text) {
  const std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> document(
      xmlReadMemory(text.data(), static_cast<int>(text.size()), "request.xml", nullptr,
                    XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NONET),
      xmlFreeDoc);
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

// The declaration in single quotes and the names in double quotes, no white space between elements:
// the clients search the text for it.
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
