// The Java VM of one request, inside the request's own process.
//
// The device keeps its configuration logic in a Java class. The wrapper owns the VM, sends the
// VM's System.err to the CGI log file and finds that class. Every operation belongs on the thread
// that called OpenJavaVM. A process can have one VM in its life.
#pragma once

#include <jni.h>

#include <string>

class JavaVmWrapper {
 public:
  // Makes no VM yet.
  JavaVmWrapper();

  // Describes a pending Java exception on System.err, then destroys the VM; waits for the VM's
  // non-daemon threads. Does nothing when there is no VM.
  virtual ~JavaVmWrapper();

  JavaVmWrapper(const JavaVmWrapper&) = delete;
  JavaVmWrapper& operator=(const JavaVmWrapper&) = delete;

  // Makes the VM from two environment variables: "JAVA_OPTIONS", when set, is one option of the VM,
  // handed over whole, blanks included; "JAVA_CLASSPATH" is the class path. Then redirects
  // System.err and looks up the configuration class. At most one call for each object.
  //
  // True when the VM is there and the class was found. False, with the reason logged as ERROR, when
  // not; the exception of a failed look-up stays pending for the destructor to describe. Traces are
  // logged as DEBUG. A VM that cannot live with its options may end the process instead.
  bool OpenJavaVM();

  // Appends what Java writes to System.err to the CGI log file from now on. Stops at the first step
  // that fails and logs it as ERROR; System.err then stays what it was, and the step's exception
  // stays pending. Needs the VM.
  void ChangeStdErr();

  // The operations from here on need an OpenJavaVM that returned true.

  // Calls the configuration class's static method of that name, without arguments, for a text
  // (String; up to its first zero byte, in JNI's modified UTF-8) or a number (int). True when there
  // is such a method, with what it returned in `result`. False when there is none: logged as ERROR,
  // `result` untouched, the exception of the look-up left pending.
  //
  // The method must return a text, not null, and a text method must not throw: neither is checked.
  // An exception that a number method throws stays pending, and the number means nothing then. A
  // text's characters are held until the VM is destroyed. The two forms of each pair differ in the
  // numbers of their log statements alone.
  bool CallFunction(const std::string& method, std::string& result);
  bool CallFunction(const char* method, std::string& result);
  bool CallFunction(const std::string& method, int& result);
  bool CallFunction(const char* method, int& result);

  // The address of the wired and of the wireless interface, as the configuration class tells it;
  // empty when the class has no such method.
  std::string GetLanIp4Address();
  std::string GetWlanIp4Address();

 protected:
  JNIEnv* env;         // of the thread that called OpenJavaVM; null until the VM exists
  JavaVM* jvm;         // null until the VM exists
  jclass configClass;  // set by OpenJavaVM once the VM exists; null when the class was not found
};

// Whether the C library's inet_aton takes the text for an IPv4 address, shortened, octal and
// hexadecimal forms included.
bool IsIp4Address(const std::string& text);
