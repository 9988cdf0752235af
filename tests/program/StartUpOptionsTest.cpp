// The Java VM's start-up options that the device ships, with the real Java VM: they serve the page,
// and whatever the VM has to say about bad ones stays off it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "Request.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr char SHIPPED[] = "/srv/vemo/java.options";

class StartUpOptions : public testing::Test {
 protected:
  void SetUp() override {
    ResetDevice();
    for (const auto& entry : PerformanceData()) {
      std::filesystem::remove_all(entry);
    }
  }

  // What the VM leaves in the temporary folder unless it is told not to.
  static std::vector<std::filesystem::path> PerformanceData() {
    std::vector<std::filesystem::path> found;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
      if (entry.path().filename().string().find("hsperfdata") == 0) {
        found.push_back(entry);
      }
    }
    return found;
  }

  // A request with the options of that file.
  static Result ExecuteWith(const std::string& optionsFile,
                            const std::string& classPath = "/srv/vemo/java") {
    Command request = Get("CanDetectTimeout=500");
    request.environment["JAVA_OPTIONS"] = "-XX:VMOptionsFile=" + optionsFile;
    request.environment["JAVA_CLASSPATH"] = classPath;
    return Execute(request);
  }

  // A request with the shipped options and another one.
  static Result ExecuteWithAnother(const std::string& option) {
    WriteText("/tmp/java.options", ReadText(SHIPPED) + option + "\n");
    return ExecuteWith("/tmp/java.options");
  }

  // The page as far as it came: cut, or the frame alone, or all of it; nothing of anybody else's.
  static void ExpectOurWordsAlone(const Result& result) {
    EXPECT_THAT(result.output, StartsWith("Content-Type: text/html\n"));
    EXPECT_TRUE(result.output == FrameOnly() ||
                SuccessPage("500").substr(0, result.output.size()) == result.output)
        << result.output;
  }
};

TEST_F(StartUpOptions, ServeThePageWithoutAWordOfTheVms) {
  const Result result = ExecuteWith(SHIPPED);
  EXPECT_EQ(result.output, SuccessPage("500"));
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(LoggedStatements(),
              Contains("DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: -XX:VMOptionsFile=" +
                       std::string(SHIPPED)));
}

TEST_F(StartUpOptions, AreWhatTheWebServerHandsOver) {
  EXPECT_THAT(ReadText("/srv/vemo/lighttpd-site.conf"),
              HasSubstr("\"JAVA_OPTIONS\"      => \"-XX:VMOptionsFile=\" + var.vemo_java_options"));
  EXPECT_THAT(ReadText("/srv/vemo/lighttpd-paths.conf"),
              HasSubstr("var.vemo_java_options = \"" + std::string(SHIPPED) + "\""));
}

TEST_F(StartUpOptions, LeaveNothingInTheTemporaryFolder) {
  ExecuteWith(SHIPPED);
  EXPECT_THAT(PerformanceData(), IsEmpty());
}

TEST_F(StartUpOptions, KeepAMissingClassPathOffThePage) {
  const Result result = ExecuteWith(SHIPPED, "/nowhere");
  EXPECT_EQ(result.output, FrameOnly());
  EXPECT_EQ(result.exitStatus, 1);
}

TEST_F(StartUpOptions, MissingFileIsKeptOffThePage) {
  const Result result = ExecuteWith("/nowhere/java.options");
  ExpectOurWordsAlone(result);
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_FALSE(std::filesystem::exists(SETTINGS_FILE));
}

// The options switch off what the processor does by itself: whatever a configuration class computes
// comes out as it does without them.
TEST_F(StartUpOptions, ChangeNoResultOfTheVms) {
  ExecuteWith(SHIPPED, "/build/tests/java/computing");
  const std::vector<std::string> with = ForeignLines();
  ResetDevice();
  Command request = Get("CanDetectTimeout=500");
  request.environment["JAVA_CLASSPATH"] = "/build/tests/java/computing";
  Execute(request);
  EXPECT_THAT(with, SizeIs(60));
  EXPECT_THAT(with, Each(StartsWith("result ")));
  EXPECT_THAT(with, Contains("result MD5 of abc 900150983cd24fb0d6963f7d28e17f72"));
  EXPECT_THAT(with, ElementsAreArray(ForeignLines()));
}

#ifdef __x86_64__
// Emulated: one that has SSE2 and little more, one with SSE4.2, one with AVX2, all that the
// emulator has.
class Processor : public StartUpOptions, public testing::WithParamInterface<const char*> {};

TEST_P(Processor, IsServedWithTheShippedOptions) {
  Command request = Get("CanDetectTimeout=500");
  request.words = {"/usr/bin/qemu-x86_64", "-cpu", GetParam(), PROGRAM};
  request.environment["JAVA_OPTIONS"] = std::string("-XX:VMOptionsFile=") + SHIPPED;
  const Result result = Execute(request);
  EXPECT_EQ(result.output, SuccessPage("500"));
  EXPECT_EQ(result.exitStatus, 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Processor, testing::Values("qemu64", "Nehalem", "Haswell", "max"));
#endif

class BadOption : public StartUpOptions, public testing::WithParamInterface<const char*> {};

TEST_P(BadOption, IsKeptOffThePage) {
  ExpectOurWordsAlone(ExecuteWithAnother(GetParam()));
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
