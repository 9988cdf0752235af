#include "JavaVmWrapper.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include "CgiLog.h"

namespace {

constexpr char SOURCE[] = "src/JavaVmWrapper";
constexpr char CONFIG_CLASS[] = "com/tarn/vemo/config/ConfigVemo";

// Failures. Cold: kept out of line, so that a request that goes well carries none of it.

[[gnu::cold]] void LogClassNotFound(int line, const char* name) {
  LogFormater(LOG_LEVEL_ERROR, SOURCE, line).Log(GetCgiLogHandler(), "Class '%s' not found", name);
}

[[gnu::cold]] void LogMethodNotFound(int line, const char* name) {
  LogFormater(LOG_LEVEL_ERROR, SOURCE, line)
      .Log(GetCgiLogHandler(), "Methode '%s' not found", name);
}

// Named with dots.
[[gnu::cold]] void LogPlatformClassNotFound(int line, const char* name) {
  std::string dotted = name;
  std::replace(dotted.begin(), dotted.end(), '/', '.');
  LogClassNotFound(line, dotted.c_str());
}

[[gnu::cold]] void LogNotCreated(int line, const char* what) {
  LogFormater(LOG_LEVEL_ERROR, SOURCE, line).Log(GetCgiLogHandler(), "Can't create %s", what);
}

// The steps from here on give null, logged, when they fail; those of the redirection give null,
// silently, when they are given it.

jclass FindPlatformClass(JNIEnv* env, int line, const char* name) {
  const jclass type = env->FindClass(name);
  if (type == nullptr) {
    LogPlatformClassNotFound(line, name);
  }
  return type;
}

jmethodID FindConstructor(JNIEnv* env, int line, jclass type, const char* signature) {
  if (type == nullptr) {
    return nullptr;
  }
  const jmethodID constructor = env->GetMethodID(type, "<init>", signature);
  if (constructor == nullptr) {
    LogMethodNotFound(line, "<init>");
  }
  return constructor;
}

jmethodID FindStaticMethod(JNIEnv* env, int line, jclass type, const char* name,
                           const char* signature) {
  const jmethodID method = env->GetStaticMethodID(type, name, signature);
  if (method == nullptr) {
    LogMethodNotFound(line, name);
  }
  return method;
}

jobject LogUnlessCreated(int line, const char* what, jobject created) {
  if (created == nullptr) {
    LogNotCreated(line, what);
  }
  return created;
}

// The log file as Java's stream, to be appended to.
jobject OpenLogFile(JNIEnv* env) {
  const jclass type = FindPlatformClass(env, 159, "java/io/FileOutputStream");
  const jmethodID constructor = FindConstructor(env, 167, type, "(Ljava/lang/String;Z)V");
  if (constructor == nullptr) {
    return nullptr;
  }
  const jstring path = env->NewStringUTF(CGI_LOG_FILE);
  return LogUnlessCreated(175, "output stream", env->NewObject(type, constructor, path, JNI_TRUE));
}

jobject WrapInPrintStream(JNIEnv* env, jobject outputStream) {
  if (outputStream == nullptr) {
    return nullptr;
  }
  const jclass type = FindPlatformClass(env, 182, "java/io/PrintStream");
  const jmethodID constructor = FindConstructor(env, 190, type, "(Ljava/io/OutputStream;)V");
  if (constructor == nullptr) {
    return nullptr;
  }
  return LogUnlessCreated(196, "print stream", env->NewObject(type, constructor, outputStream));
}

void SetSystemErr(JNIEnv* env, jobject printStream) {
  if (printStream == nullptr) {
    return;
  }
  const jclass type = FindPlatformClass(env, 203, "java/lang/System");
  if (type == nullptr) {
    return;
  }
  const jmethodID setErr = FindStaticMethod(env, 211, type, "setErr", "(Ljava/io/PrintStream;)V");
  if (setErr != nullptr) {
    env->CallStaticVoidMethod(type, setErr, printStream);
  }
}

}  // namespace

// configClass stays unset: it means nothing before there is a VM.
JavaVmWrapper::JavaVmWrapper() : env(nullptr), jvm(nullptr) {}

// Stays: see docs/kept-as-is.md, "exception left pending", "waits for Java's threads".
// Stays: see docs/kept-as-is.md, "refused VM destroyed".
JavaVmWrapper::~JavaVmWrapper() {
  if (env != nullptr && env->ExceptionOccurred() != nullptr) {
    env->ExceptionDescribe();
  }
  if (jvm != nullptr) {
    jvm->DestroyJavaVM();
  }
}

