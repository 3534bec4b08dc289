// Fixed protections for objects that processes of several users and integrity
// levels share: a mandatory integrity label, and an owner, group and access
// list built from the caller's own user and three well-known groups. Both
// answer only true or false; a protection applied in part is not undone.
#pragma once

#include <windows.h>

#include "str.h"

// Integrity levels of SetIntegrityLabel: 0 low, 1 medium, 2 medium plus,
// 3 high, 4 system; 5 or more is no level and fails.
inline constexpr unsigned kIntegrityLow = 0;

// Sets the label "S:(ML;;NW;;;<level>)" on the handle's object, or, without a
// handle, on the file or directory `path`. True only when it was set.
bool SetIntegrityLabel(HANDLE object, const Str& path, unsigned level);

// Owner and group: the effective user (the impersonated user, else the
// process's). Access entries, in this order: the effective user (all rights);
// the process's user when it differs (all rights); with `withWellKnown`,
// LocalSystem and Administrators (all rights) and Everyone (read, write,
// execute, delete), after the low label was set (its result is ignored).
// `inherit` passes every entry on to files and directories created below.
// With a handle the kernel object is changed, else the file or directory `path`.
bool SecureObjectForUser(HANDLE object, const Str& path, bool inherit, bool withWellKnown);

// SecureObjectForUser(object, empty path, no inheritance, well-known trustees).
bool SecureKernelObject(HANDLE object);

// LocalSystem (S-1-5-18), LocalService (S-1-5-19) or NetworkService (S-1-5-20).
bool IsServiceAccountSid(PSID sid);
