// Runs the tests of one binary inside the device's sandbox, so that they and the programs they
// start have an /app and a /tmp of their own. Outside it, the binary starts itself again inside.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "Sandbox.h"
#include "SmallDisk.h"

namespace {

bool HasArgument(int argc, char** argv, const std::string& wanted) {
  for (int i = 1; i < argc; ++i) {
    if (argv[i] == wanted) {
      return true;
    }
  }
  return false;
}

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

[[noreturn]] void RestartInSandbox(int argc, char** argv) {
  const auto self = std::filesystem::read_symlink("/proc/self/exe");
  const std::string inside = "/build" / self.lexically_relative(BUILD_FOLDER);
  const std::string source = SOURCE_FOLDER;
  std::vector<std::string> words = {source + "/standin/sandbox",
                                    BUILD_FOLDER,
                                    "--private-network",
                                    "--read-only",
                                    source,
                                    "/source",
                                    "--disk",
                                    std::to_string(SmallDisk::SIZE),
                                    SmallDisk::PATH,
                                    "--",
                                    inside};
  words.insert(words.end(), argv + 1, argv + argc);
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  execv(arguments[0], arguments.data());
  std::perror(arguments[0]);
  std::exit(EXIT_FAILURE);
}

}  // namespace

// LeakSanitizer asks here. It looks for leaks by ptrace, which a traced process cannot use.
extern "C" int __lsan_is_turned_off() {  // NOLINT(bugprone-reserved-identifier)
  return IsTraced() ? 1 : 0;
}

int main(int argc, char** argv) {
  const bool isInside = std::getenv("VEMO_SANDBOX") != nullptr;
  if (!isInside && !HasArgument(argc, argv, "--gtest_list_tests")) {
    RestartInSandbox(argc, argv);
  }
  testing::InitGoogleTest(&argc, argv);
  RefuseOtherArguments(argc, argv);
  return RUN_ALL_TESTS();
}