// Stays: see docs/kept-as-is.md, "options not split", "unknown options ignored".
// Stays: see docs/kept-as-is.md, "options end the process", "VM writes into the page".
// Stays: see docs/kept-as-is.md, "Java prints into the page", "unset class path", "uneven texts".
// Stays: see docs/kept-as-is.md, "redirection may fail".
bool JavaVmWrapper::OpenJavaVM() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 73).Log(GetCgiLogHandler(), "OpenJavaVM");

  const char* const javaOptions = std::getenv("JAVA_OPTIONS");
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 81).Log(GetCgiLogHandler(), "JAVA_OPTIONS: %s", javaOptions);
  const jint optionCount = javaOptions != nullptr ? 2 : 1;
  auto options = std::make_unique<JavaVMOption[]>(static_cast<std::size_t>(optionCount));
  std::string userOption;
  if (javaOptions != nullptr) {
    userOption = javaOptions;
    options[0].optionString = userOption.data();
  }

  const char* const javaClassPath = std::getenv("JAVA_CLASSPATH");
  std::string classPathOption = "-Djava.class.path=";
  if (javaClassPath != nullptr) {
    classPathOption += javaClassPath;
  }
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 99)
      .Log(GetCgiLogHandler(), "JAVA_CLASSPATH:%s", javaClassPath);
  options[optionCount - 1].optionString = classPathOption.data();

  JavaVMInitArgs arguments;
  arguments.version = JNI_VERSION_1_2;
  arguments.nOptions = optionCount;
  arguments.options = options.get();
  arguments.ignoreUnrecognized = JNI_TRUE;
  const jint result = JNI_CreateJavaVM(&jvm, reinterpret_cast<void**>(&env), &arguments);
  options.reset();
  if (result < 0) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 111).Log(GetCgiLogHandler(), "Can't create Java VM");
    return false;
  }

  ChangeStdErr();

  configClass = env->FindClass(CONFIG_CLASS);
  if (configClass == nullptr) {
    // The exception stays pending: the destructor describes it into the log, where it is wanted.
    LogClassNotFound(118, CONFIG_CLASS);
    return false;
  }
  return true;
}

// Stays: see docs/kept-as-is.md, "Methode", "redirection half checked", "local references kept".
void JavaVmWrapper::ChangeStdErr() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 155).Log(GetCgiLogHandler(), "%s", "ChangeStdErr");
  const jobject logFile = OpenLogFile(env);
  const jobject printStream = WrapInPrintStream(env, logFile);
  SetSystemErr(env, printStream);
}

// The static method of the configuration class; null, logged, when there is none.
jmethodID JavaVmWrapper::FindFunction(const char* method, const char* signature, int entryLine,
                                      int notFoundLine) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, entryLine)
      .Log(GetCgiLogHandler(), "%s %s", "CallFunction", method);
  return FindStaticMethod(env, notFoundLine, configClass, method, signature);
}

// Stays: see docs/kept-as-is.md, "null text", "characters kept", "modified UTF-8".
bool JavaVmWrapper::CallTextFunction(const char* method, std::string& result, int entryLine,
                                     int notFoundLine) {
  const jmethodID function = FindFunction(method, "()Ljava/lang/String;", entryLine, notFoundLine);
  if (function == nullptr) {
    return false;
  }
  const auto text = static_cast<jstring>(env->CallStaticObjectMethod(configClass, function));
  result = env->GetStringUTFChars(text, nullptr);
  return true;
}

// Stays: see docs/kept-as-is.md, "exception of a number".
bool JavaVmWrapper::CallNumberFunction(const char* method, int& result, int entryLine,
                                       int notFoundLine) {
  const jmethodID function = FindFunction(method, "()I", entryLine, notFoundLine);
  if (function == nullptr) {
    return false;
  }
  result = env->CallStaticIntMethod(configClass, function);
  return true;
}

bool JavaVmWrapper::CallFunction(const std::string& method, std::string& result) {
  return CallTextFunction(method.c_str(), result, 226, 232);
}

bool JavaVmWrapper::CallFunction(const char* method, std::string& result) {
  return CallTextFunction(method, result, 249, 255);
}

bool JavaVmWrapper::CallFunction(const std::string& method, int& result) {
  return CallNumberFunction(method.c_str(), result, 273, 277);
}

bool JavaVmWrapper::CallFunction(const char* method, int& result) {
  return CallNumberFunction(method, result, 293, 297);
}

// Stays: see docs/kept-as-is.md, "empty address".
std::string JavaVmWrapper::GetLanIp4Address() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 313).Log(GetCgiLogHandler(), "%s", "GetLanIp4Address");
  std::string result;
  CallFunction("getLanIp4AddressS", result);
  return result;
}

std::string JavaVmWrapper::GetWlanIp4Address() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 327).Log(GetCgiLogHandler(), "%s", "GetWlanIp4Address");
  std::string result;
  CallFunction("getWlanIp4AddressS", result);
  return result;
}

// Stays: see docs/kept-as-is.md, "loose addresses".
bool IsIp4Address(const std::string& text) {
  in_addr scratch;
  return inet_aton(text.c_str(), &scratch) != 0;
}
