// Hostile replies of the nVm service: every operation of the reader reads each of them, under the
// sanitizers, and opens nothing. What it reads of them: tests/src.

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "../support/Sandbox.h"
#include "NvmManipulator.h"

namespace {

class Client : public NvmManipulator {
 public:
  using NvmManipulator::reply;
};

xmlParserInputPtr RefuseToLoad(const char*, const char*, xmlParserCtxtPtr) {
  std::fputs("something that a reply refers to is opened\n", stderr);
  std::abort();
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
  Client client;
  client.reply.assign(reinterpret_cast<const char*>(data), size);
  client.GetSingleVar("IsAllocated");
  std::string code;
  std::string msg;
  client.GetStatusMessages(code, msg);
  return 0;
}
