// The request's Java VM: its start from the environment, the redirection of its System.err into the
// log, the look-up of the configuration class, its end.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "Request.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

using Texts = std::vector<std::string>;

constexpr char TELLING_CLASS[] = "/build/tests/java/telling";
constexpr char FAILING_CLASS[] = "/build/tests/java/failing";
constexpr char NO_CLASS[] = "/nowhere";

const std::string CLASS_NOT_FOUND =
    "ERROR src/JavaVmWrapper 118 Class 'com/tarn/vemo/config/ConfigVemo' not found";

const std::string VM_REFUSED = "ERROR src/JavaVmWrapper 111 Can't create Java VM";

Texts Joined(const std::vector<Texts>& parts) {
  Texts joined;
  for (const Texts& part : parts) {
    joined.insert(joined.end(), part.begin(), part.end());
  }
  return joined;
}

// A request that succeeds unless Java is in its way.
Command RequestWith(const std::string& classPath) {
  Command request = Get("CanDetectTimeout=500");
  request.environment["JAVA_CLASSPATH"] = classPath;
  return request;
}

Command RequestWithOptions(const std::string& javaOptions) {
  Command request = RequestWith(TELLING_CLASS);
  request.environment["JAVA_OPTIONS"] = javaOptions;
  return request;
}

void ExpectOnlyTheFrame(const Result& result) {
  EXPECT_EQ(result.output, FrameOnly());
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_FALSE(std::filesystem::exists(SETTINGS_FILE));
}

void ExpectSuccess(const Result& result) {
  EXPECT_EQ(result.output, SuccessPage("500"));
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(ReadText(SETTINGS_FILE), "[SETTINGS]\nVEMODCanDetectTimeout=500\n");
}

// ---- With the real Java VM.

class RealVm : public testing::Test {
 protected:
  void SetUp() override { ResetDevice(); }
};

TEST_F(RealVm, IsTheOneInFrontOfTheProgramsOwn) {
  const Result loaded = Execute({{PROGRAM}, {{"LD_TRACE_LOADED_OBJECTS", "1"}}});
  const std::string folder = VmInFront().empty() ? "/lib/server" : " " + VmInFront();
  EXPECT_THAT(loaded.output, HasSubstr(folder + "/libjvm.so ("));
}

TEST_F(RealVm, WithoutOptionsTheLogShowsANullText) {
  ExpectSuccess(Execute(RequestWith("/srv/vemo/java")));
  EXPECT_THAT(LoggedStatements(), Contains("DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: (null)"));
}

TEST_F(RealVm, AnEmptyOptionDoesNoHarm) {
  const Result result = Execute(RequestWithOptions(""));
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(LoggedStatements(), Contains("DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: "));
}

TEST_F(RealVm, AnOptionReachesTheVm) {
  const Result result = Execute(RequestWithOptions("-Dvemo.greeting=good morning"));
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(LoggedLines(), IsSupersetOf(Texts{"DEBUG src/JavaVmWrapper 81 "
                                                "JAVA_OPTIONS: -Dvemo.greeting=good morning",
                                                "initialised, greeting good morning"}));
}

TEST_F(RealVm, TwoOptionsInOneTextAreIgnored) {
  for (const std::string options :
       {"-Xint -Xmx16m", "-Xint -Dvemo.greeting=hello", "-XX:+UseG1GC -Xint"}) {
    ResetDevice();
    EXPECT_EQ(Execute(RequestWithOptions(options)).exitStatus, 0) << options;
    EXPECT_THAT(LoggedLines(), Contains("initialised, greeting null")) << options;
  }
}

TEST_F(RealVm, ASecondOptionInTheTextIsAPartOfTheFirstOnesValue) {
  EXPECT_EQ(Execute(RequestWithOptions("-Dvemo.greeting=1 -Xint")).exitStatus, 0);
  EXPECT_THAT(LoggedLines(), Contains("initialised, greeting 1 -Xint"));
}

TEST_F(RealVm, TwoOptionsInOneTextAreRefusedWhereTheFirstTakesANumberOrAFile) {
  for (const std::string options : {"-Xmx64m -Xss1m", "-XX:StringTableSize=1024 -Xint",
                                    "-XX:VMOptionsFile=/srv/vemo/java.options -Xint"}) {
    ResetDevice();
    ExpectOnlyTheFrame(Execute(RequestWithOptions(options)));
    EXPECT_THAT(LoggedLines(),
                ElementsAreArray(Joined({StartStatements(options, TELLING_CLASS), {VM_REFUSED}})));
  }
}

