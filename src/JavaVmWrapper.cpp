#include "JavaVmWrapper.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "CgiLog.h"

namespace {

constexpr char SOURCE[] = "src/JavaVmWrapper";
constexpr char CONFIG_CLASS[] = "com/tarn/vemo/config/ConfigVemo";

void LogClassNotFound(int line, const char* name) {
  LogFormater(LOG_LEVEL_ERROR, SOURCE, line).Log(GetCgiLogHandler(), "Class '%s' not found", name);
}

void LogMethodNotFound(int line, const char* name) {
  LogFormater(LOG_LEVEL_ERROR, SOURCE, line)
      .Log(GetCgiLogHandler(), "Methode '%s' not found", name);
}

}  // namespace

// configClass stays unset: it means nothing before there is a VM.
JavaVmWrapper::JavaVmWrapper() : env(nullptr), jvm(nullptr) {}

JavaVmWrapper::~JavaVmWrapper() {
  if (env != nullptr && env->ExceptionOccurred() != nullptr) {
    env->ExceptionDescribe();
  }
  if (jvm != nullptr) {
    jvm->DestroyJavaVM();
  }
}

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

void JavaVmWrapper::ChangeStdErr() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 155).Log(GetCgiLogHandler(), "%s", "ChangeStdErr");

  const jclass fileOutputStreamClass = env->FindClass("java/io/FileOutputStream");
  if (fileOutputStreamClass == nullptr) {
    LogClassNotFound(159, "java.io.FileOutputStream");
    return;
  }
  const jmethodID fileOutputStreamInit =
      env->GetMethodID(fileOutputStreamClass, "<init>", "(Ljava/lang/String;Z)V");
  if (fileOutputStreamInit == nullptr) {
    LogMethodNotFound(167, "<init>");
    return;
  }
  const jstring logFile = env->NewStringUTF(CGI_LOG_FILE);
  const jobject outputStream =
      env->NewObject(fileOutputStreamClass, fileOutputStreamInit, logFile, JNI_TRUE);
  if (outputStream == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 175).Log(GetCgiLogHandler(), "Can't create output stream");
    return;
  }

  const jclass printStreamClass = env->FindClass("java/io/PrintStream");
  if (printStreamClass == nullptr) {
    LogClassNotFound(182, "java.io.PrintStream");
    return;
  }
  const jmethodID printStreamInit =
      env->GetMethodID(printStreamClass, "<init>", "(Ljava/io/OutputStream;)V");
  if (printStreamInit == nullptr) {
    LogMethodNotFound(190, "<init>");
    return;
  }
  const jobject printStream = env->NewObject(printStreamClass, printStreamInit, outputStream);
  if (printStream == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 196).Log(GetCgiLogHandler(), "Can't create print stream");
    return;
  }

  const jclass systemClass = env->FindClass("java/lang/System");
  if (systemClass == nullptr) {
    LogClassNotFound(203, "java.lang.System");
    return;
  }
  const jmethodID setErr =
      env->GetStaticMethodID(systemClass, "setErr", "(Ljava/io/PrintStream;)V");
  if (setErr == nullptr) {
    LogMethodNotFound(211, "setErr");
    return;
  }
  env->CallStaticVoidMethod(systemClass, setErr, printStream);
}

// The static method of the configuration class; null, logged, when there is none.
jmethodID JavaVmWrapper::FindFunction(const char* method, const char* signature, int entryLine,
                                      int notFoundLine) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, entryLine)
      .Log(GetCgiLogHandler(), "%s %s", "CallFunction", method);
  const jmethodID function = env->GetStaticMethodID(configClass, method, signature);
  if (function == nullptr) {
    LogMethodNotFound(notFoundLine, method);
  }
  return function;
}

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

bool IsIp4Address(const std::string& text) {
  in_addr scratch;
  return inet_aton(text.c_str(), &scratch) != 0;
}
