// The nVm client under valgrind, which finds what is read uninitialised or never freed. What is
// reachable at the end is kept on purpose: the log handlers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "Files.h"
#include "Sandbox.h"

namespace {

TEST(NvmMemory, IsInitialisedWhereItIsReadAndFreed) {
  SKIP_WHERE_TRACED("valgrind does not see the sandbox's paths");
  const int status = std::system(
      "valgrind --leak-check=full --errors-for-leak-kinds=definite,indirect,possible "
      "--error-exitcode=99 /build/tests/nvm_tests --gtest_brief=1 "
      "--gtest_filter=*NvmReader*:NvmToggle.*:NvmAllocation.*:*NvmReply*:-*Hostile* "
      ">/tmp/valgrind.txt 2>&1");
  const std::string output = ReadText("/tmp/valgrind.txt");
  EXPECT_EQ(status, 0) << output;
  EXPECT_THAT(output, testing::ContainsRegex("PASSED  ] [1-9]"));
}

}  // namespace