TEST_F(RealVm, AnUnrecognisedOptionIsIgnored) {
  const Result result = Execute(RequestWithOptions("-XX:+NoSuchOption"));
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(LoggedLines(), Contains("initialised, greeting null"));
}

TEST_F(RealVm, AnOptionThatTheVmCannotLiveWithEndsTheProcess) {
  const Result result = Execute(RequestWithOptions("-Xmx1k"));
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(result.output, Not(HasSubstr("</body>")));
  EXPECT_THAT(LoggedLines(), ElementsAreArray(StartStatements("-Xmx1k", TELLING_CLASS)));
}

TEST_F(RealVm, AnOptionThatTheVmCannotLiveWithIsToldInThePage) {
  EXPECT_THAT(Execute(RequestWithOptions("-Xmx1k")).output,
              HasSubstr("</div>\nError occurred during initialization of VM\n"));
}

TEST_F(RealVm, WithoutAClassPathTheWorkingFolderIsSearched) {
  Command request = RequestWith("");
  request.environment.erase("JAVA_CLASSPATH");
  request.prepare = [] { ASSERT_EQ(chdir("/srv/vemo/java"), 0); };
  ExpectSuccess(Execute(request));
}

TEST_F(RealVm, WithoutAClassPathTheLogShowsANullText) {
  Command request = RequestWith("");
  request.environment.erase("JAVA_CLASSPATH");
  ExpectOnlyTheFrame(Execute(request));
  EXPECT_THAT(
      LoggedStatements(),
      IsSupersetOf(Texts{"DEBUG src/JavaVmWrapper 99 JAVA_CLASSPATH:(null)", CLASS_NOT_FOUND}));
}

TEST_F(RealVm, AClassPathHasSeveralEntries) {
  ExpectSuccess(Execute(RequestWith("/nowhere:/srv/vemo/java")));
}

TEST_F(RealVm, AMissingClassIsReportedThenDescribedInTheLog) {
  const Result result = Execute(RequestWith(NO_CLASS));
  ExpectOnlyTheFrame(result);
  const Texts lines = LoggedLines();
  ASSERT_GE(lines.size(), 7u);
  EXPECT_EQ(lines[5], CLASS_NOT_FOUND);
  EXPECT_THAT(lines[6], HasSubstr("NoClassDefFoundError: com/tarn/vemo/config/ConfigVemo"));
  // What the VM writes past System.err.
  EXPECT_EQ(result.error, "Exception in thread \"main\" ");
}

TEST_F(RealVm, AClassThatFailsToInitialiseIsNotFoundAndDescribedBeforeTheVmEnds) {
  ExpectOnlyTheFrame(Execute(RequestWith(FAILING_CLASS)));
  const Texts lines = LoggedLines();
  ASSERT_GE(lines.size(), 8u);
  EXPECT_EQ(lines[5], CLASS_NOT_FOUND);
  EXPECT_EQ(lines[6], "java.lang.ExceptionInInitializerError");
  EXPECT_THAT(
      lines,
      Contains("Caused by: java.lang.IllegalStateException: no configuration today").Times(1));
  EXPECT_EQ(lines.back(), "the Java VM ends");
}

TEST_F(RealVm, SystemErrGoesToTheLog) {
  const Result result = Execute(RequestWith(TELLING_CLASS));
  EXPECT_EQ(result.error, "");
  EXPECT_THAT(LoggedLines(),
              ElementsAreArray(Joined({StartStatements("(null)", TELLING_CLASS),
                                       {"DEBUG src/JavaVmWrapper 155 ChangeStdErr",
                                        "initialised, greeting null", "the Java VM ends"}})));
}

TEST_F(RealVm, SystemErrIsAppendedToTheLog) {
  WriteText(LOG_FILE, "an earlier request\n");
  Execute(RequestWith(TELLING_CLASS));
  const Texts lines = LoggedLines();
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[0], "an earlier request");
  EXPECT_EQ(lines[1], "DEBUG src/SetObdConf 30 main");
}

TEST_F(RealVm, TheVmEndsBeforeTheFrameIsClosed) {
  const std::string page = Execute(RequestWith(TELLING_CLASS)).output;
  EXPECT_THAT(page, HasSubstr("</div>\nthe Java VM ends\n</body>\n</html>\n"));
}

