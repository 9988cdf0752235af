// Stands in front of the real Java VM library and answers JNI_CreateJavaVM itself, step by step as
// the test wishes. Preloaded into the unmodified program. What the test sets in the environment:
//
// FAKE_VM_RESULT   what JNI_CreateJavaVM returns; 0 without it. Negative: no VM is given out.
// FAKE_VM_FAILS    the calls that fail, by their number, as in "1" or "7 10"; see Call below
// FAKE_VM_CALLS    a file to which every call is appended, a line each
//
// Functions that the program has no business to call are null.

#include <jni.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

namespace {

int callCount = 0;
bool isExceptionPending = false;
int object;  // its address is every class, method and object

void Record(const std::string& call) {
  const char* const path = std::getenv("FAKE_VM_CALLS");
  if (path == nullptr) {
    return;
  }
  if (std::FILE* const file = std::fopen(path, "a")) {
    std::fprintf(file, "%s\n", call.c_str());
    std::fclose(file);
  }
}

bool MustFail(int number) {
  const char* const list = std::getenv("FAKE_VM_FAILS");
  std::istringstream numbers(list != nullptr ? list : "");
  for (int failing; numbers >> failing;) {
    if (failing == number) {
      return true;
    }
  }
  return false;
}

// Every call that gives something back has a number, from 1 in the order of the calls; one that
// fails gives null and leaves an exception pending.
template <typename Handle>
Handle Call(const std::string& name) {
  Record(name);
  if (MustFail(++callCount)) {
    isExceptionPending = true;
    return nullptr;
  }
  return reinterpret_cast<Handle>(&object);
}

jclass FindClass(JNIEnv*, const char* name) {
  return Call<jclass>(std::string("FindClass ") + name);
}

jmethodID GetMethodId(JNIEnv*, jclass, const char* name, const char* signature) {
  return Call<jmethodID>(std::string("GetMethodID ") + name + " " + signature);
}

jmethodID GetStaticMethodId(JNIEnv*, jclass, const char* name, const char* signature) {
  return Call<jmethodID>(std::string("GetStaticMethodID ") + name + " " + signature);
}

jstring NewStringUtf(JNIEnv*, const char* text) {
  return Call<jstring>(std::string("NewStringUTF ") + text);
}

jobject NewObjectV(JNIEnv*, jclass, jmethodID, va_list) {
  return Call<jobject>("NewObjectV");
}

void CallStaticVoidMethodV(JNIEnv*, jclass, jmethodID, va_list) {
  Record("CallStaticVoidMethodV");
}

jthrowable ExceptionOccurred(JNIEnv*) {
  Record("ExceptionOccurred");
  return isExceptionPending ? reinterpret_cast<jthrowable>(&object) : nullptr;
}

void ExceptionDescribe(JNIEnv*) {
  Record("ExceptionDescribe");
}

jint DestroyJavaVm(JavaVM*) {
  Record("DestroyJavaVM");
  return JNI_OK;
}

void RecordArguments(const JavaVMInitArgs& arguments) {
  std::ostringstream text;
  text << "JNI_CreateJavaVM version " << std::hex << arguments.version << std::dec
       << " ignoreUnrecognized " << static_cast<int>(arguments.ignoreUnrecognized);
  Record(text.str());
  for (jint i = 0; i < arguments.nOptions; ++i) {
    Record(std::string("option ") + arguments.options[i].optionString);
  }
}

}  // namespace

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** environment,
                                                   void* arguments) {
  static JNINativeInterface_ functions{};
  functions.FindClass = FindClass;
  functions.GetMethodID = GetMethodId;
  functions.GetStaticMethodID = GetStaticMethodId;
  functions.NewStringUTF = NewStringUtf;
  functions.NewObjectV = NewObjectV;
  functions.CallStaticVoidMethodV = CallStaticVoidMethodV;
  functions.ExceptionOccurred = ExceptionOccurred;
  functions.ExceptionDescribe = ExceptionDescribe;
  static JNIEnv_ environmentOfThread{&functions};

  static JNIInvokeInterface_ invocation{};
  invocation.DestroyJavaVM = DestroyJavaVm;
  static JavaVM_ theVm{&invocation};

  RecordArguments(*static_cast<JavaVMInitArgs*>(arguments));
  const char* const wanted = std::getenv("FAKE_VM_RESULT");
  const jint result = wanted != nullptr ? std::atoi(wanted) : JNI_OK;
  if (result >= 0) {
    *vm = &theVm;
    *environment = &environmentOfThread;
  }
  return result;
}
