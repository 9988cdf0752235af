// The Java VM's start-up options that the device ships, with the real Java VM: with them the page
// is served, and nothing that the VM reports about bad ones gets into it.

#include "ProgramTest.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char SHIPPED[] = "/srv/vemo/java.options";

// What the VM leaves in the temporary folder without the option against it.
Texts PerformanceData() {
  Texts found;
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    found.push_back(entry.path().filename());
  }
  return StartingWith("hsperfdata", found);
}

class StartUpOptions : public NoSettings {
 protected:
  void SetUp() override {
    NoSettings::SetUp();
    for (const std::string& name : PerformanceData()) {
      std::filesystem::remove_all("/tmp/" + name);
    }
  }

  // A request with the options of that file.
  static Result ExecuteWith(const std::string& optionsFile,
                            const std::string& classPath = "/srv/vemo/java") {
    return Execute(
        WithVariable(RequestWith(classPath), "JAVA_OPTIONS", "-XX:VMOptionsFile=" + optionsFile));
  }

  static Command RequestWith(const std::string& classPath) {
    return WithVariable(Get("CanDetectTimeout=500"), "JAVA_CLASSPATH", classPath);
  }

  // The page as far as it came, cut or the frame alone or all of it, and nothing else.
  static void ExpectNothingOfTheVmIn(const Result& result) {
    EXPECT_THAT(result.output, StartsWith("Content-Type: text/html\n"));
    EXPECT_TRUE(result.output == FrameOnly() ||
                SuccessPage("500").substr(0, result.output.size()) == result.output)
        << result.output;
  }
};

TEST_F(StartUpOptions, ServeThePageAndLeaveNothingInTheTemporaryFolder) {
  ExpectSuccess(ExecuteWith(SHIPPED));
  EXPECT_THAT(LoggedStatements(),
              Contains("DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: -XX:VMOptionsFile=" +
                       std::string(SHIPPED)));
  EXPECT_THAT(PerformanceData(), testing::IsEmpty());
}

TEST_F(StartUpOptions, AreWhatTheWebServerHandsOver) {
  EXPECT_THAT(ReadText("/srv/vemo/lighttpd-site.conf"),
              testing::ContainsRegex(
                  "\"JAVA_OPTIONS\" +=> \"-XX:VMOptionsFile=\" \\+ var.vemo_java_options"));
  EXPECT_THAT(ReadText("/srv/vemo/lighttpd-paths.conf"),
              HasSubstr("var.vemo_java_options = \"" + std::string(SHIPPED) + "\""));
}

TEST_F(StartUpOptions, KeepAMissingClassPathOffThePage) {
  ExpectOnlyTheFrame(ExecuteWith(SHIPPED, "/nowhere"));
}

TEST_F(StartUpOptions, AMissingFileOfThemIsKeptOffThePage) {
  const Result result = ExecuteWith("/nowhere/java.options");
  ExpectNothingOfTheVmIn(result);
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_FALSE(std::filesystem::exists(SETTINGS_FILE));
}

// The options switch off what the processor does by itself: all that a configuration class computes
// comes out as it does without them.
TEST_F(StartUpOptions, ChangeNoResultOfTheVms) {
  constexpr char COMPUTING_CLASS[] = "/build/tests/java/computing";
  ExecuteWith(SHIPPED, COMPUTING_CLASS);
  const Texts with = ForeignLines();
  ResetDevice();
  Execute(RequestWith(COMPUTING_CLASS));
  EXPECT_THAT(with, testing::SizeIs(60));
  EXPECT_THAT(with, testing::Each(StartsWith("result ")));
  EXPECT_THAT(with, Contains("result MD5 of abc 900150983cd24fb0d6963f7d28e17f72"));
  EXPECT_THAT(with, testing::ElementsAreArray(ForeignLines()));
}

#ifdef __x86_64__
// Emulated: one that has SSE2 and little more, one with SSE4.2, one with AVX2, one with all that
// the emulator has.
class Processor : public StartUpOptions, public testing::WithParamInterface<const char*> {};

TEST_P(Processor, IsServedWithTheShippedOptions) {
  Command request = WithVariable(Get("CanDetectTimeout=500"), "JAVA_OPTIONS",
                                 std::string("-XX:VMOptionsFile=") + SHIPPED);
  request.words = {"/usr/bin/qemu-x86_64", "-cpu", GetParam(), PROGRAM};
  const Result result = Execute(request);
  EXPECT_EQ(result.output, SuccessPage("500"));
  EXPECT_EQ(result.exitStatus, 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Processor, testing::Values("qemu64", "Nehalem", "Haswell", "max"));
#endif

class BadOption : public StartUpOptions, public testing::WithParamInterface<const char*> {};

TEST_P(BadOption, IsKeptOffThePage) {
  WriteText("/tmp/java.options", ReadText(SHIPPED) + GetParam() + "\n");
  ExpectNothingOfTheVmIn(ExecuteWith("/tmp/java.options"));
}

INSTANTIATE_TEST_SUITE_P(
    Options, BadOption,
    testing::Values("-javaagent:/nowhere/agent.jar", "-agentlib:nowhere", "-agentpath:/nowhere.so",
                    "-Xmx1k", "-Xms1g", "-Xmx9999999g", "-Xss1",
                    "-XX:SharedArchiveFile=/nowhere.jsa",
                    "-XX:SharedArchiveFile=/srv/vemo/java.options", "-XX:+UseSerialGC",
                    "-XX:+UseLargePages", "-XX:NoSuchOption=1", "-Xbootclasspath/a:/nowhere",
                    "--add-modules=no.such", "-version", "-Xlog:class+load:stderr",
                    "-XX:+PrintFlagsFinal", "-XX:Flags=/nowhere", "plain words"));

}  // namespace