// ---- With the fake VM.

constexpr char CALLS_FILE[] = "/tmp/calls";

const Texts START_CALLS = {"JNI_CreateJavaVM version 10002 options 1 ignoreUnrecognized 1",
                           "option -Djava.class.path=/srv/vemo/java"};

const Texts REDIRECTION_CALLS = {
    "FindClass java/io/FileOutputStream",
    "GetMethodID java/io/FileOutputStream.<init>(Ljava/lang/String;Z)V",
    "NewStringUTF /tmp/cgi.log",
    "NewObjectV java/io/FileOutputStream.<init>(Ljava/lang/String;Z)V(/tmp/cgi.log, true)",
    "FindClass java/io/PrintStream",
    "GetMethodID java/io/PrintStream.<init>(Ljava/io/OutputStream;)V",
    "NewObjectV java/io/PrintStream.<init>(Ljava/io/OutputStream;)V(new java/io/FileOutputStream)",
    "FindClass java/lang/System",
    "GetStaticMethodID java/lang/System.setErr(Ljava/io/PrintStream;)V",
    ("CallStaticVoidMethodV java/lang/System.setErr(Ljava/io/PrintStream;)V"
     "(new java/io/PrintStream)")};

const std::string LOOKUP_CALL = "FindClass com/tarn/vemo/config/ConfigVemo";

const Texts END_CALLS = {"ExceptionOccurred", "DestroyJavaVM"};
const Texts END_CALLS_WITH_EXCEPTION = {"ExceptionOccurred", "ExceptionDescribe", "DestroyJavaVM"};

class FakeVm : public testing::Test {
 protected:
  void SetUp() override {
    ResetDevice();
    std::filesystem::remove(CALLS_FILE);
    request = WithFakeVm(RequestWith("/srv/vemo/java"));
    request.environment["FAKE_VM_CALLS"] = CALLS_FILE;
  }

  void Set(const std::string& name, const std::string& value) { request.environment[name] = value; }

  static Texts Calls() { return Lines(ReadText(CALLS_FILE)); }

  Texts StartCalls() {
    Execute(request);
    Texts start;
    for (const std::string& call : Calls()) {
      if (call.rfind("JNI_CreateJavaVM", 0) == 0 || call.rfind("option", 0) == 0) {
        start.push_back(call);
      }
    }
    return start;
  }

  Command request;
};

TEST_F(FakeVm, IsCalledStepByStep) {
  ExpectSuccess(Execute(request));
  EXPECT_THAT(Calls(),
              ElementsAreArray(Joined({START_CALLS, REDIRECTION_CALLS, {LOOKUP_CALL}, END_CALLS})));
}

TEST_F(FakeVm, IsDestroyedBeforeTheFrameIsClosed) {
  Set("FAKE_VM_CALLS", "/dev/stdout");
  EXPECT_THAT(Execute(request).output,
              HasSubstr("</div>\nExceptionOccurred\nDestroyJavaVM\n</body>\n</html>\n"));
}

TEST_F(FakeVm, IsStartedAfterTheFrameIsOpened) {
  Set("FAKE_VM_CALLS", "/dev/stdout");
  EXPECT_THAT(Execute(request).output,
              HasSubstr("<div style=\"clear:both\" ></div>\nJNI_CreateJavaVM "));
}

TEST_F(FakeVm, GetsOnlyTheClassPathWithoutOptions) {
  EXPECT_THAT(StartCalls(), ElementsAreArray(START_CALLS));
}

TEST_F(FakeVm, GetsTheOptionBeforeTheClassPath) {
  Set("JAVA_OPTIONS", "-Xmx16m");
  EXPECT_THAT(StartCalls(),
              ElementsAre("JNI_CreateJavaVM version 10002 options 2 ignoreUnrecognized 1",
                          "option -Xmx16m", "option -Djava.class.path=/srv/vemo/java"));
}

TEST_F(FakeVm, GetsAnEmptyOption) {
  Set("JAVA_OPTIONS", "");
  EXPECT_THAT(StartCalls(),
              ElementsAre("JNI_CreateJavaVM version 10002 options 2 ignoreUnrecognized 1",
                          "option ", "option -Djava.class.path=/srv/vemo/java"));
}

