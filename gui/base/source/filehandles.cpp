// Handle-relative file operations: a directory held open, and the files in it
// opened by name relative to that handle without following links.
#include "files.h"

#include <winternl.h>

#include <cstring>
#include <memory>
#include <new>
#include <optional>

#include "private/filenotice.h"

namespace {

// A listing batch: bounded whatever the directory holds (a name is at most
// 255 characters, so every entry fits).
constexpr DWORD kListingBytes = 64 * 1024;

// FILE_ALL_INFORMATION with room for a name of this many characters; a longer
// name cannot be compared and is taken as a mismatch.
constexpr uint32_t kNameRoom = 2048;
struct AllInformation {
    FILE_ALL_INFORMATION all;
    wchar_t room[kNameRoom];
};

// A warning: the buffer was filled as far as it goes.
constexpr NTSTATUS kStatusBufferOverflow = static_cast<NTSTATUS>(0x80000005);

bool Fail(NTSTATUS status) {
    SetLastError(RtlNtStatusToDosError(status));
    return false;
}

bool SameText(const wchar_t* a, uint32_t aLength, const wchar_t* b, uint32_t bLength) {
    return CompareStringOrdinal(a, static_cast<int>(aLength), b, static_cast<int>(bLength), TRUE) ==
           CSTR_EQUAL;
}

// The file's facts and its name on its volume (pointing into info).
bool QueryFile(HANDLE file, AllInformation& info, FileFacts& facts, const wchar_t*& name,
               uint32_t& nameLength) {
    IO_STATUS_BLOCK io;
    const NTSTATUS status =
        NtQueryInformationFile(file, &io, &info, sizeof info, FileAllInformation);
    // An overflow still fills everything but the end of the name.
    if (!NT_SUCCESS(status) && status != kStatusBufferOverflow)
        return Fail(status);
    facts.id = static_cast<uint64_t>(info.all.InternalInformation.IndexNumber.QuadPart);
    facts.attributes = info.all.BasicInformation.FileAttributes;
    facts.links = info.all.StandardInformation.NumberOfLinks;
    name = info.all.NameInformation.FileName;
    nameLength = status == kStatusBufferOverflow
                     ? 0
                     : info.all.NameInformation.FileNameLength / sizeof(wchar_t);
    return true;
}

// The handle names the file as directory + "\" + name. Where the platform
// follows a link that was asked not to be followed, the handle names the
// link's target instead.
bool NamedAsOpened(const HeldDirectory& directory, const WStr& name, const wchar_t* reported,
                   uint32_t reportedLength) {
    const uint32_t dirLength = directory.name.Length();
    const bool separator = dirLength == 0 || directory.name.Text()[dirLength - 1] != L'\\';
    const uint32_t expected = dirLength + (separator ? 1 : 0) + name.Length();
    return reportedLength == expected &&
           SameText(reported, dirLength, directory.name.Text(), dirLength) &&
           (!separator || reported[dirLength] == L'\\') &&
           SameText(reported + expected - name.Length(), name.Length(), name.Text(), name.Length());
}

UniqueHandle OpenRelative(const HeldDirectory& directory, const WStr& name, uint32_t access,
                          uint32_t share, uint32_t disposition, uint32_t options) {
    UNICODE_STRING text;
    text.Buffer = const_cast<wchar_t*>(name.Text());
    text.Length = static_cast<USHORT>(name.Length() * sizeof(wchar_t));
    text.MaximumLength = text.Length;
    if (name.Length() == 0 || name.Length() > 32767 / sizeof(wchar_t)) {
        SetLastError(ERROR_INVALID_NAME);
        return UniqueHandle();
    }
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, directory.handle.Get(),
                               nullptr);
    IO_STATUS_BLOCK io;
    HANDLE file = nullptr;
    const NTSTATUS status = NtCreateFile(
        &file, access | SYNCHRONIZE, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL, share,
        disposition, options | FILE_OPEN_REPARSE_POINT | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (!NT_SUCCESS(status)) {
        Fail(status);
        return UniqueHandle();
    }
    return UniqueHandle(file);
}

// Notices name the file by the directory's path and the name; built only
// when somebody listens.
struct RelativePath {
    const HeldDirectory& directory;
    const WStr& name;
    Str operator()() const {
        Str path = directory.path;
        AppendPathComponent(path, Str::FromUtf16(name).Text());
        return path;
    }
};

} // namespace

