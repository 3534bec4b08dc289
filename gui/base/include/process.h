// Starting other programs. The start is announced as an operational event
// (source "QELGUI": 2105 on success, 2106 on failure); the library never waits
// for the started program to end.
#pragma once

#include <windows.h>

#include <cstdint>

#include "str.h"

// The core: starts commandLine (no application name, handles not inherited,
// normal priority, the caller's environment) in workingDirectory (null or
// empty: the caller's). show picks SW_SHOW or SW_HIDE; foreground lets the new
// process take the foreground and waits up to 5 s for it to become idle.
// Returns the process id (a created process whose id is 0 gives 0xFFFFFFFF),
// or 0 on failure with the thread's last error kept. processHandleOut, when
// given, receives the process handle, which the caller must close (null on
// failure).
// An empty command line returns 0 without an event.
uint32_t StartCommand(const Str& commandLine, const char* workingDirectory, bool show,
                      bool foreground, HANDLE* processHandleOut);
// The same without the handle: true when a process was created.
bool StartCommand(const Str& commandLine, const char* workingDirectory, bool show, bool foreground);
// The caller's working directory, shown and in the foreground: true when a
// process was created.
bool StartCommand(const Str& commandLine);
