// Registry access through text key paths instead of handles.
//
// A key path is a root name and the key's components separated by backslashes,
// optionally preceded by two backslashes and a computer name:
//   "HKEY_LOCAL_MACHINE\SOFTWARE\Korvanta", "\\host\HKEY_USERS\.DEFAULT".
// Root names may be abbreviated to a leading part ("HKEY_LOCAL"); case counts.
// Three pseudo roots name the company's per-user areas below HKEY_CURRENT_USER:
// "HKEY_COMPANY" (Software\Korvanta), "HKEY_ENVIRONMENT"
// (Software\Korvanta\Environment) and "HKEY_APPLICATION" (Software\Korvanta\<name>,
// <name> being the program's base name).
//
// Nothing here reports: failures come back as null keys, empty texts, defaults
// or false, and every function leaves the result of its last registry call as
// the thread's last error (0 after success).
#pragma once

#include <windows.h>

#include <cstdint>

#include "handles.h"
#include "str.h"

struct RegistryKeyPath {
    Str machine; // computer name without the leading backslashes; empty for the local registry
    Str root;    // full name of a real root ("HKEY_CURRENT_USER"); empty when none matched
    Str subkey;  // components below the root joined by "\", no trailing "\"
};

// Open modes.
inline constexpr uint32_t kRegistryRead = 0;     // open existing, KEY_READ
inline constexpr uint32_t kRegistryReadOnly = 1; // same as kRegistryRead
// Open or create, KEY_READ | KEY_SET_VALUE | KEY_CREATE_SUB_KEY.
inline constexpr uint32_t kRegistryWrite = 2;
// Registry views.
inline constexpr uint32_t kRegistryViewNative = 0;
inline constexpr uint32_t kRegistryView32 = 1; // KEY_WOW64_32KEY
inline constexpr uint32_t kRegistryView64 = 2; // KEY_WOW64_64KEY

// Splits a path (and an optional subpath appended as further components) into
// its parts. A null or empty path takes the subpath in its place. A computer
// name "." means the local registry. When the first component matches no root
// name, root stays empty and subkey keeps every component, the unmatched one
// first; such a path opens nothing (last error ERROR_BAD_PATHNAME). An empty
// first component (a path starting with "\") matches no root either.
RegistryKeyPath ParseRegistryKeyPath(const char* path, const char* subpath = nullptr);

// The predefined key of a root name (exact comparison); null when unknown.
HKEY GetRegistryRootKey(const Str& root);

// Opens (modes 0 and 1) or opens-or-creates (mode 2) the key in the given view.
// Returns null on failure; the caller closes the key (UniqueRegKey). An empty
// subkey gives the root key itself (or the connected remote root; under Wine
// connecting to the local computer's own name gives the predefined key back). Mode 2 below
// HKEY_CLASSES_ROOT writes class registrations per user when the user already
// has the class (Software\Classes below HKEY_CURRENT_USER), else machine-wide,
// else per user. An unknown mode or view fails with ERROR_INVALID_PARAMETER.
HKEY OpenRegistryKey(const RegistryKeyPath& keyPath, uint32_t mode, uint32_t view = 0);
HKEY OpenRegistryKey(const char* path, const char* subpath, uint32_t mode, uint32_t view = 0);

// With asNumber set, only a REG_DWORD of 4 bytes counts; with it clear the
// value's text must be a decimal number (blanks around it allowed) that fits in
// 32 bits. Anything else gives defaultValue.
uint32_t ReadRegistryNumber(const char* path, const char* subpath, const char* valueName,
                            uint32_t defaultValue, bool asNumber);

// The value's text, REG_EXPAND_SZ expanded; empty when absent. A value of
// another type is returned as its data read as UTF-16 up to the first null.
Str ReadRegistryText(HKEY key, const char* valueName);
// Opens the key (mode 1, view 0) and reads the value's text.
Str ReadRegistryTextAt(const char* path, const char* subpath, const char* valueName);

// Creates the key as needed and writes a REG_SZ (with its terminator) or a REG_DWORD.
bool WriteRegistryText(const char* path, const char* subpath, const char* valueName,
                       const char* text);
bool WriteRegistryNumber(const char* path, const char* subpath, const char* valueName,
                         uint32_t number);

// Whether the key exists and holds the value (null or "" names the default value).
bool RegistryValueExists(const char* path, const char* valueName);

// The process's environment variable; when absent or empty, the value of that
// name under "HKEY_ENVIRONMENT".
Str GetEnvironment(const char* name);

// HKEY_CLASSES_ROOT (0x80000000) up to HKEY_PERFORMANCE_NLSTEXT (0x80000060), sign-extended.
inline bool IsPredefinedRegistryKey(HKEY key) {
    const auto value = reinterpret_cast<intptr_t>(key);
    return value >= static_cast<intptr_t>(static_cast<int32_t>(0x80000000)) &&
           value <= static_cast<intptr_t>(static_cast<int32_t>(0x80000060));
}

namespace handles_detail {
inline void CloseRegistryKey(HKEY key) {
    if (!IsPredefinedRegistryKey(key))
        RegCloseKey(key);
}
KVT_HANDLE_TRAITS(RegistryKey, HKEY, CloseRegistryKey);
} // namespace handles_detail

// Owns an open registry key; closing keeps the thread's last error. Predefined
// root keys are never closed.
using UniqueRegKey = UniqueAny<handles_detail::RegistryKey>;
