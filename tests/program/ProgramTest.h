// What tests of the program share: the device before the request, and what the request did to it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Process.h"

constexpr char OLD_SETTINGS[] = "[SETTINGS]\nVEMODCanDetectTimeout=100\n";
constexpr char NEW_SETTINGS[] = "[SETTINGS]\nVEMODCanDetectTimeout=500\n";
constexpr char CONTENT_OPENING[] = "<div class=\"content\" >\n";

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
std::string NameOf(Vm vm);  // in a test's name

// The success page up to this text.
std::string PageUpTo(const std::string& end, const std::string& value = "500");

// The settings file holds this, and nothing lies beside it.
void ExpectSettings(const std::string& text);

// The request, on a device without settings, makes the page take the value: it is echoed and
// stored. `inFile` is the value as it stands in the settings file.
void ExpectTaken(const Command& request, const std::string& value, const std::string& inFile);
void ExpectTaken(const Command& request, const std::string& value);

// The request, on a device without settings, is answered with the warning, and nothing is stored.
void ExpectAbsent(const Command& request);
