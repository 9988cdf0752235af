// Calls of the configuration class's static methods, in the real Java VM and in the fake one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "Sandbox.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class JavaCalls : public testing::Test {
 protected:
  void SetUp() override { ResetDevice(); }

  // Makes the calls against the configuration class in that class path; see JavaCalls.cpp.
  static Result Call(std::vector<std::string> calls, const std::string& classPath = "calling") {
    Command command;
    command.words = {"/build/tests/java-calls"};
    command.words.insert(command.words.end(), calls.begin(), calls.end());
    command.environment = {{"JAVA_CLASSPATH", "/build/tests/java/" + classPath}};
    const Result result = Execute(command);
    EXPECT_EQ(result.exitStatus, 0) << result.error;
    return result;
  }

  // What the log says of the calls: all that follows the VM's start.
  static std::vector<std::string> CallStatements() {
    const std::vector<std::string> statements = LoggedStatements();
    const std::size_t start = StartStatements().size();
    EXPECT_GE(statements.size(), start);
    if (start > statements.size()) {
      return {};
    }
    return {std::next(statements.begin(), static_cast<std::ptrdiff_t>(start)), statements.end()};
  }
};

TEST_F(JavaCalls, TextByEitherOverloadDiffersInTheLogAlone) {
  EXPECT_EQ(Call({"text", "getText", "text-literal", "getText"}).output, "1 a text\n1 a text\n");
  EXPECT_THAT(CallStatements(), ElementsAre("DEBUG src/JavaVmWrapper 226 CallFunction getText",
                                            "DEBUG src/JavaVmWrapper 249 CallFunction getText"));
}

TEST_F(JavaCalls, NumberByEitherOverloadDiffersInTheLogAlone) {
  EXPECT_EQ(Call({"int", "getNumber", "int-literal", "getNumber"}).output, "1 42\n1 42\n");
  EXPECT_THAT(CallStatements(), ElementsAre("DEBUG src/JavaVmWrapper 273 CallFunction getNumber",
                                            "DEBUG src/JavaVmWrapper 293 CallFunction getNumber"));
}

TEST_F(JavaCalls, AMissingMethodIsFalseWithTheResultUnchanged) {
  struct Case {
    std::string overload;
    std::string output;
    int entryLine;
    int notFoundLine;
  };
  for (const Case& c : {Case{"text", "0 unset\n", 226, 232},          //
                        Case{"text-literal", "0 unset\n", 249, 255},  //
                        Case{"int", "0 -1\n", 273, 277},              //
                        Case{"int-literal", "0 -1\n", 293, 297}}) {
    ResetDevice();
    EXPECT_EQ(Call({c.overload, "getNothing"}).output, c.output);
    EXPECT_THAT(CallStatements(),
                ElementsAre("DEBUG src/JavaVmWrapper " + std::to_string(c.entryLine) +
                                " CallFunction getNothing",
                            "ERROR src/JavaVmWrapper " + std::to_string(c.notFoundLine) +
                                " Methode 'getNothing' not found"));
    EXPECT_THAT(ForeignLines(), Contains("java.lang.NoSuchMethodError: getNothing"))
        << "left pending, described at the end";
  }
}

TEST_F(JavaCalls, AMethodOfTheOtherTypeIsNotFound) {
  EXPECT_EQ(Call({"text", "getNumber"}).output, "0 unset\n");
  EXPECT_EQ(Call({"int", "getText"}).output, "0 -1\n");
}

TEST_F(JavaCalls, AnInstanceMethodIsNotFound) {
  EXPECT_EQ(Call({"text", "getText"}, "without").output, "0 unset\n");
}

TEST_F(JavaCalls, AnEmptyTextIsAResult) {
  EXPECT_EQ(Call({"text", "getEmptyText"}).output, "1 \n");
}

TEST_F(JavaCalls, TextIsModifiedUtf8) {
  EXPECT_EQ(Call({"text", "getTextBeyondLatin1"}).output,
            "1 \xC3\xA9\xE2\x82\xAC\xED\xA0\xBD\xED\xBA\x97\n");
}

TEST_F(JavaCalls, AZeroCharacterIsNoZeroByte) {
  EXPECT_EQ(Call({"text", "getTextWithZero"}).output,
            "1 a\xC0\x80"
            "b\n");
}

TEST_F(JavaCalls, TheLeastNumberComesWhole) {
  EXPECT_EQ(Call({"int", "getLeastNumber"}).output, "1 -2147483648\n");
}

TEST_F(JavaCalls, TwoCallsInARowReachTheSameClass) {
  EXPECT_EQ(Call({"text", "getCountedText", "text", "getCountedText"}).output,
            "1 call 1\n1 call 2\n");
}

TEST_F(JavaCalls, AMethodThatThrowsIsAResultAndDescribedAtTheEnd) {
  const Result result = Call({"int", "getThrowing"});
  EXPECT_THAT(result.output, StartsWith("1 "));
  EXPECT_THAT(CallStatements(),
              ElementsAre("DEBUG src/JavaVmWrapper 273 CallFunction getThrowing"));
  EXPECT_THAT(ForeignLines(), Contains("java.lang.IllegalStateException: no number today"));
  const std::vector<std::string> lines = LoggedLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.back(), HasSubstr("ConfigVemo.getThrowing")) << "the trace comes last";
}

