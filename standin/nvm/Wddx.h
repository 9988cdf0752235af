// WDDX 1.0 packets, as far as the nVm service uses them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Allocation.h"

// The string variables of a request's struct, by name; none when the packet holds no struct.
// Nothing when the text is no packet, which one that declares an entity is not. The text is UTF-8,
// whatever it says, and some KiB at most. Throws std::bad_alloc where memory is scarce.
std::optional<std::map<std::string, std::string>> ReadPacket(const std::string& text);

// A reply: the variables in their order, then "Status" with its code and message.
std::string WritePacket(const std::vector<std::pair<std::string, std::string>>& variables,
                        const Status& status);
