#include "ProgramTest.h"

#include "ExpectedPage.h"
#include "Files.h"
#include "PropertiesIni.h"
#include "Request.h"

namespace {

Result Submit(const Command& request) {
  ResetDevice();
  return Execute(WithFakeVm(request));
}

std::string StoredValue() {
  PropertiesIni settings;
  settings.Load(SETTINGS_FILE);
  return settings.GetProperty("SETTINGS", "VEMODCanDetectTimeout");
}

}  // namespace

void NoSettings::SetUp() {
  ResetDevice();
}

void OldSettings::SetUp() {
  NoSettings::SetUp();
  WriteText(SETTINGS_FILE, OLD_SETTINGS);
}

Command With(Vm vm, const Command& request) {
  return vm == Vm::kReal ? request : WithFakeVm(request);
}

std::string NameOf(Vm vm) {
  return vm == Vm::kReal ? "RealVm" : "FakeVm";
}

std::string PageUpTo(const std::string& end, const std::string& value) {
  const std::string page = SuccessPage(value);
  return page.substr(0, page.find(end) + end.size());
}

void ExpectSettings(const std::string& text) {
  EXPECT_EQ(ReadText(SETTINGS_FILE), text);
  const auto folder = std::filesystem::path(SETTINGS_FILE).parent_path();
  const std::filesystem::directory_iterator files(folder);
  EXPECT_EQ(std::distance(begin(files), end(files)), 1) << "something lies beside the file";
}

void ExpectTaken(const Command& request, const std::string& value, const std::string& inFile) {
  const Result result = Submit(request);
  // Not EXPECT_EQ: a value may be long.
  EXPECT_TRUE(result.output == SuccessPage(value)) << result.output.substr(0, 2000);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_TRUE(StoredValue() == value) << StoredValue().substr(0, 1000);
  EXPECT_TRUE(ReadText(SETTINGS_FILE) == "[SETTINGS]\nVEMODCanDetectTimeout=" + inFile + "\n")
      << ReadText(SETTINGS_FILE).substr(0, 1000);
}

void ExpectTaken(const Command& request, const std::string& value) {
  ExpectTaken(request, value, value);
}

void ExpectAbsent(const Command& request) {
  const Result result = Submit(request);
  EXPECT_EQ(result.output, WarningPage());
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_FALSE(std::filesystem::exists(SETTINGS_FILE));
}
