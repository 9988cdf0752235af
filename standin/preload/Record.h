// Settings and records of the preloaded libraries. Environment variables hold the settings and name
// the file of the record.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

// The variable's text; empty when it is not set.
inline std::string Setting(const char* variable) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? text : "";
}

// Appends a line to the file that the variable names; does nothing when it names none.
inline void Record(const char* variable, const std::string& line) {
  if (std::FILE* const file = std::fopen(Setting(variable).c_str(), "a")) {
    std::fprintf(file, "%s\n", line.c_str());
    std::fclose(file);
  }
}
