// Requests that nobody should send, made by chance.
#pragma once

#include <cstdint>
#include <vector>

#include "Process.h"

// The request of this number among those of the seed: the same every time. Some are known
// ones with a few bytes changed.
Command Generate(std::uint32_t seed, std::uint32_t number, const std::vector<Command>& known);

// The same for the real Java VM: of its options and class path only such as it survives, or
// refuses.
Command GenerateForRealVm(std::uint32_t seed, std::uint32_t number,
                          const std::vector<Command>& known);
