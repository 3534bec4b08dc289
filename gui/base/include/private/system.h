// System functions of the base library: process initialisation, the process's
// argument list, and the exception filter with the guard that runs code under it.
#pragma once

#include <cstdint>
#include <type_traits>

#include "str.h"

struct _EXCEPTION_POINTERS;

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

// The filter of the library's guards. Names the exception, reports it through
// ReportAndConfirm ("ExceptionFilter: ...", and for an access violation what could
// not be read or written) and as event 400 "Exception occured" of "QELGUI", and
// answers `disposition` (1, execute the handler), except that a stack overflow or
// a non-continuable exception is never handled (0, continue the search).
// `context` names the guarded site and may be null; so may the pointers.
// Keeps the caller's last error.
int ExceptionFilter(const char* context, _EXCEPTION_POINTERS* exceptionPointers, int disposition);

// A guard's filter: ExceptionFilter or one of its shape. It is asked with the
// guard's context and disposition 1; 1 handles the fault, -1 resumes it, any
// other answer passes it on to the next guard out.
using GuardFilter = int (*)(const char* context, _EXCEPTION_POINTERS* exceptionPointers,
                            int disposition);

// Runs body(argument) under a frame-based exception guard and returns whether it
// completed. A fault on this thread inside the body is offered to the innermost
// guard first. When the filter handles it, the stack is unwound to the guard,
// which returns false with the last error as the filter left it. Destructors in
// the abandoned frames do not run: a guarded body owns nothing. A null filter
// handles nothing.
bool RunGuarded(const char* context, GuardFilter filter, void (*body)(void*), void* argument);

// The same for a callable (a lambda with its captures).
template <class Body> bool RunGuarded(const char* context, GuardFilter filter, Body&& body) {
    using Callable = std::remove_reference_t<Body>;
    return RunGuarded(
        context, filter, [](void* callable) { (*static_cast<Callable*>(callable))(); },
        const_cast<void*>(static_cast<const void*>(&body)));
}
