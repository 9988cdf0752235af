#include "JavaVmWrapper.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "CgiLog.h"

namespace {

constexpr char SOURCE[] = "src/JavaVmWrapper";
constexpr char CONFIG_CLASS[] = "com/tarn/vemo/config/ConfigVemo";

}  // namespace

// configClass stays unset: it has no meaning before there is a VM.
JavaVmWrapper::JavaVmWrapper() : env(nullptr), jvm(nullptr) {}

// Contract and known issues: docs/kept-as-is.md, `~JavaVmWrapper`.
JavaVmWrapper::~JavaVmWrapper() {
  if (env != nullptr && env->ExceptionOccurred() != nullptr) {
    env->ExceptionDescribe();
  }
  if (jvm != nullptr) {
    jvm->DestroyJavaVM();
  }
}

// Contract and known issues: docs/kept-as-is.md, `OpenJavaVM`.
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
    // The exception stays pending: the destructor describes it, so that the log has the reason.
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 118)
        .Log(GetCgiLogHandler(), "Class '%s' not found", CONFIG_CLASS);
    return false;
  }
  return true;
}

// Contract and known issues: docs/kept-as-is.md, `ChangeStdErr`.
void JavaVmWrapper::ChangeStdErr() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 155).Log(GetCgiLogHandler(), "%s", "ChangeStdErr");

  // The log file as a Java stream that appends.
  const jclass fileType = env->FindClass("java/io/FileOutputStream");
  if (fileType == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 159)
        .Log(GetCgiLogHandler(), "Class '%s' not found", "java.io.FileOutputStream");
    return;
  }
  const jmethodID openFile = env->GetMethodID(fileType, "<init>", "(Ljava/lang/String;Z)V");
  if (openFile == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 167)
        .Log(GetCgiLogHandler(), "Methode '%s' not found", "<init>");
    return;
  }
  const jstring path = env->NewStringUTF(CGI_LOG_FILE);
  const jobject file = env->NewObject(fileType, openFile, path, JNI_TRUE);
  if (file == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 175).Log(GetCgiLogHandler(), "Can't create output stream");
    return;
  }

  const jclass streamType = env->FindClass("java/io/PrintStream");
  if (streamType == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 182)
        .Log(GetCgiLogHandler(), "Class '%s' not found", "java.io.PrintStream");
    return;
  }
  const jmethodID wrapFile = env->GetMethodID(streamType, "<init>", "(Ljava/io/OutputStream;)V");
  if (wrapFile == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 190)
        .Log(GetCgiLogHandler(), "Methode '%s' not found", "<init>");
    return;
  }
  const jobject stream = env->NewObject(streamType, wrapFile, file);
  if (stream == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 196).Log(GetCgiLogHandler(), "Can't create print stream");
    return;
  }

  const jclass systemType = env->FindClass("java/lang/System");
  if (systemType == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 203)
        .Log(GetCgiLogHandler(), "Class '%s' not found", "java.lang.System");
    return;
  }
  const jmethodID setErr = env->GetStaticMethodID(systemType, "setErr", "(Ljava/io/PrintStream;)V");
  if (setErr == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 211)
        .Log(GetCgiLogHandler(), "Methode '%s' not found", "setErr");
    return;
  }
  env->CallStaticVoidMethod(systemType, setErr, stream);
}

// Contract and known issues: docs/kept-as-is.md, `CallFunction`.
bool JavaVmWrapper::CallFunction(const std::string& method, std::string& result) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 226)
      .Log(GetCgiLogHandler(), "%s %s", "CallFunction", method.c_str());
  const jmethodID function =
      env->GetStaticMethodID(configClass, method.c_str(), "()Ljava/lang/String;");
  if (function == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 232)
        .Log(GetCgiLogHandler(), "Methode '%s' not found", method.c_str());
    return false;
  }
  const auto text = static_cast<jstring>(env->CallStaticObjectMethod(configClass, function));
  result = env->GetStringUTFChars(text, nullptr);
  return true;
}

bool JavaVmWrapper::CallFunction(const char* method, std::string& result) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 249)
      .Log(GetCgiLogHandler(), "%s %s", "CallFunction", method);
  const jmethodID function = env->GetStaticMethodID(configClass, method, "()Ljava/lang/String;");
  if (function == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 255)
        .Log(GetCgiLogHandler(), "Methode '%s' not found", method);
    return false;
  }
  const auto text = static_cast<jstring>(env->CallStaticObjectMethod(configClass, function));
  result = env->GetStringUTFChars(text, nullptr);
  return true;
}

bool JavaVmWrapper::CallFunction(const std::string& method, int& result) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 273)
      .Log(GetCgiLogHandler(), "%s %s", "CallFunction", method.c_str());
  const jmethodID function = env->GetStaticMethodID(configClass, method.c_str(), "()I");
  if (function == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 277)
        .Log(GetCgiLogHandler(), "Methode '%s' not found", method.c_str());
    return false;
  }
  result = env->CallStaticIntMethod(configClass, function);
  return true;
}

bool JavaVmWrapper::CallFunction(const char* method, int& result) {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 293)
      .Log(GetCgiLogHandler(), "%s %s", "CallFunction", method);
  const jmethodID function = env->GetStaticMethodID(configClass, method, "()I");
  if (function == nullptr) {
    LogFormater(LOG_LEVEL_ERROR, SOURCE, 297)
        .Log(GetCgiLogHandler(), "Methode '%s' not found", method);
    return false;
  }
  result = env->CallStaticIntMethod(configClass, function);
  return true;
}

// Contract and known issues: docs/kept-as-is.md, `GetLanIp4Address`.
std::string JavaVmWrapper::GetLanIp4Address() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 313).Log(GetCgiLogHandler(), "%s", "GetLanIp4Address");
  std::string result;
  CallFunction("getLanIp4AddressS", result);
  return result;
}

// Contract and known issues: docs/kept-as-is.md, `GetWlanIp4Address`.
std::string JavaVmWrapper::GetWlanIp4Address() {
  LogFormater(LOG_LEVEL_DEBUG, SOURCE, 327).Log(GetCgiLogHandler(), "%s", "GetWlanIp4Address");
  std::string result;
  CallFunction("getWlanIp4AddressS", result);
  return result;
}

// Contract and known issues: docs/kept-as-is.md, `IsIp4Address`.
bool IsIp4Address(const std::string& text) {
  in_addr scratch;
  return inet_aton(text.c_str(), &scratch) != 0;
}
