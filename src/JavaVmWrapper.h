// The Java VM of one request, inside the request's own process.
//
// The device keeps its configuration logic in a Java class. The wrapper owns the VM, sends the
// VM's System.err to the CGI log file and looks up that class. Call every operation on the thread
// that called OpenJavaVM. A process can create one VM in its lifetime.
#pragma once

#include <jni.h>

#include <string>

class JavaVmWrapper {
 public:
  // Creates no VM yet.
  JavaVmWrapper();

  // Describes a pending Java exception on System.err, then destroys the VM, which waits for its
  // non-daemon threads. Does nothing without a VM.
  virtual ~JavaVmWrapper();

  JavaVmWrapper(const JavaVmWrapper&) = delete;
  JavaVmWrapper& operator=(const JavaVmWrapper&) = delete;

  // Creates the VM from two environment variables: "JAVA_OPTIONS", when set, is one option of the
  // VM, passed whole, blanks included; "JAVA_CLASSPATH" is the class path. Then redirects
  // System.err and looks up the configuration class. At most one call for each object.
  //
  // Returns true when the VM runs and the class was found. Otherwise returns false and logs the
  // reason as ERROR; the exception of a failed look-up stays pending for the destructor to
  // describe. Traces are logged as DEBUG. With some bad options the VM ends the process instead.
  bool OpenJavaVM();

  // Redirects System.err to the end of the CGI log file. Stops at the first look-up or new stream
  // that fails and logs it as ERROR; System.err then stays what it was, and the exception stays
  // pending. The text of the file's name and the call of setErr are not checked. Needs the VM.
  void ChangeStdErr();

  // The operations from here on need an OpenJavaVM that returned true.

  // Calls the configuration class's static method of that name, without arguments, for a text
  // (String; up to its first zero byte, in JNI's modified UTF-8) or a number (int). Returns true,
  // with the method's result in `result`, when there is such a method. Otherwise returns false and
  // logs it as ERROR; `result` is unchanged and the exception of the look-up stays pending.
  //
  // A text method must not return null and must not throw: neither is checked. When a number method
  // throws, the exception stays pending and the number is meaningless. A text's characters stay
  // allocated until the VM is destroyed. The two forms of each pair differ only in the numbers of
  // their log statements.
  bool CallFunction(const std::string& method, std::string& result);
  bool CallFunction(const char* method, std::string& result);
  bool CallFunction(const std::string& method, int& result);
  bool CallFunction(const char* method, int& result);

  // The address of the wired and of the wireless interface, as the configuration class returns it;
  // empty when the class has no such method.
  std::string GetLanIp4Address();
  std::string GetWlanIp4Address();

 protected:
  JNIEnv* env;         // of the thread that called OpenJavaVM; null until the VM exists
  JavaVM* jvm;         // null until the VM exists
  jclass configClass;  // set by OpenJavaVM once the VM exists; null when the class was not found
};

// Whether the C library's inet_aton accepts the text as an IPv4 address, shortened, octal and
// hexadecimal forms included.
bool IsIp4Address(const std::string& text);
