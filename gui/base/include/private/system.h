// System functions of the base library: process initialisation and the
// process's argument list.
#pragma once

#include <cstdint>

#include "str.h"

// Prepares the library's process-wide state that must not wait for first use.
// Called once by the program's entry point after it has set the module identity.
void InitBaseLibrary();

// The process's environment variable (GetEnvironmentVariableW) as UTF-8; empty
// when it is absent (last error 203) or empty.
Str GetProcessEnvironment(const char* name);

// Argument `index` of the process's command line (0 is the program); the list is
// built once from GetCommandLineW. An index past the end gives an empty Str.
Str CommandLineArgument(uint32_t index);
uint32_t CommandLineArgumentCount();
