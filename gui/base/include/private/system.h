// System functions of the base library: the process's argument list.
#pragma once

#include <cstdint>

#include "str.h"

// Argument `index` of the process's command line (0 is the program); the list is
// built once from GetCommandLineW. An index past the end gives an empty Str.
Str CommandLineArgument(uint32_t index);
uint32_t CommandLineArgumentCount();
