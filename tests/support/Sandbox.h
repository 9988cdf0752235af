// What the tests' sandbox cannot give where the machine refuses namespaces.
#pragma once

#include <cstdlib>
#include <cstring>

// Whether we are in a sandbox by ptrace, not by namespaces.
inline bool IsTraced() {
  const char* const kind = std::getenv("VEMO_SANDBOX");
  return kind != nullptr && std::strcmp(kind, "proot") == 0;
}

// Skips the test where it cannot run. `reason` ends the sentence "Where namespaces are refused,
// ...".
#define SKIP_WHERE_TRACED(reason)                                   \
  do {                                                              \
    if (IsTraced()) {                                               \
      GTEST_SKIP() << "Where namespaces are refused, " << (reason); \
    }                                                               \
  } while (false)
