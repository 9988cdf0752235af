// The maintainer's command.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "NvmService.h"
#include "Process.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr char TOGGLE[] = "/build/device/bin/toggle-device-allocation";

TEST(ToggleCommand, EndsWithZeroWhenTheStateWasFound) {
  const NvmService service;
  const Result result = Execute({{TOGGLE}});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.error, "");
  EXPECT_THAT(result.output, StartsWith("\n\n" + FreeReply() + "\n332\n"));
  EXPECT_THAT(result.output, testing::EndsWith("\n\n\n" + AllocatedReply() + "\n"));
}

TEST(ToggleCommand, EndsWith255WithoutAService) {
  const Result result = Execute({{TOGGLE}});
  EXPECT_EQ(result.exitStatus, 255);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.output, "\n\n\n332\n335\n337\n339\n341\nStart 1 nicht gefunden!\n");
}

TEST(ToggleCommand, WhatTheServiceRefusesIsNoFailure) {
  const NvmService service;
  AllocateAs("GARAGE");
  const Result result = Execute({{TOGGLE}});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(result.output, HasSubstr("Device is allocated by GARAGE"));
}

}  // namespace
