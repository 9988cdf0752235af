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

std::string Call(JavaVmWrapper& javaVm, const std::string& kind, const char* name) {
  const bool isLiteral = kind == "text-literal" || kind == "int-literal";
  if (kind == "text" || kind == "text-literal") {
    std::string text = "unset";
    const bool isFound =
        isLiteral ? javaVm.CallFunction(name, text) : javaVm.CallFunction(std::string(name), text);
    return std::to_string(isFound) + " " + text;
  }
  int number = -1;
  const bool isFound = isLiteral ? javaVm.CallFunction(name, number)
                                 : javaVm.CallFunction(std::string(name), number);
  return std::to_string(isFound) + " " + std::to_string(number);
}

}  // namespace

int main(int argc, char** argv) {
  JavaVmWrapper javaVm;
  if (!javaVm.OpenJavaVM()) {
    return 1;
  }
  for (int i = 1; i < argc; ++i) {
    const std::string kind = argv[i];
    const std::string result = kind == "lan"    ? javaVm.GetLanIp4Address()
                               : kind == "wlan" ? javaVm.GetWlanIp4Address()
                                                : Call(javaVm, kind, argv[++i]);
    std::printf("%s\n", result.c_str());
  }
  return 0;
}
