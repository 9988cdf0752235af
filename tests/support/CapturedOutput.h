// Takes the process's standard output while it lives.
#pragma once

#include <string>

class CapturedOutput {
 public:
  CapturedOutput();
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  // What was written so far.
  std::string Text() const;

 private:
  int original_;
};