TEST_F(JavaCalls, ATextMethodThatReturnsNullEndsTheProcess) {
  Command command;
  command.words = {"/build/tests/java-calls", "text", "getNullText"};
  command.environment = {{"JAVA_CLASSPATH", "/build/tests/java/calling"},
                         {"JAVA_OPTIONS", "-XX:-CreateCoredumpOnCrash"}};
  const Result result = Execute(command);
  EXPECT_NE(result.exitStatus, 0);
  EXPECT_THAT(result.output, HasSubstr("A fatal error has been detected")) << "in the page";
  EXPECT_THAT(CallStatements(),
              ElementsAre("DEBUG src/JavaVmWrapper 226 CallFunction getNullText"));
}

TEST_F(JavaCalls, TheEndWaitsForTheThreadsOfTheClass) {
  EXPECT_EQ(Call({"int", "startThread"}).output, "1 1\n");
  EXPECT_THAT(ForeignLines(), ElementsAre("the thread ends"));
}

TEST_F(JavaCalls, AddressQueriesReturnWhatTheClassTells) {
  EXPECT_EQ(Call({"lan", "wlan"}).output, "192.0.2.7\n198.51.100.9\n");
  EXPECT_THAT(CallStatements(),
              ElementsAre("DEBUG src/JavaVmWrapper 313 GetLanIp4Address",
                          "DEBUG src/JavaVmWrapper 249 CallFunction getLanIp4AddressS",
                          "DEBUG src/JavaVmWrapper 327 GetWlanIp4Address",
                          "DEBUG src/JavaVmWrapper 249 CallFunction getWlanIp4AddressS"));
  EXPECT_THAT(ForeignLines(), IsEmpty());
}

TEST_F(JavaCalls, AnAddressQueryWithoutItsMethodIsEmpty) {
  EXPECT_EQ(Call({"lan"}, "without").output, "\n");
  EXPECT_THAT(CallStatements(),
              ElementsAre("DEBUG src/JavaVmWrapper 313 GetLanIp4Address",
                          "DEBUG src/JavaVmWrapper 249 CallFunction getLanIp4AddressS",
                          "ERROR src/JavaVmWrapper 255 Methode 'getLanIp4AddressS' not found"));
  ResetDevice();
  EXPECT_EQ(Call({"wlan"}, "without").output, "\n");
  EXPECT_THAT(CallStatements(),
              Contains("ERROR src/JavaVmWrapper 255 Methode 'getWlanIp4AddressS' not found"));
}

TEST_F(JavaCalls, TheDevicesOwnClassTellsAnAddressOrNone) {
  SKIP_WHERE_TRACED("the machine's own network has addresses that we cannot foretell");
  Command command;
  command.words = {"/build/tests/java-calls", "lan", "wlan"};
  command.environment = {{"JAVA_CLASSPATH", "/srv/vemo/java"}};
  // The sandbox has a loopback interface and no other.
  EXPECT_EQ(Execute(command).output, "\n\n");
  EXPECT_THAT(LoggedStatements(), Not(Contains(StartsWith("ERROR"))));
}

// ---- With the fake VM: what is called, and what is not.

class JavaCallSteps : public testing::Test {
 protected:
  void SetUp() override {
    ResetDevice();
    std::filesystem::remove(CALLS_FILE);
  }

  // The calls that follow the look-up of the configuration class, those of `beginning` failing.
  static std::vector<std::string> CallsOf(const std::string& overload,
                                          const std::string& beginning = "") {
    Command command;
    command.words = {"/build/tests/java-calls", overload, "getIt"};
    command.environment = {{"FAKE_VM_CALLS", CALLS_FILE}, {"FAKE_VM_FAILS", beginning}};
    EXPECT_EQ(Execute(Preload("fake-vm", command)).exitStatus, 0);
    std::vector<std::string> calls = Lines(ReadText(CALLS_FILE));
    const auto lookUp =
        std::find(calls.begin(), calls.end(), "FindClass com/tarn/vemo/config/ConfigVemo");
    EXPECT_NE(lookUp, calls.end());
    calls.erase(calls.begin(), lookUp == calls.end() ? lookUp : lookUp + 1);
    return calls;
  }

  static constexpr char CALLS_FILE[] = "/tmp/calls";
};

TEST_F(JavaCallSteps, TheCharactersOfATextAreNotGivenBack) {
  const std::string method = "com/tarn/vemo/config/ConfigVemo.getIt()Ljava/lang/String;";
  EXPECT_THAT(CallsOf("text"),
              ElementsAre("GetStaticMethodID " + method, "CallStaticObjectMethodV " + method,
                          "GetStringUTFChars a text", "ExceptionOccurred", "DestroyJavaVM"));
}

TEST_F(JavaCallSteps, NeitherNullNorAnExceptionOfATextMethodIsLookedFor) {
  const std::string method = "com/tarn/vemo/config/ConfigVemo.getIt()Ljava/lang/String;";
  EXPECT_THAT(CallsOf("text", "CallStaticObjectMethodV"),
              ElementsAre("GetStaticMethodID " + method, "CallStaticObjectMethodV " + method,
                          "GetStringUTFChars null", "ExceptionOccurred", "ExceptionDescribe",
                          "DestroyJavaVM"));
}

TEST_F(JavaCallSteps, AnExceptionOfANumberMethodIsNotLookedFor) {
  const std::string method = "com/tarn/vemo/config/ConfigVemo.getIt()I";
  EXPECT_THAT(CallsOf("int", "CallStaticIntMethodV"),
              ElementsAre("GetStaticMethodID " + method, "CallStaticIntMethodV " + method,
                          "ExceptionOccurred", "ExceptionDescribe", "DestroyJavaVM"));
}

}  // namespace
