// LeakSanitizer asks here whether it is wanted. It looks for leaks by ptrace, which a traced
// process cannot use.

#include "../support/Sandbox.h"

extern "C" int __lsan_is_turned_off();

extern "C" int __lsan_is_turned_off() {
  return IsTraced() ? 1 : 0;
}
