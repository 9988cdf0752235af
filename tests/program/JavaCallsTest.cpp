// Calls of the configuration class's static methods, in the real Java VM and in the fake one.

#include <algorithm>

#include "ProgramTest.h"
#include "Sandbox.h"

namespace {

using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char CALLING_CLASS[] = "/build/tests/java/calling";
constexpr char CLASS_WITHOUT[] = "/build/tests/java/without";
constexpr char MODIFIED_UTF_8[] = "1 \xC3\xA9\xE2\x82\xAC\xED\xA0\xBD\xED\xBA\x97\n";

// Makes these calls of the configuration class in that class path; see JavaCalls.cpp.
Command Calls(const Texts& calls, const std::string& classPath = CALLING_CLASS) {
  return {Joined({{"/build/tests/java-calls"}, calls}), {{"JAVA_CLASSPATH", classPath}}};
}

// The statements of the calls: all that follow the VM's start.
Texts CallStatements() {
  Texts statements = LoggedStatements();
  const std::size_t start = std::min(StartStatements().size(), statements.size());
  statements.erase(statements.begin(), statements.begin() + static_cast<std::ptrdiff_t>(start));
  return statements;
}

std::string Entry(int line, const std::string& message) {
  return "DEBUG src/JavaVmWrapper " + std::to_string(line) + " " + message;
}

std::string NotFound(int line, const std::string& method) {
  return "ERROR src/JavaVmWrapper " + std::to_string(line) + " Methode '" + method + "' not found";
}

struct CallCase {
  const char* name;
  Texts calls;
  const char* output;
  int entryLine;         // of the statement that each call begins with
  int notFoundLine = 0;  // of the statement that reports the method as missing
  const char* classPath = CALLING_CLASS;
};

class RealVmCalls : public NoSettings, public testing::WithParamInterface<CallCase> {
 protected:
  static void ExpectResults() {
    const CallCase& row = GetParam();
    const Result result = Execute(Calls(row.calls, row.classPath));
    EXPECT_EQ(result.exitStatus, 0) << result.error;
    EXPECT_EQ(result.output, row.output);
    Texts statements;
    for (std::size_t i = 1; i < row.calls.size(); i += 2) {
      statements.push_back(Entry(row.entryLine, "CallFunction " + row.calls[i]));
      if (row.notFoundLine > 0) {
        statements.push_back(NotFound(row.notFoundLine, row.calls[i]));
      }
    }
    EXPECT_THAT(CallStatements(), ElementsAreArray(statements));
  }
};

TEST_P(RealVmCalls, GiveTheResult) {
  ExpectResults();
  EXPECT_THAT(ForeignLines(), IsEmpty());
}

// The two overloads for a name, a text and a C string (the literal ones), differ in the log alone.
INSTANTIATE_TEST_SUITE_P(
    Java, RealVmCalls,
    testing::Values(CallCase{"Text", {"text", "getText"}, "1 a text\n", 226},
                    CallCase{"TextByLiteral", {"text-literal", "getText"}, "1 a text\n", 249},
                    CallCase{"Number", {"int", "getNumber"}, "1 42\n", 273},
                    CallCase{"NumberByLiteral", {"int-literal", "getNumber"}, "1 42\n", 293},
                    CallCase{"TheLeastNumber", {"int", "getLeastNumber"}, "1 -2147483648\n", 273},
                    CallCase{"AnEmptyText", {"text", "getEmptyText"}, "1 \n", 226},
                    CallCase{"ModifiedUtf8", {"text", "getTextBeyondLatin1"}, MODIFIED_UTF_8, 226},
                    CallCase{"ZeroCharacter",
                             {"text", "getTextWithZero"},
                             "1 a\xC0\x80"
                             "b\n",
                             226},
                    CallCase{"TwoInARow",
                             {"text", "getCountedText", "text", "getCountedText"},
                             "1 call 1\n1 call 2\n",
                             226}),
    ParamName());

using RealVmMissingMethod = RealVmCalls;

TEST_P(RealVmMissingMethod, IsFalseWithTheResultUnchangedAndDescribedAtTheEnd) {
  ExpectResults();
  // Which words stand around the method's name depends on the JDK.
  EXPECT_THAT(ForeignLines(), Contains(ContainsRegex("^java.lang.NoSuchMethodError: .*get")));
}

INSTANTIATE_TEST_SUITE_P(
    Java, RealVmMissingMethod,
    testing::Values(
        CallCase{"Text", {"text", "getNothing"}, "0 unset\n", 226, 232},
        CallCase{"TextByLiteral", {"text-literal", "getNothing"}, "0 unset\n", 249, 255},
        CallCase{"Number", {"int", "getNothing"}, "0 -1\n", 273, 277},
        CallCase{"NumberByLiteral", {"int-literal", "getNothing"}, "0 -1\n", 293, 297},
        CallCase{"NumberForText", {"text", "getNumber"}, "0 unset\n", 226, 232},
        CallCase{"TextForNumber", {"int", "getText"}, "0 -1\n", 273, 277},
        CallCase{"OfAnInstance", {"text", "getText"}, "0 unset\n", 226, 232, CLASS_WITHOUT}),
    ParamName());

using JavaCalls = NoSettings;

TEST_F(JavaCalls, AddressQueriesReturnWhatTheClassReturns) {
  EXPECT_EQ(Execute(Calls({"lan", "wlan"})).output, "192.0.2.7\n198.51.100.9\n");
  EXPECT_THAT(
      CallStatements(),
      ElementsAre(Entry(313, "GetLanIp4Address"), Entry(249, "CallFunction getLanIp4AddressS"),
                  Entry(327, "GetWlanIp4Address"), Entry(249, "CallFunction getWlanIp4AddressS")));
  EXPECT_THAT(ForeignLines(), IsEmpty());
}

TEST_F(JavaCalls, AnAddressQueryWithoutItsMethodIsEmpty) {
  EXPECT_EQ(Execute(Calls({"lan"}, CLASS_WITHOUT)).output, "\n");
  EXPECT_THAT(CallStatements(), ElementsAre(Entry(313, "GetLanIp4Address"),
                                            Entry(249, "CallFunction getLanIp4AddressS"),
                                            NotFound(255, "getLanIp4AddressS")));
  ResetDevice();
  EXPECT_EQ(Execute(Calls({"wlan"}, CLASS_WITHOUT)).output, "\n");
  EXPECT_THAT(CallStatements(), Contains(NotFound(255, "getWlanIp4AddressS")));
}

TEST_F(JavaCalls, AMethodThatThrowsIsAResultAndDescribedAtTheEnd) {
  const Result result = Execute(Calls({"int", "getThrowing"}));
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(result.output, testing::StartsWith("1 "));
  EXPECT_THAT(CallStatements(), ElementsAre(Entry(273, "CallFunction getThrowing")));
  EXPECT_THAT(ForeignLines(), Contains("java.lang.IllegalStateException: no number today"));
  const Texts lines = LoggedLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.back(), HasSubstr("ConfigVemo.getThrowing")) << "the trace comes last";
}

