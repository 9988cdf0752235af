// The floor: starts the Java VM, makes the JNI calls that a request makes, and ends. Nothing else.

#include <jni.h>

#include <cstdlib>
#include <string>

int main() {
  const char* const userOption = std::getenv("JAVA_OPTIONS");
  const char* const classPath = std::getenv("JAVA_CLASSPATH");
  std::string classPathOption =
      std::string("-Djava.class.path=") + (classPath != nullptr ? classPath : "");
  JavaVMOption options[2] = {};
  jint count = 0;
  if (userOption != nullptr) {
    options[count++].optionString = const_cast<char*>(userOption);
  }
  options[count++].optionString = classPathOption.data();
  JavaVMInitArgs arguments = {JNI_VERSION_1_2, count, options, JNI_TRUE};

  JavaVM* vm = nullptr;
  JNIEnv* env = nullptr;
  if (JNI_CreateJavaVM(&vm, reinterpret_cast<void**>(&env), &arguments) < 0) {
    return 1;
  }
  const jclass stream = env->FindClass("java/io/FileOutputStream");
  const jmethodID openStream = env->GetMethodID(stream, "<init>", "(Ljava/lang/String;Z)V");
  const jobject file =
      env->NewObject(stream, openStream, env->NewStringUTF("/tmp/cgi.log"), JNI_TRUE);
  const jclass printer = env->FindClass("java/io/PrintStream");
  const jmethodID wrap = env->GetMethodID(printer, "<init>", "(Ljava/io/OutputStream;)V");
  const jobject errors = env->NewObject(printer, wrap, file);
  const jclass system = env->FindClass("java/lang/System");
  const jmethodID setErr = env->GetStaticMethodID(system, "setErr", "(Ljava/io/PrintStream;)V");
  env->CallStaticVoidMethod(system, setErr, errors);
  const bool isFound = env->FindClass("com/tarn/vemo/config/ConfigVemo") != nullptr;
  vm->DestroyJavaVM();
  return isFound ? 0 : 1;
}
