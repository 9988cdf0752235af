// The request's Java VM: its start from the environment, the redirection of its System.err into the
// log, the look-up of the configuration class, its end.

#include <unistd.h>

#include <algorithm>
#include <optional>

#include "ProgramTest.h"

namespace {

using testing::Contains;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char REPORTING_CLASS[] = "/build/tests/java/reporting";
constexpr char FAILING_CLASS[] = "/build/tests/java/failing";
constexpr char NO_CLASS[] = "/nowhere";

constexpr char CLASS_NOT_FOUND[] =
    "ERROR src/JavaVmWrapper 118 Class 'com/tarn/vemo/config/ConfigVemo' not found";
constexpr char VM_REFUSED[] = "ERROR src/JavaVmWrapper 111 Can't create Java VM";
constexpr char REDIRECTION[] = "DEBUG src/JavaVmWrapper 155 ChangeStdErr";

// What the log shows of a variable that is not set.
constexpr char UNSET[] = "(null)";

// A request that succeeds unless Java is in its way.
Command RequestWith(const std::string& classPath) {
  return WithVariable(Get("CanDetectTimeout=500"), "JAVA_CLASSPATH", classPath);
}

Command RequestWithOptions(const std::string& javaOptions) {
  return WithVariable(RequestWith(REPORTING_CLASS), "JAVA_OPTIONS", javaOptions);
}

Command RequestWithoutClassPath() {
  return WithoutVariable(RequestWith(""), "JAVA_CLASSPATH");
}

// ---- With the real Java VM.

using RealVm = NoSettings;

TEST_F(RealVm, IsTheOneInFrontOfTheProgramsOwn) {
  const Result loaded = Execute({{PROGRAM}, {{"LD_TRACE_LOADED_OBJECTS", "1"}}});
  const std::string folder = VmInFront().empty() ? "/lib/server" : " " + VmInFront();
  EXPECT_THAT(loaded.output, HasSubstr(folder + "/libjvm.so ("));
}

TEST_F(RealVm, ALaterOptionInTheTextIsRefusedWhereTheFirstTakesANumberOrAFile) {
  for (const std::string options : {"-Xmx64m -Xss1m", "-XX:StringTableSize=1024 -Xint",
                                    "-XX:VMOptionsFile=/srv/vemo/java.options -Xint"}) {
    ResetDevice();
    ExpectOnlyTheFrame(Execute(RequestWithOptions(options)));
    EXPECT_THAT(
        LoggedLines(),
        ElementsAreArray(Joined({StartStatements(options, REPORTING_CLASS), {VM_REFUSED}})));
  }
}

TEST_F(RealVm, AnOptionThatItCannotRunWithEndsTheProcessAndIsReportedInThePage) {
  const Result result = Execute(RequestWithOptions("-Xmx1k"));
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(result.output, HasSubstr("</div>\nError occurred during initialization of VM\n"));
  EXPECT_THAT(result.output, testing::Not(HasSubstr("</body>")));
  EXPECT_THAT(LoggedLines(), ElementsAreArray(StartStatements("-Xmx1k", REPORTING_CLASS)));
}

TEST_F(RealVm, WithoutAClassPathTheWorkingFolderIsSearched) {
  Command request = RequestWithoutClassPath();
  ExpectOnlyTheFrame(Execute(request));
  EXPECT_THAT(StartingWith("DEBUG", LoggedStatements()),
              ElementsAreArray(Joined({StartStatements(UNSET, UNSET), {REDIRECTION}})));
  EXPECT_THAT(LoggedStatements(), Contains(CLASS_NOT_FOUND));
  request.prepare = [] { ASSERT_EQ(chdir("/srv/vemo/java"), 0); };
  ExpectSuccess(Execute(request));
  ExpectSettings(NEW_SETTINGS);
}

TEST_F(RealVm, AClassPathHasSeveralEntries) {
  ExpectSuccess(Execute(RequestWith("/nowhere:/srv/vemo/java")));
  ExpectSettings(NEW_SETTINGS);
}

TEST_F(RealVm, AMissingClassIsReportedThenDescribedInTheLog) {
  const Result result = Execute(RequestWith(NO_CLASS));
  ExpectOnlyTheFrame(result);
  // What the VM writes past System.err.
  EXPECT_EQ(result.error, "Exception in thread \"main\" ");
  EXPECT_THAT(
      LoggedStatements(),
      ElementsAreArray(Joined({StartStatements(UNSET, NO_CLASS), {REDIRECTION, CLASS_NOT_FOUND}})));
  const Texts lines = LoggedLines();
  ASSERT_GE(lines.size(), 7u);
  EXPECT_THAT(lines[6], HasSubstr("NoClassDefFoundError: com/tarn/vemo/config/ConfigVemo"));
  EXPECT_THAT(ForeignLines(), Contains(HasSubstr("com.tarn.vemo.config.ConfigVemo")));
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

TEST_F(RealVm, SystemErrIsAppendedToTheLog) {
  WriteText(LOG_FILE, "an earlier request\n");
  EXPECT_EQ(Execute(RequestWith(REPORTING_CLASS)).error, "");
  EXPECT_THAT(
      LoggedLines(),
      ElementsAreArray(Joined({{"an earlier request"},
                               StartStatements(UNSET, REPORTING_CLASS),
                               {REDIRECTION, "initialised, greeting null", "the Java VM ends"}})));
}

TEST_F(RealVm, TheVmEndsBeforeTheFrameIsClosed) {
  EXPECT_THAT(Execute(RequestWith(REPORTING_CLASS)).output,
              HasSubstr("</div>\nthe Java VM ends\n</body>\n</html>\n"));
}

// JAVA_OPTIONS is one option of the VM, blanks included.
struct Options {
  const char* name;
  const char* text;
  const char* greeting;  // the property vemo.greeting, as the class sees it
};

class RealVmOptions : public NoSettings, public testing::WithParamInterface<Options> {};

TEST_P(RealVmOptions, AreOneOptionThatReachesTheVmOrIsIgnored) {
  const Result result = Execute(RequestWithOptions(GetParam().text));
  EXPECT_EQ(result.exitStatus, 0);
  const std::string greeting = std::string("initialised, greeting ") + GetParam().greeting;
  EXPECT_THAT(LoggedLines(),
              ElementsAreArray(Joined({StartStatements(GetParam().text, REPORTING_CLASS),
                                       {REDIRECTION, greeting, "the Java VM ends"}})));
}

INSTANTIATE_TEST_SUITE_P(
    JavaVm, RealVmOptions,
    testing::Values(Options{"AnEmptyOneDoesNoHarm", "", "null"},
                    Options{"OneReachesTheVm", "-Dvemo.greeting=good morning", "good morning"},
                    Options{"AnUnrecognisedOneIsIgnored", "-XX:+NoSuchOption", "null"},
                    Options{"ALaterOneIsAPartOfAValue", "-Dvemo.greeting=1 -Xint", "1 -Xint"},
                    Options{"TwoAreIgnored", "-Xint -Xmx16m", "null"},
                    Options{"AValueBehindAnOptionIsIgnored", "-Xint -Dvemo.greeting=hello", "null"},
                    Options{"TwoSwitchesAreIgnored", "-XX:+UseG1GC -Xint", "null"}),
    ParamName());

// ---- With the fake VM.

const Texts START_CALLS = {"JNI_CreateJavaVM version 10002 options 1 ignoreUnrecognized 1",
                           "option -Djava.class.path=/srv/vemo/java"};

struct RedirectionStep {
  const char* name;
  const char* call;
  const char* error;  // logged when the step fails; null: the program does not check it
};

const std::vector<RedirectionStep> REDIRECTION_STEPS = {
    {"FileClass", "FindClass java/io/FileOutputStream",
     "159 Class 'java.io.FileOutputStream' not found"},
    {"FileConstructor", "GetMethodID java/io/FileOutputStream.<init>(Ljava/lang/String;Z)V",
     "167 Methode '<init>' not found"},
    {"FileName", "NewStringUTF /tmp/cgi.log", nullptr},
    {"File", "NewObjectV java/io/FileOutputStream.<init>(Ljava/lang/String;Z)V(/tmp/cgi.log, true)",
     "175 Can't create output stream"},
    {"StreamClass", "FindClass java/io/PrintStream", "182 Class 'java.io.PrintStream' not found"},
    {"StreamConstructor", "GetMethodID java/io/PrintStream.<init>(Ljava/io/OutputStream;)V",
     "190 Methode '<init>' not found"},
    {"Stream",
     "NewObjectV java/io/PrintStream.<init>(Ljava/io/OutputStream;)V(new java/io/FileOutputStream)",
     "196 Can't create print stream"},
    {"SystemClass", "FindClass java/lang/System", "203 Class 'java.lang.System' not found"},
    {"SetErr", "GetStaticMethodID java/lang/System.setErr(Ljava/io/PrintStream;)V",
     "211 Methode 'setErr' not found"},
    {"CallOfSetErr",
     "CallStaticVoidMethodV java/lang/System.setErr(Ljava/io/PrintStream;)V(new "
     "java/io/PrintStream)",
     nullptr}};

// The calls of the redirection up to this one.
Texts RedirectionCalls(const std::string& last = "") {
  Texts calls;
  for (const RedirectionStep& step : REDIRECTION_STEPS) {
    calls.push_back(step.call);
    if (step.call == last) {
      break;
    }
  }
  return calls;
}

const std::string LOOKUP_CALL = "FindClass com/tarn/vemo/config/ConfigVemo";

const Texts END_CALLS = {"ExceptionOccurred", "DestroyJavaVM"};
const Texts END_CALLS_WITH_EXCEPTION = {"ExceptionOccurred", "ExceptionDescribe", "DestroyJavaVM"};

class FakeVm : public NoSettings {
 protected:
  void Set(const std::string& name, const std::string& value) { request.environment[name] = value; }

  static Texts Calls() { return Lines(ReadText(CALLS_FILE)); }
  static Texts Errors() { return StartingWith("ERROR", LoggedStatements()); }

  void ExpectSuccessWith(const std::vector<Texts>& calls) {
    ExpectSuccess(Execute(request));
    ExpectSettings(NEW_SETTINGS);
    EXPECT_THAT(Calls(), ElementsAreArray(Joined(calls)));
  }

  void ExpectOnlyTheFrameWith(const std::vector<Texts>& calls) {
    ExpectOnlyTheFrame(Execute(request));
    EXPECT_THAT(Calls(), ElementsAreArray(Joined(calls)));
  }

  Command request =
      WithVariable(WithFakeVm(RequestWith("/srv/vemo/java")), "FAKE_VM_CALLS", CALLS_FILE);
};

TEST_F(FakeVm, IsCalledStepByStep) {
  ExpectSuccessWith({START_CALLS, RedirectionCalls(), {LOOKUP_CALL}, END_CALLS});
}

TEST_F(FakeVm, IsStartedAfterTheFrameIsOpenedAndDestroyedBeforeItIsClosed) {
  Set("FAKE_VM_CALLS", "/dev/stdout");
  const std::string page = Execute(request).output;
  EXPECT_THAT(page, HasSubstr("<div style=\"clear:both\" ></div>\nJNI_CreateJavaVM "));
  EXPECT_THAT(page, HasSubstr("</div>\nExceptionOccurred\nDestroyJavaVM\n</body>\n</html>\n"));
}

TEST_F(FakeVm, APositiveResultIsSuccess) {
  Set("FAKE_VM_RESULT", "1");
  ExpectSuccessWith({START_CALLS, RedirectionCalls(), {LOOKUP_CALL}, END_CALLS});
}

TEST_F(FakeVm, AMissingClassIsReportedThenDescribedThenTheVmDestroyed) {
  Set("FAKE_VM_FAILS", LOOKUP_CALL);
  Set("FAKE_VM_CALLS", LOG_FILE);
  ExpectOnlyTheFrame(Execute(request));
  const Texts lines = LoggedLines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_THAT(Texts(lines.end() - 5, lines.end()),
              ElementsAreArray(Joined({{LOOKUP_CALL, CLASS_NOT_FOUND}, END_CALLS_WITH_EXCEPTION})));
}

TEST_F(FakeVm, AnExceptionOfTheLastRedirectionStepIsNotLookedAt) {
  Set("FAKE_VM_FAILS", "CallStaticVoidMethodV");
  ExpectSuccessWith({START_CALLS, RedirectionCalls(), {LOOKUP_CALL}, END_CALLS_WITH_EXCEPTION});
  EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(FakeVm, ALogFileNameThatCouldNotBeMadeIsPassedOn) {
  Set("FAKE_VM_FAILS", "NewStringUTF");
  Texts redirection = RedirectionCalls();
  redirection[3] = "NewObjectV java/io/FileOutputStream.<init>(Ljava/lang/String;Z)V(null, true)";
  ExpectSuccessWith({START_CALLS, redirection, {LOOKUP_CALL}, END_CALLS_WITH_EXCEPTION});
  EXPECT_THAT(Errors(), IsEmpty());
}

// ---- What it is started with.

struct Variables {
  const char* name;
  std::optional<std::string> options;
  std::optional<std::string> classPath;
};

class FakeVmStart : public FakeVm, public testing::WithParamInterface<Variables> {};

TEST_P(FakeVmStart, GetsTheOptionUnchangedBeforeTheClassPath) {
  const auto& [name, options, classPath] = GetParam();
  request = WithoutVariable(request, "JAVA_CLASSPATH");
  Texts start = {"JNI_CreateJavaVM version 10002 options 1 ignoreUnrecognized 1"};
  if (options) {
    Set("JAVA_OPTIONS", *options);
    start = {"JNI_CreateJavaVM version 10002 options 2 ignoreUnrecognized 1", "option " + *options};
  }
  if (classPath) {
    Set("JAVA_CLASSPATH", *classPath);
  }
  start.push_back("option -Djava.class.path=" + classPath.value_or(""));
  ExpectSuccessWith({start, RedirectionCalls(), {LOOKUP_CALL}, END_CALLS});
  EXPECT_THAT(
      LoggedStatements(),
      ElementsAreArray(Joined(
          {StartStatements(options.value_or(UNSET), classPath.value_or(UNSET)), {REDIRECTION}})));
}

INSTANTIATE_TEST_SUITE_P(
    JavaVm, FakeVmStart,
    testing::Values(Variables{"AnOption", "-Xmx16m", "/srv/vemo/java"},
                    Variables{"AnEmptyOption", "", "/srv/vemo/java"},
                    Variables{"BlanksInsideTheOption", " -Xmx64m  -Xss1m ", "/srv/vemo/java"},
                    Variables{"NoClassPath", std::nullopt, std::nullopt},
                    Variables{"AnyClassPath", std::nullopt, "/a b:/c %s.jar:"}),
    ParamName());

// ---- Refused: with what its library leaves in the two pointers, nothing as a rule.

struct Refusal {
  const char* name;
  const char* result;
  const char* leaves;
  Texts endCalls;
};

class RefusedVm : public FakeVm, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusedVm, IsReportedAndDestroyedWhereItIsThereAllTheSame) {
  Set("FAKE_VM_RESULT", GetParam().result);
  Set("FAKE_VM_LEAVES", GetParam().leaves);
  ExpectOnlyTheFrameWith({START_CALLS, GetParam().endCalls});
  EXPECT_THAT(LoggedLines(), ElementsAreArray(Joined({StartStatements(), {VM_REFUSED}})));
}

INSTANTIATE_TEST_SUITE_P(JavaVm, RefusedVm,
                         testing::Values(Refusal{"Error", "-1", "", {}},
                                         Refusal{"Version", "-3", "", {}},
                                         Refusal{"OutOfMemory", "-4", "", {}},
                                         Refusal{"GivenOut", "-1", "vm env", END_CALLS},
                                         Refusal{"VmAlone", "-1", "vm", {"DestroyJavaVM"}},
                                         Refusal{"EnvAlone", "-1", "env", {"ExceptionOccurred"}}),
                         ParamName());

// ---- A redirection that fails, step by step.

class FailingRedirection : public FakeVm, public testing::WithParamInterface<RedirectionStep> {
 protected:
  const std::string expectedError = std::string("ERROR src/JavaVmWrapper ") + GetParam().error;
  const std::vector<Texts> expectedCalls = {
      START_CALLS, RedirectionCalls(GetParam().call), {LOOKUP_CALL}, END_CALLS_WITH_EXCEPTION};
};

TEST_P(FailingRedirection, StopsThereAndThePageSucceeds) {
  Set("FAKE_VM_FAILS", GetParam().call);
  ExpectSuccessWith(expectedCalls);
  EXPECT_THAT(Errors(), testing::ElementsAre(expectedError));
}

TEST_P(FailingRedirection, WithAMissingClassBothAreReported) {
  Set("FAKE_VM_FAILS", GetParam().call + ("\n" + LOOKUP_CALL));
  ExpectOnlyTheFrameWith(expectedCalls);
  EXPECT_THAT(Errors(), testing::ElementsAre(expectedError, CLASS_NOT_FOUND));
}

std::vector<RedirectionStep> StepsLookedAt() {
  std::vector<RedirectionStep> steps = REDIRECTION_STEPS;
  const auto isIgnored = [](const RedirectionStep& step) { return step.error == nullptr; };
  steps.erase(std::remove_if(steps.begin(), steps.end(), isIgnored), steps.end());
  return steps;
}

INSTANTIATE_TEST_SUITE_P(JavaVm, FailingRedirection, testing::ValuesIn(StepsLookedAt()),
                         ParamName());

}  // namespace
