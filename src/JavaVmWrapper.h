// The Java VM of one request, inside the request's own process.
//
// The device keeps its configuration logic in a Java class. The wrapper owns the VM, sends the
// VM's System.err to the CGI log file and finds that class. Every operation belongs on the thread
// that called OpenJavaVM. A process can have one VM in its life.
#pragma once

#include <jni.h>

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

 protected:
  JNIEnv* env;         // of the thread that called OpenJavaVM; null until the VM exists
  JavaVM* jvm;         // null until the VM exists
  jclass configClass;  // set by OpenJavaVM once the VM exists; null when the class was not found
};
