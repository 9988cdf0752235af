// The nVm client with its fields open, and what it logs.
#pragma once

#include <string>

#include "NvmManipulator.h"

class NvmClient : public NvmManipulator {
 public:
  using NvmManipulator::address;
  using NvmManipulator::doc;
  using NvmManipulator::functionName;
  using NvmManipulator::reply;
};

// The log file begins anew.
void EmptyLog();

// All of the log file since then: a statement as Debug or Error give it, other lines as they are.
std::string LogText();

// What a statement of the client looks like in LogText.
std::string Debug(int line, const std::string& message);
std::string Error(int line, const std::string& message);
