#include "ProgramTest.h"

Texts Joined(const std::vector<Texts>& parts) {
  Texts joined;
  for (const Texts& part : parts) {
    joined.insert(joined.end(), part.begin(), part.end());
  }
  return joined;
}

Texts StartingWith(const std::string& beginning, const Texts& texts) {
  Texts found;
  for (const std::string& text : texts) {
    if (text.rfind(beginning, 0) == 0) {
      found.push_back(text);
    }
  }
  return found;
}

void NoSettings::SetUp() {
  ResetDevice();
  std::filesystem::remove(CALLS_FILE);
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

void ExpectSuccess(const Result& result, const std::string& value, const std::string& error) {
  EXPECT_EQ(result.output, SuccessPage(value));
  EXPECT_EQ(result.error, error);
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exitStatus, 0);
}

void ExpectOnlyTheFrame(const Result& result) {
  EXPECT_EQ(result.output, FrameOnly());
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_FALSE(std::filesystem::exists(SETTINGS_FILE));
}

void ExpectSettings(const std::string& text) {
  EXPECT_EQ(ReadText(SETTINGS_FILE), text);
  const auto folder = std::filesystem::path(SETTINGS_FILE).parent_path();
  const std::filesystem::directory_iterator files(folder);
  EXPECT_EQ(std::distance(begin(files), end(files)), 1) << "something lies beside the file";
}
