// Test seams of the service, by the base library's convention (private/seams.h):
// the pass and poll interval of the control loop, and the queue's checks,
// security call and installer start.
#pragma once

#include <windows.h>

#include <aclapi.h>

#include "private/seams.h"
#include "str.h"

// The control loop: the pass it runs and the time-out of its wait (0: the
// product's); and the service manager's opening, which fails only without
// administrative rights, which Wine always grants.
struct ServiceSeams {
    void (*step)();
    DWORD waitMs;
    SC_HANDLE(WINAPI* openSCManager)(LPCSTR machine, LPCSTR database, DWORD access);
};
void SetServiceSeamsForTesting(const ServiceSeams* seams);

// The queue pass: its two checks, the security call for the moved package
// (Wine keeps no file DACL, so only the call itself can be observed), the
// installer start, and two points where a test acts between the steps of a
// request: after the first checks, right before the package is taken for the
// move, and right after the move (the product does nothing there).
struct QueueSeams {
    bool (*verifyTrust)(const Str& path, HANDLE file);
    bool (*isCompanySigned)(const Str& path);
    DWORD(WINAPI* setNamedSecurityInfo)
    (LPWSTR path, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID owner, PSID group, PACL dacl,
     PACL sacl);
    bool (*startInstaller)(const Str& commandLine);
    void (*beforeMove)(const Str& package);
    void (*afterMove)(const Str& moved);
};
void SetQueueSeamsForTesting(const QueueSeams* seams);
