// LeakSanitizer asks here whether it is wanted. It looks for leaks by ptrace, which a traced
// process cannot use.

#include "../support/Sandbox.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name
extern "C" int __lsan_is_turned_off();

extern "C" int __lsan_is_turned_off() {  // NOLINT(bugprone-reserved-identifier)
  return IsTraced() ? 1 : 0;
}
