// What the program must answer and log.
#pragma once

#include <string>
#include <vector>

// The pages, byte for byte.
std::string SuccessPage(const std::string& value);
std::string WarningPage();
std::string FrameOnly();

// What the log says of a request until its Java VM is made, as Summary lines.
std::vector<std::string> StartStatements(const std::string& javaOptions = "(null)",
                                         const std::string& classPath = "/srv/vemo/java");

// All that the log says of a request that succeeds.
std::vector<std::string> SuccessStatements();
