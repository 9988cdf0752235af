// What a preloaded library is told, and what it tells, by way of the environment.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

// The variable's text; empty without it.
inline std::string Setting(const char* variable) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? text : "";
}

// Appends a line to the file that the variable names, if it names one.
inline void Record(const char* variable, const std::string& line) {
  if (std::FILE* const file = std::fopen(Setting(variable).c_str(), "a")) {
    std::fprintf(file, "%s\n", line.c_str());
    std::fclose(file);
  }
}