TEST_F(FakeVm, GetsBlanksInsideTheOneOption) {
  Set("JAVA_OPTIONS", " -Xmx64m  -Xss1m ");
  EXPECT_THAT(StartCalls(),
              ElementsAre("JNI_CreateJavaVM version 10002 options 2 ignoreUnrecognized 1",
                          "option  -Xmx64m  -Xss1m ", "option -Djava.class.path=/srv/vemo/java"));
}

TEST_F(FakeVm, GetsAnEmptyClassPathWhenThereIsNone) {
  request.environment.erase("JAVA_CLASSPATH");
  EXPECT_THAT(StartCalls(), Contains("option -Djava.class.path="));
  EXPECT_THAT(LoggedStatements(), Contains("DEBUG src/JavaVmWrapper 99 JAVA_CLASSPATH:(null)"));
}

TEST_F(FakeVm, GetsTheClassPathUnchanged) {
  Set("JAVA_CLASSPATH", "/a b:/c %s.jar:");
  EXPECT_THAT(StartCalls(), Contains("option -Djava.class.path=/a b:/c %s.jar:"));
  EXPECT_THAT(LoggedStatements(),
              Contains("DEBUG src/JavaVmWrapper 99 JAVA_CLASSPATH:/a b:/c %s.jar:"));
}

TEST_F(FakeVm, APositiveResultIsSuccess) {
  Set("FAKE_VM_RESULT", "1");
  ExpectSuccess(Execute(request));
  EXPECT_THAT(Calls(),
              ElementsAreArray(Joined({START_CALLS, REDIRECTION_CALLS, {LOOKUP_CALL}, END_CALLS})));
}

TEST_F(FakeVm, AMissingClassIsReportedThenDescribedThenTheVmDestroyed) {
  Set("FAKE_VM_FAILS", LOOKUP_CALL);
  Set("FAKE_VM_CALLS", LOG_FILE);
  ExpectOnlyTheFrame(Execute(request));
  const Texts lines = LoggedLines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_THAT(Texts(lines.end() - 5, lines.end()),
              ElementsAre(LOOKUP_CALL, CLASS_NOT_FOUND, "ExceptionOccurred", "ExceptionDescribe",
                          "DestroyJavaVM"));
}

TEST_F(FakeVm, AnExceptionOfTheLastRedirectionStepIsNotLookedAt) {
  Set("FAKE_VM_FAILS", "CallStaticVoidMethodV");
  ExpectSuccess(Execute(request));
  EXPECT_THAT(Calls(),
              ElementsAreArray(Joined(
                  {START_CALLS, REDIRECTION_CALLS, {LOOKUP_CALL}, END_CALLS_WITH_EXCEPTION})));
  EXPECT_THAT(LoggedStatements(), Not(Contains(StartsWith("ERROR"))));
}

TEST_F(FakeVm, ALogFileNameThatCouldNotBeMadeIsPassedOn) {
  Set("FAKE_VM_FAILS", "NewStringUTF");
  ExpectSuccess(Execute(request));
  EXPECT_THAT(Calls(), Contains("NewObjectV java/io/FileOutputStream.<init>"
                                "(Ljava/lang/String;Z)V(null, true)"));
  EXPECT_THAT(Calls(), Contains(REDIRECTION_CALLS.back()));
  EXPECT_THAT(LoggedStatements(), Not(Contains(StartsWith("ERROR"))));
}

// ---- Refused by the fake VM.

struct Refusal {
  const char* name;
  const char* result;
};

class RefusedVm : public FakeVm, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusedVm, IsReportedAndNeverCalled) {
  Set("FAKE_VM_RESULT", GetParam().result);
  ExpectOnlyTheFrame(Execute(request));
  EXPECT_THAT(Calls(), ElementsAreArray(START_CALLS));
  EXPECT_THAT(LoggedLines(), ElementsAreArray(Joined({StartStatements(), {VM_REFUSED}})));
}

INSTANTIATE_TEST_SUITE_P(JavaVm, RefusedVm,
                         testing::Values(Refusal{"Error", "-1"}, Refusal{"Version", "-3"},
                                         Refusal{"OutOfMemory", "-4"}),
                         [](const auto& info) { return info.param.name; });

TEST_F(FakeVm, RefusedItIsDestroyedWhenItWasGivenOutAllTheSame) {
  Set("FAKE_VM_RESULT", "-1");
  Set("FAKE_VM_LEAVES", "vm env");
  ExpectOnlyTheFrame(Execute(request));
  EXPECT_THAT(Calls(), ElementsAreArray(Joined({START_CALLS, END_CALLS})));
}