bool OpenHeldDirectory(const Str& path, HeldDirectory& directory) {
    directory = HeldDirectory();
    const WStr platform = ToPlatformPath(path);
    if (platform.IsEmpty() && !path.IsEmpty())
        return false;
    // Without delete sharing, nobody can rename or delete it while it is held.
    UniqueHandle handle(CreateFileW(
        platform.Text(), FILE_LIST_DIRECTORY | FILE_TRAVERSE | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!handle)
        return false;
    auto info = std::make_unique<AllInformation>();
    FileFacts facts;
    const wchar_t* name = nullptr;
    uint32_t nameLength = 0;
    if (!QueryFile(handle.Get(), *info, facts, name, nameLength))
        return false;
    // The name the handle reports must be the path's own, without its drive.
    wchar_t full[kNameRoom];
    const DWORD fullLength = GetFullPathNameW(platform.Text(), kNameRoom, full, nullptr);
    const wchar_t* expected = full;
    uint32_t expectedLength = fullLength < kNameRoom ? fullLength : 0;
    if (expectedLength >= 4 && wcsncmp(expected, L"\\\\?\\", 4) == 0)
        expected += 4, expectedLength -= 4;
    if (expectedLength >= 2 && expected[1] == L':')
        expected += 2, expectedLength -= 2;
    while (expectedLength > 1 && expected[expectedLength - 1] == L'\\')
        --expectedLength;
    if ((facts.attributes & FILE_ATTRIBUTE_REPARSE_POINT) ||
        !(facts.attributes & FILE_ATTRIBUTE_DIRECTORY) || expectedLength == 0 ||
        !SameText(name, nameLength, expected, expectedLength)) {
        SetLastError(kErrorLinkRefused);
        return false;
    }
    directory.name = WStr(name, nameLength);
    directory.path = path;
    directory.handle = std::move(handle);
    return true;
}

UniqueHandle OpenInDirectory(const HeldDirectory& directory, const WStr& name, uint32_t access,
                             uint32_t share, uint32_t how, FileFacts* factsOut) {
    const bool create = (how & kCreateNew) != 0;
    uint32_t options = FILE_NON_DIRECTORY_FILE;
    if (how & kSequentialScan)
        options |= FILE_SEQUENTIAL_ONLY;
    UniqueHandle file;
    {
        std::optional<FileNotice> notice;
        if (create)
            notice.emplace(kFileOperationCreate, RelativePath{directory, name});
        file = OpenRelative(directory, name, access | FILE_READ_ATTRIBUTES, share,
                            create ? FILE_CREATE : FILE_OPEN, options);
    }
    if (!file)
        return file;
    AllInformation info;
    FileFacts facts;
    const wchar_t* reported = nullptr;
    uint32_t reportedLength = 0;
    if (!QueryFile(file.Get(), info, facts, reported, reportedLength)) {
        file.Reset();
        return file;
    }
    const bool reparse = (facts.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    if ((reparse && !(how & kAllowReparsePoint)) ||
        !NamedAsOpened(directory, name, reported, reportedLength)) {
        file.Reset();
        SetLastError(kErrorLinkRefused);
        return file;
    }
    if (factsOut != nullptr)
        *factsOut = facts;
    return file;
}

bool DeleteInDirectory(const HeldDirectory& directory, const WStr& name) {
    // A reparse point opened as itself is deleted as itself; a link the
    // platform followed is refused by the open.
    UniqueHandle file =
        OpenInDirectory(directory, name, DELETE,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, kAllowReparsePoint);
    if (!file)
        return false;
    FileNotice notice(kFileOperationDelete, RelativePath{directory, name});
    return DeleteOpenedFile(file.Get());
}

UniqueHandle CreateFreshFile(const HeldDirectory& directory, const WStr& name, uint32_t access,
                             uint32_t how, FileFacts* facts) {
    // A name planted between the deletion and the creation makes the creation
    // fail; one more round, then give up rather than write through it.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!DeleteInDirectory(directory, name) && GetLastError() != ERROR_FILE_NOT_FOUND)
            return UniqueHandle();
        UniqueHandle file =
            OpenInDirectory(directory, name, access, FILE_SHARE_READ, how | kCreateNew, facts);
        if (file || GetLastError() != ERROR_ALREADY_EXISTS)
            return file;
    }
    return UniqueHandle();
}

bool DeleteOpenedFile(HANDLE file) {
    FILE_DISPOSITION_INFO disposition = {TRUE};
    return SetFileInformationByHandle(file, FileDispositionInfo, &disposition,
                                      sizeof disposition) != FALSE;
}

bool RenameOpenedFile(HANDLE file, const HeldDirectory& directory, const WStr& name, bool replace) {
    const uint32_t bytes = name.Length() * sizeof(wchar_t);
    const size_t size = offsetof(FILE_RENAME_INFORMATION, FileName) + bytes;
    auto buffer = std::unique_ptr<char[]>(new (std::nothrow) char[size + sizeof(wchar_t)]);
    if (!buffer) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.get());
    rename->ReplaceIfExists = replace;
    // The target is named relative to the held directory, not by its path.
    rename->RootDirectory = directory.handle.Get();
    rename->FileNameLength = bytes;
    memcpy(rename->FileName, name.Text(), bytes);
    FileNotice notice(kFileOperationMove, FinalPath{file}, RelativePath{directory, name});
    IO_STATUS_BLOCK io;
    const NTSTATUS status =
        NtSetInformationFile(file, &io, rename, static_cast<ULONG>(size), FileRenameInformation);
    return NT_SUCCESS(status) || Fail(status);
}

