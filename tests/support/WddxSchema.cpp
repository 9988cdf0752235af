#include "WddxSchema.h"

#include "Files.h"
#include "Process.h"

std::vector<std::string> WddxErrors(const std::string& packet) {
  constexpr char DEFINITION[] = "/source/tests/data/wddx_1_0.dtd";
  const Result result = Execute(
      {{"/usr/bin/xmllint", "--nonet", "--noout", "--dtdvalid", DEFINITION, "-"}, {}, packet});
  // The packet's own definition is on the network, which xmllint regrets.
  std::vector<std::string> errors;
  for (const std::string& line : Lines(result.error)) {
    if (line.rfind("-:", 0) == 0 && line.find(" error : ") != std::string::npos) {
      errors.push_back(line);
    }
  }
  if (result.exitStatus != 0 && errors.empty()) {
    errors.push_back("xmllint ended with " + std::to_string(result.exitStatus));
  }
  return errors;
}