TEST_F(FakeVm, RefusedItIsDestroyedWithoutAnEnvironment) {
  Set("FAKE_VM_RESULT", "-1");
  Set("FAKE_VM_LEAVES", "vm");
  ExpectOnlyTheFrame(Execute(request));
  EXPECT_THAT(Calls(), ElementsAreArray(Joined({START_CALLS, {"DestroyJavaVM"}})));
}

TEST_F(FakeVm, RefusedItsEnvironmentAloneIsAskedForAnException) {
  Set("FAKE_VM_RESULT", "-1");
  Set("FAKE_VM_LEAVES", "env");
  ExpectOnlyTheFrame(Execute(request));
  EXPECT_THAT(Calls(), ElementsAreArray(Joined({START_CALLS, {"ExceptionOccurred"}})));
}

// ---- A redirection that fails, step by step.

struct FailingStep {
  const char* name;
  const char* call;   // its beginning
  const char* error;  // what the log says
};

class FailingRedirection : public FakeVm, public testing::WithParamInterface<FailingStep> {
 protected:
  void SetUp() override {
    FakeVm::SetUp();
    Set("FAKE_VM_FAILS", GetParam().call);
  }

  // The start and the redirection up to the failing step.
  static Texts CallsUpToTheFailure() {
    Texts calls = START_CALLS;
    for (const std::string& call : REDIRECTION_CALLS) {
      calls.push_back(call);
      if (call.rfind(GetParam().call, 0) == 0) {
        return calls;
      }
    }
    ADD_FAILURE() << "no such step: " << GetParam().call;
    return calls;
  }

  static Texts Errors() {
    Texts errors;
    for (const std::string& statement : LoggedStatements()) {
      if (statement.rfind("ERROR", 0) == 0) {
        errors.push_back(statement);
      }
    }
    return errors;
  }

  static std::string ExpectedError() {
    return std::string("ERROR src/JavaVmWrapper ") + GetParam().error;
  }
};

TEST_P(FailingRedirection, StopsThereAndThePageSucceeds) {
  ExpectSuccess(Execute(request));
  EXPECT_THAT(Errors(), ElementsAre(ExpectedError()));
  EXPECT_THAT(
      Calls(),
      ElementsAreArray(Joined({CallsUpToTheFailure(), {LOOKUP_CALL}, END_CALLS_WITH_EXCEPTION})));
}

TEST_P(FailingRedirection, WithAMissingClassBothAreReported) {
  Set("FAKE_VM_FAILS", GetParam().call + ("\n" + LOOKUP_CALL));
  ExpectOnlyTheFrame(Execute(request));
  EXPECT_THAT(Errors(), ElementsAre(ExpectedError(), CLASS_NOT_FOUND));
  EXPECT_THAT(
      Calls(),
      ElementsAreArray(Joined({CallsUpToTheFailure(), {LOOKUP_CALL}, END_CALLS_WITH_EXCEPTION})));
}

INSTANTIATE_TEST_SUITE_P(
    JavaVm, FailingRedirection,
    testing::Values(FailingStep{"FileOutputStreamClass", "FindClass java/io/FileOutputStream",
                                "159 Class 'java.io.FileOutputStream' not found"},
                    FailingStep{"FileOutputStreamConstructor",
                                "GetMethodID java/io/FileOutputStream",
                                "167 Methode '<init>' not found"},
                    FailingStep{"OutputStream", "NewObjectV java/io/FileOutputStream",
                                "175 Can't create output stream"},
                    FailingStep{"PrintStreamClass", "FindClass java/io/PrintStream",
                                "182 Class 'java.io.PrintStream' not found"},
                    FailingStep{"PrintStreamConstructor", "GetMethodID java/io/PrintStream",
                                "190 Methode '<init>' not found"},
                    FailingStep{"PrintStream", "NewObjectV java/io/PrintStream",
                                "196 Can't create print stream"},
                    FailingStep{"SystemClass", "FindClass java/lang/System",
                                "203 Class 'java.lang.System' not found"},
                    FailingStep{"SetErrMethod", "GetStaticMethodID java/lang/System",
                                "211 Methode 'setErr' not found"}),
    [](const auto& info) { return info.param.name; });

}  // namespace
