// File-system operations on UTF-8 paths. Each function converts its paths for
// the platform's wide calls, returns a plain flag and leaves the platform's last
// error as the failing call set it. Changing operations announce themselves to
// the process's file-operation hook, before (phase 1) and after (phase 2) the
// platform call, whatever its outcome.
#pragma once

#include <windows.h>

#include <cstdint>
#include <type_traits>
#include <vector>

#include "handles.h"
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

// ---------------------------------------------------------------------------
// Handle-relative operations, for directories that others may write: the
// directory is opened once, each file in it by name relative to that handle
// and never through a link, and checks, deletion and renaming go through the
// opened handles, so that a name swapped meanwhile cannot redirect them. Names
// are UTF-16, as the directory listing gives them. Changing operations send
// the same notices as the path functions above (paths built from the
// directory's path and the name).

// The last error of an open refused because the name is a link, or leads
// through one that the platform followed anyway.
inline constexpr DWORD kErrorLinkRefused = ERROR_CANT_ACCESS_FILE;

// A directory held open. While held it can be neither renamed nor deleted.
struct HeldDirectory {
    UniqueHandle handle;
    Str path;  // as opened; for reports and notices
    WStr name; // its name on its volume, as the handle reports it
};

// What an opened file is.
struct FileFacts {
    uint64_t id = 0; // the file system's number of the file
    uint32_t attributes = 0;
    uint32_t links = 0; // names (hard links) of the file
};

// Opens the directory at path for listing, creating and renaming into it.
// Refuses a reparse point and a directory that the handle names otherwise
// than path (reached through a link): false with kErrorLinkRefused.
bool OpenHeldDirectory(const Str& path, HeldDirectory& directory);

// How OpenInDirectory opens (bits); directories are never opened.
inline constexpr uint32_t kOpenExisting = 0;
inline constexpr uint32_t kCreateNew = 1;         // fails (183) when the name exists
inline constexpr uint32_t kSequentialScan = 2;    // the sequential-scan hint
inline constexpr uint32_t kAllowReparsePoint = 4; // the link itself, where the platform opens it
// Opens name relative to the directory without following a link at the name.
// Refused (kErrorLinkRefused): a reparse point (unless allowed) and a file
// that the handle names otherwise (a link the platform followed). A directory
// of that name fails with 5. facts, when given, receives what the file is.
// Empty on failure, with the last error.
UniqueHandle OpenInDirectory(const HeldDirectory& directory, const WStr& name, uint32_t access,
                             uint32_t share, uint32_t how, FileFacts* facts = nullptr);
// Deletes the name (a link itself, never what it leads to); directories are not
// deleted. False with the last error (2 when there is no such name).
bool DeleteInDirectory(const HeldDirectory& directory, const WStr& name);
// Creates name anew: an existing file or link of that name is deleted first,
// so that nothing is written through a name somebody else made.
UniqueHandle CreateFreshFile(const HeldDirectory& directory, const WStr& name, uint32_t access,
                             uint32_t how = 0, FileFacts* facts = nullptr);
// Deletes the file of a handle opened with DELETE access.
bool DeleteOpenedFile(HANDLE file);
// Renames the file of a handle opened with DELETE access into the directory.
bool RenameOpenedFile(HANDLE file, const HeldDirectory& directory, const WStr& name, bool replace);
// What the handle's file is; false with the last error.
bool GetFileFacts(HANDLE file, FileFacts& facts);

// One entry of a directory listing; name is not terminated.
struct DirectoryEntry {
    const wchar_t* name;
    uint32_t length;
    uint32_t attributes;
};
using DirectoryVisitor = bool (*)(void* context, const DirectoryEntry& entry);
// Lists the directory from its start, a bounded batch at a time, "." and ".."
// left out, in the platform's order; the visitor returns false to stop. False
// when the listing failed (last error).
bool VisitDirectory(const HeldDirectory& directory, DirectoryVisitor visit, void* context);
template <class Visit> bool VisitDirectory(const HeldDirectory& directory, Visit&& visit) {
    return VisitDirectory(
        directory,
        [](void* context, const DirectoryEntry& entry) {
            return (*static_cast<std::remove_reference_t<Visit>*>(context))(entry);
        },
        &visit);
}
// True when the entry's name ends with suffix (ASCII letters in any case).
bool EntryHasSuffix(const DirectoryEntry& entry, const wchar_t* suffix);

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
