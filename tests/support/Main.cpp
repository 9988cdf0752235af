// Runs the tests of one binary inside the device's sandbox, so that they and the programs they
// start have an /app and a /tmp of their own. Outside it, the binary starts itself again inside.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "Sandbox.h"

namespace {

// GoogleTest has taken its own arguments away; what else is left is a mistake.
void RefuseOtherArguments(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word != "--help" && word != "-h") {
      std::cerr << argv[0] << ": unknown argument " << word << "; it takes GoogleTest's\n";
      std::exit(2);
    }
  }
}

[[noreturn]] void RestartInSandbox(char** arguments) {
  const auto self = std::filesystem::read_symlink("/proc/self/exe");
  const std::string inside = "/build" / self.lexically_relative(BUILD_FOLDER);
  const char* const sandbox = SOURCE_FOLDER "/standin/sandbox";
  std::vector<const char*> words = {sandbox,       BUILD_FOLDER,  "--private-network",
                                    "--read-only", SOURCE_FOLDER, "/source",
                                    "--",          inside.c_str()};
  while (words.back() != nullptr) {
    words.push_back(*++arguments);
  }
  execv(sandbox, const_cast<char**>(words.data()));
  std::perror(sandbox);
  std::exit(EXIT_FAILURE);
}

}  // namespace

// LeakSanitizer asks here. It looks for leaks by ptrace, which a traced process cannot use.
extern "C" int __lsan_is_turned_off() {  // NOLINT(bugprone-reserved-identifier)
  return IsTraced() ? 1 : 0;
}

int main(int argc, char** argv) {
  const bool isInside = std::getenv("VEMO_SANDBOX") != nullptr;
  if (!isInside && std::count(argv, argv + argc, std::string("--gtest_list_tests")) == 0) {
    RestartInSandbox(argv);
  }
  testing::InitGoogleTest(&argc, argv);
  RefuseOtherArguments(argc, argv);
  return RUN_ALL_TESTS();
}
