// Hostile replies of the nVm service: every operation of the reader reads each of them, and gives
// what a walk of our own over the same document finds.

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../support/Sandbox.h"
#include "NvmManipulator.h"

namespace {

void Require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

// ---- Our own walk.

struct DocumentFree {
  void operator()(xmlDocPtr document) const { xmlFreeDoc(document); }
};
using Document = std::unique_ptr<xmlDoc, DocumentFree>;

Document Parse(const std::string& text) {
  return Document(xmlReadMemory(text.data(), static_cast<int>(text.size()), "noname.xml", nullptr,
                                XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
}

std::vector<xmlNodePtr> Children(xmlNodePtr node) {
  std::vector<xmlNodePtr> children;
  for (xmlNodePtr child = node != nullptr ? node->children : nullptr; child != nullptr;
       child = child->next) {
    children.push_back(child);
  }
  return children;
}

std::optional<std::string> Owned(xmlChar* text) {
  if (text == nullptr) {
    return std::nullopt;
  }
  std::string copy = reinterpret_cast<const char*>(text);
  xmlFree(text);
  return copy;
}

std::string TextOf(xmlDocPtr document) {
  xmlChar* text = nullptr;
  int size = 0;
  if (document != nullptr) {
    xmlDocDumpMemory(document, &text, &size);
  }
  return Owned(text).value_or("no document");
}

std::optional<std::string> NameOf(xmlNodePtr node) {
  return Owned(xmlGetProp(node, reinterpret_cast<const xmlChar*>("name")));
}

std::string ContentOf(xmlNodePtr node) {
  return Owned(xmlNodeGetContent(node)).value_or("");
}

xmlNodePtr FirstOfName(xmlNodePtr node, const char* name) {
  for (const xmlNodePtr child : Children(node)) {
    if (xmlStrEqual(child->name, reinterpret_cast<const xmlChar*>(name)) != 0) {
      return child;
    }
  }
  return nullptr;
}

// ---- The reader, compared with it. Each call parses anew: only as many as it takes.

class Client : public NvmManipulator {
 public:
  void Check(const std::string& text) {
    reply = text;
    const xmlNodePtr variable = GetVarNode("IsAllocated");
    Require(variable == Variable("IsAllocated"), "GetVarNode finds the variable");
    Require(TextOf(doc) == TextOf(Parse(text).get()), "the document is the reply's");
    Require(FindChildNode(xmlDocGetRootElement(doc), "data") == Data(),
            "FindChildNode finds the first child of the name");
    CheckValue("IsAllocated");
    const std::vector<xmlNodePtr> variables = Variables();
    if (!variables.empty()) {
      CheckValue(NameOf(variables.back()).value_or(""));
    }
    CheckStatus();
  }

 private:
  xmlNodePtr Data() const { return FirstOfName(xmlDocGetRootElement(doc), "data"); }

  std::vector<xmlNodePtr> Variables() const { return Children(FirstOfName(Data(), "struct")); }

  xmlNodePtr Variable(const std::string& name) const {
    for (const xmlNodePtr variable : Variables()) {
      if (NameOf(variable) == name) {
        return variable;
      }
    }
    return nullptr;
  }

  void CheckValue(const std::string& name) {
    const std::string value = GetSingleVar(name);
    const std::vector<xmlNodePtr> children = Children(Variable(name));
    Require(value == (children.empty() ? "" : ContentOf(children.front())),
            "GetSingleVar gives the content of the first child");
  }

  void CheckStatus() {
    const xmlNodePtr status = GetStatusNodeTree();
    Require(status == Variable("Status"), "GetStatusNodeTree finds the variable");
    std::string code = "(code)";
    std::string msg = "(msg)";
    GetStatusMessages(code, msg);
    std::string wantedCode = "(code)";
    std::string wantedMsg = "(msg)";
    const std::vector<xmlNodePtr> children = Children(Variable("Status"));
    for (const xmlNodePtr variable : Children(children.empty() ? nullptr : children.front())) {
      if (NameOf(variable) == "code") {
        wantedCode = ContentOf(variable);
      } else if (NameOf(variable) == "msg") {
        wantedMsg = ContentOf(variable);
      }
    }
    Require(code == wantedCode && msg == wantedMsg,
            "GetStatusMessages gives the last code and message, and leaves what is not there");
  }
};

xmlParserInputPtr RefuseToLoad(const char*, const char*, xmlParserCtxtPtr) {
  Require(false, "nothing that a reply refers to is opened");
  return nullptr;
}

// libxml2 reports broken encodings past the options of the parser.
void Ignore(void*, const char*, ...) {}

}  // namespace

// LeakSanitizer asks here whether it is wanted. It looks for leaks by ptrace, which a traced
// process cannot use.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name
extern "C" int __lsan_is_turned_off();

extern "C" int __lsan_is_turned_off() {  // NOLINT(bugprone-reserved-identifier)
  return IsTraced() ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  xmlSetGenericErrorFunc(nullptr, Ignore);  // each client's end takes it away again
  xmlSetExternalEntityLoader(RefuseToLoad);
  Client().Check(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
