// File-system operations on UTF-8 paths. Each function converts its paths for
// the platform's wide calls, returns a plain flag and leaves the platform's last
// error as the failing call set it. Changing operations announce themselves to
// the process's file-operation hook, before (phase 1) and after (phase 2) the
// platform call, whatever its outcome.
#pragma once

#include <windows.h>

#include <cstdint>
#include <vector>

#include "str.h"

// Operation codes of the file-operation notices.
inline constexpr uint32_t kFileOperationCreate = 0; // directory or empty file
inline constexpr uint32_t kFileOperationDelete = 2;
inline constexpr uint32_t kFileOperationMove = 9; // source first, then destination
// The constant every notice carries as its second value.
inline constexpr uint32_t kFileOperationNoticeTag = 60;
inline constexpr uint32_t kFileOperationBefore = 1;
inline constexpr uint32_t kFileOperationAfter = 2;

// Receives (operation, kFileOperationNoticeTag, phase, path, second path or null).
// The caller's last error is kept across the hook.
using FileOperationHook = void (*)(uint32_t operation, uint32_t tag, uint32_t phase,
                                   const char* path, const char* secondPath);
// Process-wide; null (the default) switches the notices off.
void SetFileOperationHook(FileOperationHook hook);

// Process-wide long-path switch, off by default. When on, ToPlatformPath gives
// absolute drive paths ("C:\..." or "C:/...") and root paths ("\..." or "/...",
// but not "\\..." or "//...") the extended-length form "\\?\": the path is first
// made full by GetFullPathNameW (so "/" becomes "\", "." and ".." components are
// resolved and a root path gets the current drive), then prefixed, whatever its
// length. Relative paths, UNC and already prefixed paths, and empty paths are
// converted plainly, as is any path whose full form cannot be computed.
void SetLongPathsEnabled(bool enabled);
bool LongPathsEnabled();

// The UTF-16 form of a path for platform calls (empty when conversion failed).
WStr ToPlatformPath(const Str& path);

// True when the path exists and is not a directory.
bool FileExists(const Str& path);
// True when anything exists at the path (a directory too).
bool PathExists(const Str& path);
// Creates an empty file (truncating an existing one) and closes it.
bool CreateEmptyFile(const Str& path);
// True when the directory exists afterwards. With parents, missing levels are
// created from the top down. Without parents and quiet, any creation failure
// is final; otherwise an existing directory counts as success.
bool CreateDirectoryPath(const Str& path, bool withParents, bool quiet);
// True when the file was deleted; with force also when it was not there, and a
// read-only file loses its read-only attribute first.
bool DeleteFilePath(const Str& path, bool force);
// Copies one file (CopyFileExW).
bool CopyFilePath(const Str& source, const Str& destination, bool failIfExists);
// True when the file is at the destination afterwards; replaces an existing
// destination unless failIfExists. Moves across volumes as copy plus delete.
bool MoveFilePath(const Str& source, const Str& destination, bool failIfExists);
// Names of the files (not directories) that match the pattern in the last
// component, in the platform's order; empty when nothing matches.
std::vector<Str> EnumerateFiles(const Str& pathWithPattern);
// True when the name may be used as one path component of at most maximum
// characters (a multi-byte UTF-8 sequence counts as one character).
bool IsValidFileName(const char* name, uint32_t maximum);
inline bool IsValidFileName(const Str& name, uint32_t maximum) {
    return IsValidFileName(name.Text(), maximum);
}

// Path text helpers. "\" and "/" both separate components.
// Appends "\" (unless the path is empty or already ends with a separator) and
// the component. False (path unchanged) for a null component (last error 87)
// or when the text cannot grow.
bool AppendPathComponent(Str& path, const char* component);
// The text after the last separator (the whole path when there is none).
Str PathFileName(const Str& path);
// The file name without its last extension ("A.pending" gives "A"; a name
// without "." is returned whole).
Str PathStem(const Str& path);
// The path without its last component and the separator before it; a root
// keeps its separator ("C:\a" gives "C:\", "\a" gives "\"). Trailing
// separators are ignored. Empty when the path has no separator.
Str PathDirectory(const Str& path);

// Well-known directory numbers.
inline constexpr uint32_t kDirectoryCommonAppData = 22; // CSIDL_COMMON_APPDATA
inline constexpr uint32_t kDirectoryProgramFiles = 23;  // CSIDL_PROGRAM_FILES
// The folder's path, empty on failure or for a number without a folder.
Str GetWellKnownDirectory(uint32_t number);
