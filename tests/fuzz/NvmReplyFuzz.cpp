// Hostile replies, made by libFuzzer: every operation of the reader reads each of them.
//
// The tests run it for some seconds. By hand, for an hour, or until it finds something:
//
//   tests/fuzz/run build-clang NvmReplyFuzz 3600

#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "../support/Sandbox.h"
#include "NvmManipulator.h"

namespace {

class Client : public NvmManipulator {
 public:
  void Read(const std::string& text) {
    reply = text;
    std::string code;
    std::string msg;
    GetStatusMessages(code, msg);
    GetStatusNodeTree();
    GetVarNode(code);
    GetSingleVar("IsAllocated");
    FindChildNode(xmlDocGetRootElement(doc), msg);
  }
};

// libxml2 reports broken encodings past the options of the parser.
void Ignore(void*, const char*, ...) {}

}  // namespace

// LeakSanitizer asks here. It looks for leaks by ptrace, which a traced process cannot use.
extern "C" int __lsan_is_turned_off() {
  return IsTraced() ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  xmlSetGenericErrorFunc(nullptr, Ignore);  // each client's end takes it away again
  Client().Read(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
