// The fake VM: interposes JNI_CreateJavaVM of the real Java VM's library, and answers every JNI
// call as the test wants. The program is unmodified: this library is preloaded into it, or, in
// power_cut.py, is the libjvm.so that the loader finds by LD_LIBRARY_PATH. Tests of the real VM
// have configuration classes of their own: tests/java. The test sets in the environment:
//
// FAKE_VM_RESULT  what JNI_CreateJavaVM returns; default: 0
// FAKE_VM_LEAVES  the pointers that it sets even if the result is negative: "vm", "env" or both,
//                 "vm env"; default: none
// FAKE_VM_FAILS   the calls that fail, one a line, by their beginning, as in "FindClass java/io";
//                 they return null and leave an exception pending
// FAKE_VM_CALLS   the file to which every call is appended, one a line
//
// Functions that the program must not call are null.

#include <jni.h>

#include <cstdarg>
#include <deque>
#include <sstream>

#include "Record.h"

namespace {

bool isExceptionPending = false;

// Every handle of a class, method or object points to its description, so that a recorded call
// shows its arguments.
std::deque<std::string> handles;

template <typename Handle>
Handle NewHandle(const std::string& description) {
  return reinterpret_cast<Handle>(&handles.emplace_back(description));
}

std::string Describe(const void* handle) {
  return handle != nullptr ? *static_cast<const std::string*>(handle) : "null";
}

std::string Describe(jmethodID method) {
  return Describe(static_cast<const void*>(method));
}

void Record(const std::string& call) {
  ::Record("FAKE_VM_CALLS", call);
}

bool MustFail(const std::string& call) {
  std::istringstream failing(Setting("FAKE_VM_FAILS"));
  for (std::string beginning; std::getline(failing, beginning);) {
    if (call.rfind(beginning, 0) == 0) {
      return true;
    }
  }
  return false;
}

template <typename Handle>
Handle Call(const std::string& call, const std::string& description) {
  Record(call);
  if (MustFail(call)) {
    isExceptionPending = true;
    return nullptr;
  }
  return NewHandle<Handle>(description);
}

// The arguments as the method's signature types them: objects and booleans.
std::string DescribeArguments(jmethodID method, va_list arguments) {
  const std::string signature = Describe(method);
  std::string text;
  for (auto i = signature.find('(') + 1; signature[i] != ')'; ++i) {
    text += text.empty() ? "" : ", ";
    if (signature[i] == 'L') {
      text += Describe(va_arg(arguments, const void*));
      i = signature.find(';', i);
    } else {
      text += va_arg(arguments, int) == JNI_TRUE ? "true" : "false";
    }
  }
  return "(" + text + ")";
}

jclass FindClass(JNIEnv*, const char* name) {
  return Call<jclass>(std::string("FindClass ") + name, name);
}

jmethodID GetMethodId(JNIEnv*, jclass type, const char* name, const char* signature) {
  const std::string method = Describe(type) + "." + name + signature;
  return Call<jmethodID>("GetMethodID " + method, method);
}

jmethodID GetStaticMethodId(JNIEnv*, jclass type, const char* name, const char* signature) {
  const std::string method = Describe(type) + "." + name + signature;
  return Call<jmethodID>("GetStaticMethodID " + method, method);
}

jstring NewStringUtf(JNIEnv*, const char* text) {
  return Call<jstring>(std::string("NewStringUTF ") + text, text);
}

jobject NewObjectV(JNIEnv*, jclass type, jmethodID constructor, va_list arguments) {
  const std::string object = "new " + Describe(type);
  return Call<jobject>(
      "NewObjectV " + Describe(constructor) + DescribeArguments(constructor, arguments), object);
}

void CallStaticVoidMethodV(JNIEnv*, jclass, jmethodID method, va_list arguments) {
  Call<jobject>("CallStaticVoidMethodV " + Describe(method) + DescribeArguments(method, arguments),
                "nothing");
}

jobject CallStaticObjectMethodV(JNIEnv*, jclass, jmethodID method, va_list) {
  return Call<jobject>("CallStaticObjectMethodV " + Describe(method), "a text");
}

jint CallStaticIntMethodV(JNIEnv*, jclass, jmethodID method, va_list) {
  return Call<jobject>("CallStaticIntMethodV " + Describe(method), "a number") != nullptr ? 42 : 0;
}

// Returns an empty text for null, where the real VM crashes.
const char* GetStringUtfChars(JNIEnv*, jstring text, jboolean*) {
  Record("GetStringUTFChars " + Describe(text));
  return text != nullptr ? reinterpret_cast<std::string*>(text)->c_str() : "";
}

jthrowable ExceptionOccurred(JNIEnv*) {
  Record("ExceptionOccurred");
  return isExceptionPending ? NewHandle<jthrowable>("exception") : nullptr;
}

void ExceptionDescribe(JNIEnv*) {
  Record("ExceptionDescribe");
}

jint DestroyJavaVm(JavaVM*) {
  Record("DestroyJavaVM");
  return JNI_OK;
}

void RecordStart(const JavaVMInitArgs& arguments) {
  std::ostringstream text;
  text << "JNI_CreateJavaVM version " << std::hex << arguments.version << std::dec << " options "
       << arguments.nOptions << " ignoreUnrecognized "
       << static_cast<int>(arguments.ignoreUnrecognized);
  Record(text.str());
  for (jint i = 0; i < arguments.nOptions; ++i) {
    Record(std::string("option ") + arguments.options[i].optionString);
  }
}

bool SetsPointer(const char* what, jint result) {
  return result >= 0 || Setting("FAKE_VM_LEAVES").find(what) != std::string::npos;
}

JNIEnv* Environment() {
  static JNINativeInterface_ functions{};
  functions.FindClass = FindClass;
  functions.GetMethodID = GetMethodId;
  functions.GetStaticMethodID = GetStaticMethodId;
  functions.NewStringUTF = NewStringUtf;
  functions.NewObjectV = NewObjectV;
  functions.CallStaticVoidMethodV = CallStaticVoidMethodV;
  functions.CallStaticObjectMethodV = CallStaticObjectMethodV;
  functions.CallStaticIntMethodV = CallStaticIntMethodV;
  functions.GetStringUTFChars = GetStringUtfChars;
  functions.ExceptionOccurred = ExceptionOccurred;
  functions.ExceptionDescribe = ExceptionDescribe;
  static JNIEnv_ environment{&functions};
  return &environment;
}

JavaVM* Vm() {
  static JNIInvokeInterface_ functions{};
  functions.DestroyJavaVM = DestroyJavaVm;
  static JavaVM_ vm{&functions};
  return &vm;
}

}  // namespace

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** environment,
                                                   void* arguments) {
  RecordStart(*static_cast<JavaVMInitArgs*>(arguments));
  const jint result = std::atoi(Setting("FAKE_VM_RESULT").c_str());
  if (SetsPointer("vm", result)) {
    *vm = Vm();
  }
  if (SetsPointer("env", result)) {
    *environment = Environment();
  }
  return result;
}
