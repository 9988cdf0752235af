// Which of the two sandboxes the tests run in.
#pragma once

#include <cstdlib>
#include <cstring>

// Whether we are in a sandbox by ptrace, not by namespaces.
inline bool IsTraced() {
  const char* const kind = std::getenv("VEMO_SANDBOX");
  return kind != nullptr && std::strcmp(kind, "proot") == 0;
}
