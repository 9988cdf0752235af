// The nVm client with its fields open, what it logs, and how it reads and frees documents: the
// binary that this is compiled into has these calls of libxml2 in front of libxml2's own.
#pragma once

#include <string>
#include <vector>

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

// The calls since the latest ForgetXmlCalls, in their order, as in
// "xmlReadMemory noname.xml (null) 96", "xmlFreeDoc", "xmlFreeDoc (null)", "xmlCleanupParser".
std::vector<std::string> XmlCalls();
void ForgetXmlCalls();
