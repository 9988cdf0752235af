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
  for (xmlNodePtr child = node->children; child != nullptr; child = child->next) {
    children.push_back(child);
  }
  return children;
}

std::string Text(const xmlChar* text) {
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

std::string Owned(xmlChar* text) {
  std::string copy = Text(text);
  xmlFree(text);
  return copy;
}

// The attribute `name`, one that a document type gives included.
std::optional<std::string> NameOf(xmlNodePtr node) {
  const xmlAttrPtr attribute = xmlHasProp(node, reinterpret_cast<const xmlChar*>("name"));
  if (attribute == nullptr) {
    return std::nullopt;
  }
  if (attribute->type == XML_ATTRIBUTE_DECL) {
    return Text(reinterpret_cast<xmlAttributePtr>(attribute)->defaultValue);
  }
  return Owned(xmlNodeListGetString(node->doc, attribute->children, 1));
}

std::string ContentOf(xmlNodePtr node) {
  switch (node->type) {
    case XML_TEXT_NODE:
    case XML_CDATA_SECTION_NODE:
    case XML_COMMENT_NODE:
    case XML_PI_NODE:
      return Text(node->content);
    case XML_ELEMENT_NODE: {
      std::string content;
      for (const xmlNodePtr child : Children(node)) {
        const bool isMarkup = child->type == XML_COMMENT_NODE || child->type == XML_PI_NODE;
        content += isMarkup ? "" : ContentOf(child);
      }
      return content;
    }
    default:  // entities: libxml2 knows
      return Owned(xmlNodeGetContent(node));
  }
}

xmlNodePtr FirstOfName(xmlNodePtr node, const std::string& name) {
  if (node != nullptr) {
    for (const xmlNodePtr child : Children(node)) {
      if (Text(child->name) == name) {
        return child;
      }
    }
  }
  return nullptr;
}

xmlNodePtr RootOf(xmlDocPtr document) {
  if (document != nullptr) {
    for (xmlNodePtr node = document->children; node != nullptr; node = node->next) {
      if (node->type == XML_ELEMENT_NODE) {
        return node;
      }
    }
  }
  return nullptr;
}

xmlNodePtr Variable(xmlDocPtr document, const std::string& name) {
  const xmlNodePtr variables = FirstOfName(FirstOfName(RootOf(document), "data"), "struct");
  if (variables != nullptr) {
    for (const xmlNodePtr child : Children(variables)) {
      if (NameOf(child) == name) {
        return child;
      }
    }
  }
  return nullptr;
}

// ---- The reader, compared with it.

// The same place in two documents of the same text.
bool IsSamePlace(const xmlNode* one, const xmlNode* other) {
  while (one != nullptr && other != nullptr) {
    if (one->type != other->type || Text(one->name) != Text(other->name)) {
      return false;
    }
    const bool isFirst = one->prev == nullptr;
    if (isFirst != (other->prev == nullptr)) {
      return false;
    }
    one = isFirst ? one->parent : one->prev;
    other = isFirst ? other->parent : other->prev;
  }
  return one == other;
}

class Client : public NvmManipulator {
 public:
  void Check(const std::string& text) {
    reply = text;
    const Document document = Parse(text);
    CheckVariables(document.get());
    CheckStatus(document.get());
    CheckEmptyReply();
  }

 private:
  // Each call parses anew: only as many as it takes.
  void CheckVariables(xmlDocPtr document) {
    const xmlNodePtr data = FirstOfName(RootOf(document), "data");
    CheckVariable(document, "IsAllocated");
    Require(IsSamePlace(FindChildNode(RootOf(doc), "data"), data),
            "FindChildNode finds the first child of the name");
    CheckValue(document, "IsAllocated");
    const xmlNodePtr variables = FirstOfName(data, "struct");
    if (variables != nullptr && variables->last != nullptr) {
      CheckValue(document, NameOf(variables->last).value_or(""));
    }
  }

  void CheckVariable(xmlDocPtr document, const std::string& name) {
    Require(IsSamePlace(GetVarNode(name), Variable(document, name)),
            "GetVarNode finds the variable");
    Require((doc == nullptr) == (document == nullptr), "the document is the reply's");
  }

  void CheckValue(xmlDocPtr document, const std::string& name) {
    const xmlNodePtr variable = Variable(document, name);
    const bool hasValue = variable != nullptr && variable->children != nullptr;
    Require(GetSingleVar(name) == (hasValue ? ContentOf(variable->children) : ""),
            "GetSingleVar gives the content of the first child");
  }

  void CheckStatus(xmlDocPtr document) {
    const xmlNodePtr status = Variable(document, "Status");
    Require(IsSamePlace(GetStatusNodeTree(), status), "GetStatusNodeTree finds the variable");
    std::string wantedCode = "(code)";
    std::string wantedMsg = "(msg)";
    if (status != nullptr && status->children != nullptr) {
      for (const xmlNodePtr variable : Children(status->children)) {
        if (NameOf(variable) == "code") {
          wantedCode = ContentOf(variable);
        } else if (NameOf(variable) == "msg") {
          wantedMsg = ContentOf(variable);
        }
      }
    }
    std::string code = "(code)";
    std::string msg = "(msg)";
    GetStatusMessages(code, msg);
    Require(code == wantedCode && msg == wantedMsg,
            "GetStatusMessages gives the last code and message, and leaves what is not there");
  }

  void CheckEmptyReply() {
    const xmlNode* const before = reinterpret_cast<xmlNode*>(doc);
    reply.clear();
    std::string code = "(code)";
    GetStatusMessages(code, code);
    Require(GetVarNode("Status") == nullptr && GetSingleVar("Status").empty() && code == "(code)",
            "an empty reply holds nothing");
    Require(reinterpret_cast<xmlNode*>(doc) == before, "an empty reply is not read");
  }
};

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
  Client().Check(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
