// What the program must answer and log.
#pragma once

#include <string>
#include <vector>

// The pages, byte for byte.
std::string SuccessPage(const std::string& value);
std::string WarningPage();
std::string FrameOnly();

// The statements of a request until its Java VM is made, as Summary lines.
std::vector<std::string> StartStatements(const std::string& javaOptions = "(null)",
                                         const std::string& classPath = "/srv/vemo/java");

// All statements of a request that succeeds.
std::vector<std::string> SuccessStatements();
