// Checks WDDX 1.0 packets as a strict reader would, with nothing but local files.
#pragma once

#include <string>
#include <vector>

// What is wrong with the packet: not well-formed, or not as the document type definition wants it.
std::vector<std::string> WddxErrors(const std::string& packet);
