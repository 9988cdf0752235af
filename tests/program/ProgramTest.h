// What tests of the program share: the device before the request, the request, and what it did to
// the device. Its includes are theirs, too.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "Request.h"

constexpr char OLD_SETTINGS[] = "[SETTINGS]\nVEMODCanDetectTimeout=100\n";
constexpr char NEW_SETTINGS[] = "[SETTINGS]\nVEMODCanDetectTimeout=500\n";
constexpr char CONTENT_OPENING[] = "<div class=\"content\" >\n";
constexpr char CALLS_FILE[] = "/tmp/calls";  // for what the preloaded libraries record

using Texts = std::vector<std::string>;

Texts Joined(const std::vector<Texts>& parts);

// The texts that begin so, in their order.
Texts StartingWith(const std::string& beginning, const Texts& texts);

class NoSettings : public testing::Test {
 protected:
  void SetUp() override;
};

class OldSettings : public NoSettings {
 protected:
  void SetUp() override;
};

enum class Vm { kReal, kFake };

Command With(Vm vm, const Command& request);

// Names of a parametrised test: of its VM, of its row of a table, or of a pair of these.
std::string NameOf(Vm vm);

template <typename Row>
std::string NameOf(const Row& row) {
  return row.name;
}

template <typename First, typename Second>
std::string NameOf(const std::tuple<First, Second>& pair) {
  return NameOf(std::get<0>(pair)) + NameOf(std::get<1>(pair));
}

struct ParamName {
  template <typename Param>
  std::string operator()(const testing::TestParamInfo<Param>& info) const {
    return NameOf(info.param);
  }
};

// The success page up to this text.
std::string PageUpTo(const std::string& end, const std::string& value = "500");

// The request reported success, and standard error got this alone.
void ExpectSuccess(const Result& result, const std::string& value = "500",
                   const std::string& error = "");

// The request wrote the frame alone and stored nothing.
void ExpectOnlyTheFrame(const Result& result);

// The settings file holds this, and nothing lies beside it.
void ExpectSettings(const std::string& text);
