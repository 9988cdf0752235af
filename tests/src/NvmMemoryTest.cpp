// The nVm client under valgrind, which finds what is read uninitialised or never freed. What is
// reachable at the end is kept on purpose: the log handlers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "NvmService.h"
#include "Process.h"
#include "Sandbox.h"

namespace {

using testing::HasSubstr;

constexpr char TOGGLE[] = "/srv/vemo/bin/toggle-device-allocation";

class MemoryCheck : public testing::Test {
 protected:
  void SetUp() override { SKIP_WHERE_TRACED("valgrind does not see the sandbox's paths"); }

  // Runs the program; a memory error, or a block that is lost, fails the test.
  static Result Check(const std::vector<std::string>& program) {
    Command command;
    command.words = {"/usr/bin/valgrind", "--leak-check=full",
                     "--errors-for-leak-kinds=definite,indirect,possible", "--error-exitcode=99"};
    command.words.insert(command.words.end(), program.begin(), program.end());
    command.environment = {{"VEMO_SANDBOX", "1"}, {"PATH", "/usr/bin:/bin"}};
    const Result result = Execute(command);
    EXPECT_THAT(result.error, HasSubstr("ERROR SUMMARY: 0 errors from 0 contexts"));
    EXPECT_THAT(result.error, testing::AnyOf(HasSubstr("definitely lost: 0 bytes"),
                                             HasSubstr("All heap blocks were freed")));
    return result;
  }
};

TEST_F(MemoryCheck, OfTheToggleWithAService) {
  const NvmService service;
  EXPECT_EQ(Check({TOGGLE}).exitStatus, 0);
  EXPECT_EQ(Check({TOGGLE}).exitStatus, 0);
}

TEST_F(MemoryCheck, OfTheToggleWithoutAService) {
  EXPECT_EQ(Check({TOGGLE}).exitStatus, 255);
}

TEST_F(MemoryCheck, OfTheReader) {
  const Result result = Check({"/build/tests/nvm_tests", "--gtest_filter=*NvmReader*"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(result.output, HasSubstr("[  PASSED  ]"));
}

}  // namespace
