// Makes the calls of the Java bridge that its arguments name, in one Java VM, which a process can
// have but once:
//
//   text NAME   text-literal NAME   int NAME   int-literal NAME   lan   wlan
//
// The literal forms pass the name as a C string. Prints what came back, a line each: "1 a text". A
// result begins as "unset" or -1.

#include <cstdio>
#include <string>

#include "JavaVmWrapper.h"

namespace {

void Print(bool isFound, const std::string& result) {
  std::printf("%d %s\n", isFound ? 1 : 0, result.c_str());
}

template <typename Name>
void CallText(JavaVmWrapper& javaVm, Name name) {
  std::string result = "unset";
  const bool isFound = javaVm.CallFunction(name, result);
  Print(isFound, result);
}

template <typename Name>
void CallNumber(JavaVmWrapper& javaVm, Name name) {
  int result = -1;
  const bool isFound = javaVm.CallFunction(name, result);
  Print(isFound, std::to_string(result));
}

}  // namespace

int main(int argc, char** argv) {
  JavaVmWrapper javaVm;
  if (!javaVm.OpenJavaVM()) {
    return 1;
  }
  for (int i = 1; i < argc; ++i) {
    const std::string kind = argv[i];
    if (kind == "lan") {
      std::printf("%s\n", javaVm.GetLanIp4Address().c_str());
    } else if (kind == "wlan") {
      std::printf("%s\n", javaVm.GetWlanIp4Address().c_str());
    } else if (kind == "text") {
      CallText(javaVm, std::string(argv[++i]));
    } else if (kind == "text-literal") {
      CallText(javaVm, static_cast<const char*>(argv[++i]));
    } else if (kind == "int") {
      CallNumber(javaVm, std::string(argv[++i]));
    } else if (kind == "int-literal") {
      CallNumber(javaVm, static_cast<const char*>(argv[++i]));
    }
  }
  return 0;
}
