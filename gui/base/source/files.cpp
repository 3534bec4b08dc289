// File-system operations on UTF-8 paths.
#include "files.h"

#include <objbase.h>
#include <shlobj.h>

#include <atomic>
#include <cstring>
#include <new>

#include "handles.h"
#include "private/filenotice.h"
#include "private/growbuffer.h"
#include "private/seams.h"
#include "report.h"

namespace {

std::atomic<FileOperationHook> s_fileOperationHook{nullptr};
std::atomic<bool> s_longPaths{false};

SeamSlot<FileSeams> s_seams;

// Attributes cleared before a forced delete: read-only and those that cannot be
// set directly (directory, device, sparse, reparse point, compressed,
// encrypted, virtual).
constexpr DWORD kForcedDeleteClearMask = 0x14E51;

// Errors after which the target may already be there (or be in use).
bool MayAlreadyExist(DWORD error) {
    switch (error) {
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
    case ERROR_USER_MAPPED_FILE:
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
        return true;
    default:
        return false;
    }
}

bool IsSeparator(char c) {
    return c == '\\' || c == '/';
}

bool IsAsciiLetter(wchar_t c) {
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

bool IsWideSeparator(wchar_t c) {
    return c == L'\\' || c == L'/';
}

void Notice(uint32_t operation, uint32_t phase, const Str& path, const Str* secondPath) {
    SendFileNotice(operation, phase, path, secondPath);
}

// The platform form of a path; false (with the conversion's last error) when a
// non-empty path could not be converted. An empty path stays empty, so that the
// platform call itself reports it.
bool PlatformPath(const Str& path, WStr& out) {
    out = ToPlatformPath(path);
    return !(out.IsEmpty() && !path.IsEmpty());
}

bool IsLongPathCandidate(const WStr& path) {
    const wchar_t* t = path.Text();
    const uint32_t n = path.Length();
    if (n >= 3 && IsAsciiLetter(t[0]) && t[1] == L':' && IsWideSeparator(t[2]))
        return true;
    return n >= 2 && IsWideSeparator(t[0]) && !IsWideSeparator(t[1]);
}

// "\\?\" + the full path; empty when the full path cannot be computed.
WStr ExtendedPath(const WStr& plain) {
    LastErrorKeeper keep;
    WStr full;
    if (!FillGrowing(
            [&plain](wchar_t* buffer, uint32_t capacity, uint32_t* needed) {
                const DWORD length = GetFullPathNameW(plain.Text(), capacity, buffer, nullptr);
                *needed = length < capacity ? length + 1 : length;
                return length != 0;
            },
            full))
        return WStr();
    WStr result(L"\\\\?\\");
    return result.Append(full) ? result : WStr();
}

} // namespace

bool FileNoticesWanted() {
    return s_fileOperationHook.load(std::memory_order_acquire) != nullptr;
}

void SendFileNotice(uint32_t operation, uint32_t phase, const Str& path, const Str* secondPath) {
    const FileOperationHook hook = s_fileOperationHook.load(std::memory_order_acquire);
    if (hook == nullptr)
        return;
    LastErrorKeeper keep;
    hook(operation, kFileOperationNoticeTag, phase, path.Text(),
         secondPath != nullptr ? secondPath->Text() : nullptr);
}

Str FinalPath::operator()() const {
    wchar_t buffer[MAX_PATH * 4];
    const DWORD length = GetFinalPathNameByHandleW(file, buffer, MAX_PATH * 4, 0);
    return length == 0 || length >= MAX_PATH * 4 ? Str() : Str::FromUtf16(buffer, length);
}

void SetFileOperationHook(FileOperationHook hook) {
    s_fileOperationHook.store(hook, std::memory_order_release);
}

void SetLongPathsEnabled(bool enabled) {
    s_longPaths.store(enabled, std::memory_order_relaxed);
}

bool LongPathsEnabled() {
    return s_longPaths.load(std::memory_order_relaxed);
}

WStr ToPlatformPath(const Str& path) {
    WStr plain = WStr::FromUtf8(path);
    if (!LongPathsEnabled() || !IsLongPathCandidate(plain))
        return plain;
    WStr extended = ExtendedPath(plain);
    return extended.IsEmpty() ? plain : extended;
}

bool FileExists(const Str& path) {
    WStr platform;
    if (!PlatformPath(path, platform))
        return false;
    const DWORD attributes = GetFileAttributesW(platform.Text());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

bool PathExists(const Str& path) {
    WStr platform;
    return PlatformPath(path, platform) &&
           GetFileAttributesW(platform.Text()) != INVALID_FILE_ATTRIBUTES;
}

bool CreateEmptyFile(const Str& path) {
    WStr platform;
    if (!PlatformPath(path, platform))
        return false;
    Notice(kFileOperationCreate, kFileOperationBefore, path, nullptr);
    UniqueHandle file(CreateFileW(platform.Text(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                  nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    Notice(kFileOperationCreate, kFileOperationAfter, path, nullptr);
    return file.Valid() && CloseHandle(file.Detach());
}

bool CreateDirectoryPath(const Str& path, bool withParents, bool quiet) {
    WStr platform;
    if (!PlatformPath(path, platform))
        return false;
    Notice(kFileOperationCreate, kFileOperationBefore, path, nullptr);
    const BOOL created = CreateDirectoryW(platform.Text(), nullptr);
    Notice(kFileOperationCreate, kFileOperationAfter, path, nullptr);
    if (created)
        return true;
    if (!withParents && quiet)
        return false;

    const DWORD error = GetLastError();
    if (MayAlreadyExist(error)) {
        const DWORD attributes = GetFileAttributesW(platform.Text());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            const DWORD queryError = GetLastError();
            SetLastError(error);
            if (queryError != ERROR_FILE_NOT_FOUND && queryError != ERROR_PATH_NOT_FOUND)
                return false;
        } else {
            // The creation error stays for the caller even when a directory is there.
            SetLastError(error);
            if (attributes & FILE_ATTRIBUTE_DIRECTORY)
                return true;
        }
    }

    if (withParents) {
        const Str parent = PathDirectory(path);
        if (!parent.IsEmpty() && CreateDirectoryPath(parent, true, true))
            return CreateDirectoryPath(path, false, false);
    }
    return false;
}

bool DeleteFilePath(const Str& path, bool force) {
    WStr platform;
    if (!PlatformPath(path, platform))
        return false;
    if (force) {
        const DWORD attributes = GetFileAttributesW(platform.Text());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            const DWORD error = GetLastError();
            if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)
                return true;
        } else if (attributes & FILE_ATTRIBUTE_READONLY) {
            // When this fails, DeleteFileW says why.
            SetFileAttributesW(platform.Text(), attributes & ~kForcedDeleteClearMask);
        }
    }
    Notice(kFileOperationDelete, kFileOperationBefore, path, nullptr);
    const BOOL deleted = DeleteFileW(platform.Text());
    Notice(kFileOperationDelete, kFileOperationAfter, path, nullptr);
    return deleted != FALSE;
}

bool CopyFilePath(const Str& source, const Str& destination, bool failIfExists) {
    WStr from;
    WStr to;
    if (!PlatformPath(source, from) || !PlatformPath(destination, to))
        return false;
    return CopyFileExW(from.Text(), to.Text(), nullptr, nullptr, nullptr,
                       failIfExists ? COPY_FILE_FAIL_IF_EXISTS : 0) != FALSE;
}

bool MoveFilePath(const Str& source, const Str& destination, bool failIfExists) {
    WStr from;
    WStr to;
    if (!PlatformPath(source, from) || !PlatformPath(destination, to))
        return false;
    const DWORD flags =
        failIfExists ? MOVEFILE_COPY_ALLOWED : MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED;
    Notice(kFileOperationMove, kFileOperationBefore, source, &destination);
    const BOOL moved =
        s_seams.Pick(&FileSeams::moveFileEx, &MoveFileExW)(from.Text(), to.Text(), flags);
    Notice(kFileOperationMove, kFileOperationAfter, source, &destination);
    if (moved)
        return true;
    if (GetLastError() != ERROR_CALL_NOT_IMPLEMENTED)
        return false;

    // Without MoveFileExW: a plain move, which neither replaces nor crosses volumes.
    const auto moveFile = s_seams.Pick(&FileSeams::moveFile, &MoveFileW);
    if (moveFile(from.Text(), to.Text()))
        return true;
    if (MayAlreadyExist(GetLastError())) {
        if (failIfExists)
            return false;
        if (!DeleteFilePath(destination, false))
            return false;
        if (moveFile(from.Text(), to.Text()))
            return true;
    }
    if (GetLastError() == ERROR_NOT_SAME_DEVICE) {
        if (!CopyFilePath(source, destination, failIfExists))
            return false;
        if (DeleteFilePath(source, true))
            return true;
        // The source stays: take the copy back so that the file is in one place only.
        LastErrorKeeper keep;
        DeleteFilePath(destination, true);
        return false;
    }
    return false;
}

std::vector<Str> EnumerateFiles(const Str& pathWithPattern) {
    std::vector<Str> names;
    WStr platform;
    if (!PlatformPath(pathWithPattern, platform))
        return names;
    WIN32_FIND_DATAW data;
    UniqueFind find(FindFirstFileW(platform.Text(), &data));
    if (!find.Valid())
        return names;
    try {
        do {
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                continue;
            if (wcscmp(data.cFileName, L".") == 0 || wcscmp(data.cFileName, L"..") == 0)
                continue;
            Str name = Str::FromUtf16(data.cFileName);
            if (!name.IsEmpty())
                names.push_back(std::move(name));
        } while (FindNextFileW(find.Get(), &data));
    } catch (const std::bad_alloc&) {
        names.clear();
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return names;
}

bool IsValidFileName(const char* name, uint32_t maximum) {
    if (name == nullptr)
        return false;
    static constexpr char kForbidden[] = "?*<>|\":\\/";
    uint32_t count = 0;
    bool named = false; // a character other than "." was seen
    const unsigned char* p = reinterpret_cast<const unsigned char*>(name);
    while (*p != 0) {
        if (count == maximum)
            return false;
        const unsigned char c = *p++;
        if (c < 32 || strchr(kForbidden, c) != nullptr)
            return false;
        if (c != '.')
            named = true;
        if (c >= 0xC0) {
            while ((*p & 0xC0) == 0x80)
                ++p;
        }
        ++count;
    }
    return named;
}

bool AppendPathComponent(Str& path, const char* component) {
    if (component == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    // Built aside so that the path stays as it was when growing fails.
    Str result(path);
    const uint32_t length = path.Length();
    if (length != 0 && !IsSeparator(path.Text()[length - 1]) && !result.AppendChar('\\'))
        return false;
    if (!result.Append(component))
        return false;
    path = std::move(result);
    return true;
}

Str PathFileName(const Str& path) {
    const char* text = path.Text();
    uint32_t start = path.Length();
    while (start > 0 && !IsSeparator(text[start - 1]))
        --start;
    if (start == 0)
        return path;
    return Str(text + start, path.Length() - start);
}

Str PathStem(const Str& path) {
    const Str name = PathFileName(path);
    const char* dot = strrchr(name.Text(), '.');
    if (dot == nullptr)
        return name;
    return Str(name.Text(), static_cast<uint32_t>(dot - name.Text()));
}

Str PathDirectory(const Str& path) {
    const char* text = path.Text();
    uint32_t end = path.Length();
    while (end > 0 && IsSeparator(text[end - 1]))
        --end;
    uint32_t separator = end;
    while (separator > 0 && !IsSeparator(text[separator - 1]))
        --separator;
    if (separator == 0)
        return Str();
    uint32_t cut = separator - 1;
    while (cut > 0 && IsSeparator(text[cut - 1]))
        --cut;
    if (cut == 0)
        return Str(text, 1);
    if (cut == 2 && text[1] == ':' && IsAsciiLetter(static_cast<unsigned char>(text[0])))
        return Str(text, 3);
    return Str(text, cut);
}

Str GetWellKnownDirectory(uint32_t number) {
    int csidl;
    switch (number) {
    case kDirectoryCommonAppData:
        csidl = CSIDL_COMMON_APPDATA;
        break;
    case kDirectoryProgramFiles:
        csidl = CSIDL_PROGRAM_FILES;
        break;
    default:
        SetLastError(ERROR_INVALID_PARAMETER);
        return Str();
    }
    // The shell wants COM; a thread already in a single-threaded apartment keeps it.
    HRESULT initialised = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (initialised == RPC_E_CHANGED_MODE)
        initialised = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    if (FAILED(initialised))
        return Str();
    Str result;
    wchar_t buffer[MAX_PATH] = {};
    if (SHGetSpecialFolderPathW(nullptr, buffer, csidl, FALSE))
        result = Str::FromUtf16(buffer);
    LastErrorKeeper keep;
    CoUninitialize();
    return result;
}

void SetFileSeamsForTesting(const FileSeams* seams) {
    s_seams.Set(seams);
}