TEST_F(JavaCalls, ATextMethodThatReturnsNullEndsTheProcess) {
  const Result result = Execute(
      WithVariable(Calls({"text", "getNullText"}), "JAVA_OPTIONS", "-XX:-CreateCoredumpOnCrash"));
  EXPECT_NE(result.exitStatus, 0);
  EXPECT_THAT(result.output, HasSubstr("A fatal error has been detected")) << "in the page";
  EXPECT_THAT(CallStatements(), ElementsAre(Entry(226, "CallFunction getNullText")));
}

TEST_F(JavaCalls, TheEndWaitsForTheThreadsOfTheClass) {
  const Result result = Execute(Calls({"int", "startThread"}));
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.output, "1 1\n");
  EXPECT_THAT(ForeignLines(), ElementsAre("the thread ends"));
}

TEST_F(JavaCalls, TheDevicesOwnClassGivesAnAddressOrNone) {
  SKIP_WHERE_TRACED("the machine's own network has addresses that we cannot foretell");
  // The sandbox has a loopback interface and no other.
  EXPECT_EQ(Execute(Calls({"lan", "wlan"}, "/srv/vemo/java")).output, "\n\n");
  EXPECT_THAT(StartingWith("ERROR", LoggedStatements()), IsEmpty());
}

// ---- With the fake VM: what is called, and what is not.

const std::string TEXT_METHOD = "com/tarn/vemo/config/ConfigVemo.getIt()Ljava/lang/String;";
const std::string NUMBER_METHOD = "com/tarn/vemo/config/ConfigVemo.getIt()I";

class JavaCallSteps : public NoSettings {
 protected:
  // The calls that follow the look-up of the configuration class, those of `beginning` failing.
  static Texts CallsOf(const std::string& overload, const std::string& beginning = "") {
    Command command = Calls({overload, "getIt"});
    command.environment = {{"FAKE_VM_CALLS", CALLS_FILE}, {"FAKE_VM_FAILS", beginning}};
    EXPECT_EQ(Execute(WithFakeVm(command)).exitStatus, 0);
    const Texts calls = Lines(ReadText(CALLS_FILE));
    const auto lookUp =
        std::find(calls.begin(), calls.end(), "FindClass com/tarn/vemo/config/ConfigVemo");
    EXPECT_NE(lookUp, calls.end());
    return {lookUp == calls.end() ? lookUp : lookUp + 1, calls.end()};
  }
};

TEST_F(JavaCallSteps, TheCharactersOfATextAreNotGivenBack) {
  EXPECT_THAT(
      CallsOf("text"),
      ElementsAre("GetStaticMethodID " + TEXT_METHOD, "CallStaticObjectMethodV " + TEXT_METHOD,
                  "GetStringUTFChars a text", "ExceptionOccurred", "DestroyJavaVM"));
}

TEST_F(JavaCallSteps, NeitherNullNorAnExceptionOfATextMethodIsLookedFor) {
  EXPECT_THAT(CallsOf("text", "CallStaticObjectMethodV"),
              ElementsAre("GetStaticMethodID " + TEXT_METHOD,
                          "CallStaticObjectMethodV " + TEXT_METHOD, "GetStringUTFChars null",
                          "ExceptionOccurred", "ExceptionDescribe", "DestroyJavaVM"));
}

TEST_F(JavaCallSteps, AnExceptionOfANumberMethodIsNotLookedFor) {
  EXPECT_THAT(
      CallsOf("int", "CallStaticIntMethodV"),
      ElementsAre("GetStaticMethodID " + NUMBER_METHOD, "CallStaticIntMethodV " + NUMBER_METHOD,
                  "ExceptionOccurred", "ExceptionDescribe", "DestroyJavaVM"));
}

}  // namespace
