// WDDX 1.0 packets, as far as the nVm service uses them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Allocation.h"

// Reads the string variables of a request's struct, by name; an empty map if there is no struct.
// std::nullopt: the text is not a packet, or declares an entity. The text counts as UTF-8, whatever
// encoding it declares, and has some KiB at most. Throws std::bad_alloc when memory is scarce.
std::optional<std::map<std::string, std::string>> ReadPacket(const std::string& text);

// Writes a reply: the variables in their order, then "Status" with its code and message.
std::string WritePacket(const std::vector<std::pair<std::string, std::string>>& variables,
                        const Status& status);
