// The service's last word on a fault nothing else handled: the fault reported
// through the library's exception filter, and a minidump for the administrator
// to send, in "<program files>\Korvanta\Crashes".
#pragma once

#include "str.h"

// Installs the process-wide unhandled-exception filter.
void InstallCrashReporting();

// The dump folder, created when missing with access for Administrators and
// LocalSystem only; empty when it cannot be made or is not to be trusted (a
// link, or a folder somebody else made).
Str GetCrashDumpDirectory();