bool GetFileFacts(HANDLE file, FileFacts& facts) {
    AllInformation info;
    const wchar_t* name = nullptr;
    uint32_t length = 0;
    return QueryFile(file, info, facts, name, length);
}

bool VisitDirectory(const HeldDirectory& directory, DirectoryVisitor visit, void* context) {
    auto buffer = std::unique_ptr<char[]>(new (std::nothrow) char[kListingBytes]);
    if (!buffer) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    FILE_INFO_BY_HANDLE_CLASS batch = FileFullDirectoryRestartInfo;
    while (
        GetFileInformationByHandleEx(directory.handle.Get(), batch, buffer.get(), kListingBytes)) {
        batch = FileFullDirectoryInfo;
        const char* at = buffer.get();
        for (;;) {
            const auto* entry = reinterpret_cast<const FILE_FULL_DIR_INFO*>(at);
            const DirectoryEntry visited = {
                entry->FileName, static_cast<uint32_t>(entry->FileNameLength / sizeof(wchar_t)),
                entry->FileAttributes};
            const bool dots =
                (visited.length == 1 && visited.name[0] == L'.') ||
                (visited.length == 2 && visited.name[0] == L'.' && visited.name[1] == L'.');
            if (!dots && !visit(context, visited))
                return true;
            if (entry->NextEntryOffset == 0)
                break;
            at += entry->NextEntryOffset;
        }
    }
    return GetLastError() == ERROR_NO_MORE_FILES;
}

bool EntryHasSuffix(const DirectoryEntry& entry, const wchar_t* suffix) {
    const uint32_t length = static_cast<uint32_t>(wcslen(suffix));
    return entry.length >= length &&
           SameText(entry.name + entry.length - length, length, suffix, length);
}
