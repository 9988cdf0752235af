// The floor: starts the Java VM, makes the JNI calls that a request makes, and ends. Nothing else.

#include <jni.h>

#include <cstdlib>
#include <string>

int main() {
  std::string classPath = std::string("-Djava.class.path=") + std::getenv("JAVA_CLASSPATH");
  JavaVMOption options[] = {{std::getenv("JAVA_OPTIONS"), nullptr}, {classPath.data(), nullptr}};
  JavaVMInitArgs arguments = {JNI_VERSION_1_2, 2, options, JNI_TRUE};
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
