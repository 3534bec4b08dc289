// File-system operations on real files in scratch directories.
#include <gtest/gtest.h>
#include <objbase.h>
#include <shlobj.h>

#include <string>
#include <thread>
#include <vector>

#include "files.h"
#include "testsupport.h"

using testsupport::Narrow;
using testsupport::PathExists;
using testsupport::ReadFileBytes;
using testsupport::ScratchDir;
using testsupport::Widen;
using testsupport::WriteFileBytes;

namespace {

Str U8(const std::wstring& text) {
    return Str(Narrow(text).c_str());
}

bool IsDirectory(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::string ReadText(const std::wstring& path) {
    std::string bytes;
    return ReadFileBytes(path, bytes) ? bytes : std::string("<missing>");
}

// Records every notice; phase-2 entries also say whether the path exists then.
struct Notice {
    uint32_t operation;
    uint32_t tag;
    uint32_t phase;
    std::string path;
    std::string second; // "<null>" when absent
    bool existsAfter;
};
std::vector<Notice> g_notices;

void RecordNotice(uint32_t operation, uint32_t tag, uint32_t phase, const char* path,
                  const char* second) {
    const bool exists = GetFileAttributesW(Widen(path).c_str()) != INVALID_FILE_ATTRIBUTES;
    g_notices.push_back({operation, tag, phase, path, second ? second : "<null>", exists});
    SetLastError(0xBAD); // the operations must not see this
}

class HookScope {
  public:
    HookScope() {
        g_notices.clear();
        SetFileOperationHook(&RecordNotice);
    }
    ~HookScope() { SetFileOperationHook(nullptr); }
};

class LongPathScope {
  public:
    explicit LongPathScope(bool on) { SetLongPathsEnabled(on); }
    ~LongPathScope() { SetLongPathsEnabled(false); }
};

// Holds a file open without FILE_SHARE_DELETE.
class Locker {
  public:
    explicit Locker(const std::wstring& path)
        : m_handle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                               nullptr, OPEN_EXISTING, 0, nullptr)) {}
    ~Locker() {
        if (m_handle != INVALID_HANDLE_VALUE)
            CloseHandle(m_handle);
    }
    bool Valid() const { return m_handle != INVALID_HANDLE_VALUE; }

  private:
    HANDLE m_handle;
};

} // namespace

TEST(CreateDirectoryPath, OutcomesAndErrors) {
    ScratchDir dir(L"files-mkdir");
    ASSERT_TRUE(CreateDirectoryW(dir.Join(L"existing").c_str(), nullptr));
    ASSERT_TRUE(WriteFileBytes(dir.Join(L"file"), "x"));
    struct Case {
        const wchar_t* name;
        bool withParents;
        bool quiet;
        bool expected;
        DWORD error; // 0: not checked (success)
        bool directoryAfter;
    } cases[] = {
        {L"existing", false, false, true, ERROR_ALREADY_EXISTS, true},
        {L"existing", true, true, true, ERROR_ALREADY_EXISTS, true},
        // Without parents and quiet, any failed creation is final.
        {L"existing", false, true, false, ERROR_ALREADY_EXISTS, true},
        {L"file", false, false, false, ERROR_ALREADY_EXISTS, false},
        {L"file", true, false, false, ERROR_ALREADY_EXISTS, false},
        {L"file\\below", true, false, false, 0, false},
        {L"fresh", false, false, true, 0, true},
        {L"missing\\child", false, false, false, ERROR_PATH_NOT_FOUND, false},
        {L"missing2\\child", false, true, false, ERROR_PATH_NOT_FOUND, false},
        {L"deep\\er\\still", true, false, true, 0, true},
        {L"trailing\\sep\\", true, true, true, 0, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.name));
        const std::wstring path = dir.Join(c.name);
        SetLastError(0);
        EXPECT_EQ(CreateDirectoryPath(U8(path), c.withParents, c.quiet), c.expected);
        if (c.error != 0) {
            EXPECT_EQ(GetLastError(), c.error);
        }
        EXPECT_EQ(IsDirectory(path), c.directoryAfter);
    }
    EXPECT_FALSE(IsDirectory(dir.Join(L"missing")));
}

TEST(CreateDirectoryPath, ParentsAreCreatedTopDown) {
    ScratchDir dir(L"files-parents");
    HookScope hook;
    const std::wstring leaf = dir.Join(L"a\\b\\c");
    ASSERT_TRUE(CreateDirectoryPath(U8(leaf), true, false));
    std::vector<std::string> created;
    for (size_t i = 0; i < g_notices.size(); ++i) {
        const Notice& n = g_notices[i];
        EXPECT_EQ(n.operation, kFileOperationCreate);
        EXPECT_EQ(n.tag, 60u);
        EXPECT_EQ(n.phase, i % 2 == 0 ? 1u : 2u);
        if (n.phase == 1)
            EXPECT_FALSE(n.existsAfter) << n.path; // never re-creates an existing level
        else if (n.existsAfter)
            created.push_back(n.path);
    }
    const std::vector<std::string> expected = {Narrow(dir.Join(L"a")), Narrow(dir.Join(L"a\\b")),
                                               Narrow(dir.Join(L"a\\b\\c"))};
    EXPECT_EQ(created, expected);
    EXPECT_TRUE(IsDirectory(leaf));
}

TEST(CreateEmptyFile, CreatesAndTruncates) {
    ScratchDir dir(L"files-empty");
    const std::wstring path = dir.Join(L"e.pending");
    ASSERT_TRUE(WriteFileBytes(path, "old content"));
    EXPECT_TRUE(CreateEmptyFile(U8(path)));
    EXPECT_EQ(ReadText(path), "");
    EXPECT_TRUE(FileExists(U8(path)));

    const std::wstring fresh = dir.Join(L"fresh");
    EXPECT_TRUE(CreateEmptyFile(U8(fresh)));
    EXPECT_EQ(ReadText(fresh), "");
    // The handle is closed: the file can be deleted at once.
    EXPECT_TRUE(DeleteFileW(fresh.c_str()));

    SetLastError(0);
    EXPECT_FALSE(CreateEmptyFile(U8(dir.Join(L"nodir\\x"))));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
}

TEST(FileExists, FilesOnly) {
    ScratchDir dir(L"files-exists");
    ASSERT_TRUE(WriteFileBytes(dir.Join(L"f"), "1"));
    ASSERT_TRUE(CreateDirectoryW(dir.Join(L"d").c_str(), nullptr));
    EXPECT_TRUE(FileExists(U8(dir.Join(L"f"))));
    EXPECT_FALSE(FileExists(U8(dir.Join(L"d"))));
    SetLastError(0);
    EXPECT_FALSE(FileExists(U8(dir.Join(L"none"))));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(FileExists(Str()));
    // A path that is not UTF-8 is never handed to the platform.
    SetLastError(0);
    EXPECT_FALSE(FileExists(Str("\xFF\xFE")));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_UNICODE_TRANSLATION));
}

TEST(DeleteFilePath, ForceAndErrors) {
    ScratchDir dir(L"files-delete");
    enum Setup { Missing, Plain, ReadOnly, MissingDirectory };
    struct Case {
        const char* name;
        Setup setup;
        bool force;
        bool expected;
        DWORD error; // 0: not checked
    } cases[] = {
        {"missing forced", Missing, true, true, 0},
        {"missing unforced", Missing, false, false, ERROR_FILE_NOT_FOUND},
        {"missing directory forced", MissingDirectory, true, true, 0},
        {"missing directory unforced", MissingDirectory, false, false, ERROR_PATH_NOT_FOUND},
        {"plain unforced", Plain, false, true, 0},
        {"plain forced", Plain, true, true, 0},
        {"read-only unforced", ReadOnly, false, false, ERROR_ACCESS_DENIED},
        {"read-only forced", ReadOnly, true, true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::wstring path = dir.Join(Widen(c.name));
        if (c.setup == MissingDirectory)
            path = dir.Join(L"nodir\\x");
        if (c.setup == Plain || c.setup == ReadOnly) {
            ASSERT_TRUE(WriteFileBytes(path, "data"));
        }
        if (c.setup == ReadOnly) {
            ASSERT_TRUE(SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY));
        }
        SetLastError(0);
        EXPECT_EQ(DeleteFilePath(U8(path), c.force), c.expected);
        if (c.error != 0) {
            EXPECT_EQ(GetLastError(), c.error);
        }
        if (c.expected) {
            EXPECT_FALSE(PathExists(path));
        } else if (c.setup == ReadOnly) {
            EXPECT_TRUE(PathExists(path));
        }
    }
}

TEST(DeleteFilePath, LockedFileFailsWithSharingViolation) {
    ScratchDir dir(L"files-locked");
    const std::wstring path = dir.Join(L"held.msi");
    ASSERT_TRUE(WriteFileBytes(path, "pkg"));
    ASSERT_TRUE(SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
    {
        Locker lock(path);
        ASSERT_TRUE(lock.Valid());
        for (bool force : {false, true}) {
            SCOPED_TRACE(force);
            SetLastError(0);
            EXPECT_FALSE(DeleteFilePath(U8(path), force));
            // The open for deletion fails before the read-only bit matters.
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
        }
        // The forced attempt cleared read-only but kept the other settable attributes.
        const DWORD attributes = GetFileAttributesW(path.c_str());
        EXPECT_EQ(attributes & FILE_ATTRIBUTE_READONLY, 0u);
        EXPECT_NE(attributes & FILE_ATTRIBUTE_HIDDEN, 0u);
        EXPECT_TRUE(PathExists(path));
    }
    EXPECT_TRUE(DeleteFilePath(U8(path), false));
    EXPECT_FALSE(PathExists(path));
}

TEST(MoveFilePath, ReplaceAndFailIfExists) {
    ScratchDir dir(L"files-move");
    enum Setup { NewDestination, ExistingDestination, MissingSource };
    struct Case {
        const char* name;
        Setup setup;
        bool failIfExists;
        bool expected;
        DWORD error; // 0: not checked
        const char* destinationAfter;
        bool sourceAfter;
    } cases[] = {
        {"new", NewDestination, false, true, 0, "source", false},
        {"new fail-if-exists", NewDestination, true, true, 0, "source", false},
        {"replace", ExistingDestination, false, true, 0, "source", false},
        {"existing fail-if-exists", ExistingDestination, true, false, ERROR_ALREADY_EXISTS,
         "destination", true},
        {"missing source", MissingSource, false, false, ERROR_FILE_NOT_FOUND, "<missing>", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::wstring source = dir.Join(Widen(c.name) + L".src");
        const std::wstring destination = dir.Join(Widen(c.name) + L".dst");
        if (c.setup != MissingSource) {
            ASSERT_TRUE(WriteFileBytes(source, "source"));
        }
        if (c.setup == ExistingDestination) {
            ASSERT_TRUE(WriteFileBytes(destination, "destination"));
        }
        SetLastError(0);
        EXPECT_EQ(MoveFilePath(U8(source), U8(destination), c.failIfExists), c.expected);
        if (c.error != 0) {
            EXPECT_EQ(GetLastError(), c.error);
        }
        EXPECT_EQ(ReadText(destination), c.destinationAfter);
        EXPECT_EQ(PathExists(source), c.sourceAfter);
    }
}

namespace {

// Stand-ins for the platform moves, to reach the fallbacks.
DWORD g_moveFileExError;
DWORD g_moveFileError; // 0: the real MoveFileW
int g_moveFileCalls;

BOOL WINAPI FailingMoveFileEx(LPCWSTR, LPCWSTR, DWORD) {
    SetLastError(g_moveFileExError);
    return FALSE;
}

BOOL WINAPI ScriptedMoveFile(LPCWSTR source, LPCWSTR destination) {
    ++g_moveFileCalls;
    if (g_moveFileError == 0)
        return MoveFileW(source, destination);
    SetLastError(g_moveFileError);
    return FALSE;
}

class MoveFunctionsScope {
  public:
    MoveFunctionsScope() {
        const FileMoveFunctions functions = {&FailingMoveFileEx, &ScriptedMoveFile};
        SetFileMoveFunctionsForTesting(&functions);
    }
    ~MoveFunctionsScope() { SetFileMoveFunctionsForTesting(nullptr); }
};

} // namespace

TEST(MoveFilePath, Fallbacks) {
    ScratchDir dir(L"files-fallback");
    MoveFunctionsScope scope;
    struct Case {
        const char* name;
        DWORD moveFileExError;
        DWORD moveFileError; // 0: real plain move
        bool destinationExists;
        bool failIfExists;
        bool lockSource;
        bool expected;
        DWORD error; // 0: not checked
        int plainMoves;
        const char* destinationAfter;
        bool sourceAfter;
    } cases[] = {
        // Only "not implemented" leads to the fallbacks.
        {"other error", ERROR_ACCESS_DENIED, 0, false, false, false, false, ERROR_ACCESS_DENIED, 0,
         "<missing>", true},
        {"plain move", ERROR_CALL_NOT_IMPLEMENTED, 0, false, false, false, true, 0, 1, "source",
         false},
        // The plain move does not replace: the destination is deleted and the move retried.
        {"plain replace", ERROR_CALL_NOT_IMPLEMENTED, 0, true, false, false, true, 0, 2, "source",
         false},
        {"plain fail-if-exists", ERROR_CALL_NOT_IMPLEMENTED, 0, true, true, false, false, 0, 1,
         "destination", true},
        {"plain other error", ERROR_CALL_NOT_IMPLEMENTED, ERROR_INVALID_NAME, false, false, false,
         false, ERROR_INVALID_NAME, 1, "<missing>", true},
        // Across volumes: copy, then delete the source.
        {"cross device", ERROR_CALL_NOT_IMPLEMENTED, ERROR_NOT_SAME_DEVICE, false, false, false,
         true, 0, 1, "source", false},
        {"cross device replace", ERROR_CALL_NOT_IMPLEMENTED, ERROR_NOT_SAME_DEVICE, true, false,
         false, true, 0, 1, "source", false},
        {"cross device fail-if-exists", ERROR_CALL_NOT_IMPLEMENTED, ERROR_NOT_SAME_DEVICE, true,
         true, false, false, 0, 1, "destination", true},
        // A source that cannot be deleted: the copy is taken back.
        {"cross device source held", ERROR_CALL_NOT_IMPLEMENTED, ERROR_NOT_SAME_DEVICE, false,
         false, true, false, ERROR_SHARING_VIOLATION, 1, "<missing>", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::wstring source = dir.Join(Widen(c.name) + L".src");
        const std::wstring destination = dir.Join(Widen(c.name) + L".dst");
        ASSERT_TRUE(WriteFileBytes(source, "source"));
        if (c.destinationExists) {
            ASSERT_TRUE(WriteFileBytes(destination, "destination"));
        }
        g_moveFileExError = c.moveFileExError;
        g_moveFileError = c.moveFileError;
        g_moveFileCalls = 0;
        bool result;
        {
            Locker lock(c.lockSource ? source : std::wstring());
            ASSERT_EQ(lock.Valid(), c.lockSource);
            SetLastError(0);
            result = MoveFilePath(U8(source), U8(destination), c.failIfExists);
            if (c.error != 0) {
                EXPECT_EQ(GetLastError(), c.error);
            }
        }
        EXPECT_EQ(result, c.expected);
        EXPECT_EQ(g_moveFileCalls, c.plainMoves);
        EXPECT_EQ(ReadText(destination), c.destinationAfter);
        EXPECT_EQ(PathExists(source), c.sourceAfter);
    }
}

TEST(FileOperationNotices, OrderAndPhases) {
    ScratchDir dir(L"files-notices");
    const std::string d = Narrow(dir.Join(L"d"));
    const std::string f = Narrow(dir.Join(L"f"));
    const std::string g = Narrow(dir.Join(L"g"));
    const std::string missing = Narrow(dir.Join(L"missing"));
    {
        HookScope hook;
        EXPECT_TRUE(CreateDirectoryPath(Str(d.c_str()), false, false));
        EXPECT_TRUE(CreateEmptyFile(Str(f.c_str())));
        EXPECT_TRUE(MoveFilePath(Str(f.c_str()), Str(g.c_str()), false));
        EXPECT_TRUE(DeleteFilePath(Str(g.c_str()), false));
        // A forced delete of a missing file changes nothing and says nothing.
        EXPECT_TRUE(DeleteFilePath(Str(missing.c_str()), true));
        // Failing calls are announced all the same, and the hook does not touch
        // the caller's last error.
        SetLastError(0);
        EXPECT_FALSE(DeleteFilePath(Str(missing.c_str()), false));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
        // Queries are not announced.
        EXPECT_FALSE(FileExists(Str(g.c_str())));
        EXPECT_TRUE(EnumerateFiles(Str((Narrow(dir.Path()) + "\\*").c_str())).empty());
    }
    struct Expected {
        uint32_t operation;
        uint32_t phase;
        std::string path;
        std::string second;
        bool existsAfter;
    } expected[] = {
        {0, 1, d, "<null>", false},
        {0, 2, d, "<null>", true},
        {0, 1, f, "<null>", false},
        {0, 2, f, "<null>", true},
        {9, 1, f, g, true},
        {9, 2, f, g, false},
        {2, 1, g, "<null>", true},
        {2, 2, g, "<null>", false},
        {2, 1, missing, "<null>", false},
        {2, 2, missing, "<null>", false},
    };
    ASSERT_EQ(g_notices.size(), std::size(expected));
    for (size_t i = 0; i < g_notices.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(g_notices[i].operation, expected[i].operation);
        EXPECT_EQ(g_notices[i].tag, 60u);
        EXPECT_EQ(g_notices[i].phase, expected[i].phase);
        EXPECT_EQ(g_notices[i].path, expected[i].path);
        EXPECT_EQ(g_notices[i].second, expected[i].second);
        EXPECT_EQ(g_notices[i].existsAfter, expected[i].existsAfter);
    }
}

TEST(EnumerateFiles, FilesMatchingThePattern) {
    ScratchDir dir(L"files-enum");
    for (const wchar_t* name : {L"a.pending", L"b.pending", L"c.msi", L"\u00e4\u20ac.pending"})
        ASSERT_TRUE(WriteFileBytes(dir.Join(name), ""));
    ASSERT_TRUE(CreateDirectoryW(dir.Join(L"sub.pending").c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW(dir.Join(L"only").c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW(dir.Join(L"only\\x.pending").c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW(dir.Join(L"only\\y").c_str(), nullptr));

    // The platform's own listing, files only, in its order.
    auto platformFiles = [](const std::wstring& pattern) {
        std::vector<std::string> names;
        WIN32_FIND_DATAW data;
        HANDLE find = FindFirstFileW(pattern.c_str(), &data);
        if (find == INVALID_HANDLE_VALUE)
            return names;
        do {
            if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                names.push_back(Narrow(data.cFileName));
        } while (FindNextFileW(find, &data));
        FindClose(find);
        return names;
    };
    struct Case {
        std::wstring pattern;
        size_t count;
        DWORD error; // 0: not checked
    } cases[] = {
        {dir.Join(L"*.pending"), 3, 0},
        {dir.Join(L"*"), 4, 0},
        {dir.Join(L"only\\*"), 0, 0},
        {dir.Join(L"only\\*.pending"), 0, 0},
        {dir.Join(L"*.result"), 0, ERROR_FILE_NOT_FOUND},
        {dir.Join(L"nodir\\*.pending"), 0, ERROR_PATH_NOT_FOUND},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.pattern));
        SetLastError(0);
        const std::vector<Str> found = EnumerateFiles(U8(c.pattern));
        if (c.error != 0) {
            EXPECT_EQ(GetLastError(), c.error);
        }
        std::vector<std::string> names;
        for (const Str& name : found)
            names.push_back(name.Text());
        EXPECT_EQ(names.size(), c.count);
        EXPECT_EQ(names, platformFiles(c.pattern));
    }
}

TEST(IsValidFileName, Rules) {
    const std::string max255(255, 'n');
    const std::string max256(256, 'n');
    // 255 characters of two, three and four bytes each.
    std::string wide255;
    for (int i = 0; i < 85; ++i)
        wide255 += "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
    struct Case {
        std::string name;
        uint32_t maximum;
        bool valid;
    } cases[] = {
        {"A.msi", 255, true},    {"a:b", 255, false},
        {"...", 255, false},     {".", 255, false},
        {"..", 255, false},      {"", 255, false},
        {".x", 255, true},       {"x.", 255, true},
        {max255, 255, true},     {max256, 255, false},
        {"abc", 3, true},        {"abcd", 3, false},
        {wide255, 255, true},    {wide255 + "x", 255, false},
        {"\xC3\xA4", 1, true},   {"\xC3\xA4.", 1, false},
        {"..\xC3\xA4", 3, true}, // a multi-byte character makes a name of dots valid
        {"a\x01", 255, false},   {"a\x1F", 255, false},
        {"a\t", 255, false},     {"a\x7F", 255, true},
        {"a b", 255, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(IsValidFileName(c.name.c_str(), c.maximum), c.valid);
    }
    for (char forbidden : std::string("?*<>|\":\\/")) {
        SCOPED_TRACE(forbidden);
        EXPECT_FALSE(IsValidFileName((std::string("a") + forbidden + "b").c_str(), 255));
    }
    EXPECT_FALSE(IsValidFileName(static_cast<const char*>(nullptr), 255));
    EXPECT_FALSE(IsValidFileName(Str(), 255));
}

TEST(PathHelpers, Table) {
    struct Case {
        const char* path;
        const char* fileName;
        const char* stem;
        const char* directory;
    } cases[] = {
        {"C:\\ProgramData\\korvanta.plugin\\A.pending", "A.pending", "A",
         "C:\\ProgramData\\korvanta.plugin"},
        {"C:\\x\\A.b.msi", "A.b.msi", "A.b", "C:\\x"},
        {"C:/x/y", "y", "y", "C:/x"},
        {"C:\\x/y.z", "y.z", "y", "C:\\x"},
        {"C:\\a", "a", "a", "C:\\"},
        {"C:\\", "", "", ""},
        {"\\a", "a", "a", "\\"},
        {"\\", "", "", ""},
        {"a\\b\\", "", "", "a"},
        {"a\\\\b", "b", "b", "a"},
        {"name.ext", "name.ext", "name", ""},
        {".hidden", ".hidden", "", ""},
        {"", "", "", ""},
        {"\\\\server\\share\\f", "f", "f", "\\\\server\\share"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        const Str path(c.path);
        EXPECT_STREQ(PathFileName(path).Text(), c.fileName);
        EXPECT_STREQ(PathStem(path).Text(), c.stem);
        EXPECT_STREQ(PathDirectory(path).Text(), c.directory);
    }

    struct AppendCase {
        const char* path;
        const char* component;
        const char* expected;
    } appends[] = {
        {"C:\\Program Files", "Korvanta", "C:\\Program Files\\Korvanta"},
        {"C:\\", "Korvanta", "C:\\Korvanta"},
        {"C:/x/", "y", "C:/x/y"},
        {"a", "", "a\\"},
        {"", "b", "b"},
    };
    for (const AppendCase& c : appends) {
        SCOPED_TRACE(c.path);
        Str path(c.path);
        EXPECT_TRUE(AppendPathComponent(path, c.component));
        EXPECT_STREQ(path.Text(), c.expected);
    }
    Str shared("C:\\x");
    const Str copy = shared;
    EXPECT_TRUE(AppendPathComponent(shared, "y"));
    EXPECT_STREQ(copy.Text(), "C:\\x"); // a shared text is never changed
    SetLastError(0);
    EXPECT_FALSE(AppendPathComponent(shared, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_STREQ(shared.Text(), "C:\\x\\y");
}

TEST(ToPlatformPath, LongPathSwitch) {
    wchar_t current[MAX_PATH];
    ASSERT_GT(GetCurrentDirectoryW(MAX_PATH, current), 2u);
    const std::wstring drive(current, 2); // "X:"
    struct Case {
        const char* path;
        std::wstring off;
        std::wstring on;
    } cases[] = {
        {"C:\\a\\b", L"C:\\a\\b", L"\\\\?\\C:\\a\\b"},
        {"C:/a/b", L"C:/a/b", L"\\\\?\\C:\\a\\b"},
        {"C:\\a\\.\\b\\..\\c", L"C:\\a\\.\\b\\..\\c", L"\\\\?\\C:\\a\\c"},
        {"\\a\\b", L"\\a\\b", L"\\\\?\\" + drive + L"\\a\\b"},
        {"/a", L"/a", L"\\\\?\\" + drive + L"\\a"},
        {"a\\b", L"a\\b", L"a\\b"},
        {"C:a", L"C:a", L"C:a"},
        {"\\\\server\\share\\x", L"\\\\server\\share\\x", L"\\\\server\\share\\x"},
        {"//server/share", L"//server/share", L"//server/share"},
        {"\\\\?\\C:\\x", L"\\\\?\\C:\\x", L"\\\\?\\C:\\x"},
        {"\\", L"\\", L"\\"},
        {"", L"", L""},
        {"C:\\\xC3\xA4", L"C:\\\u00e4", L"\\\\?\\C:\\\u00e4"},
    };
    ASSERT_FALSE(LongPathsEnabled());
    for (bool on : {false, true}) {
        LongPathScope scope(on);
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.path) + (on ? " on" : " off"));
            const WStr platform = ToPlatformPath(Str(c.path));
            EXPECT_EQ(std::wstring(platform.Text(), platform.Length()), on ? c.on : c.off);
        }
    }
    EXPECT_FALSE(LongPathsEnabled());
}

TEST(ToPlatformPath, LongPathsWork) {
    ScratchDir dir(L"files-long");
    LongPathScope scope(true);
    std::wstring deep = dir.Path();
    while (deep.size() < 400)
        deep += L"\\" + std::wstring(60, L'd');
    const Str directory = U8(deep);
    ASSERT_TRUE(CreateDirectoryPath(directory, true, false)) << GetLastError();
    Str file = directory;
    ASSERT_TRUE(AppendPathComponent(file, "A.pending"));
    Str moved = directory;
    ASSERT_TRUE(AppendPathComponent(moved, "A.result"));
    EXPECT_TRUE(CreateEmptyFile(file));
    EXPECT_TRUE(FileExists(file));
    Str pattern = directory;
    ASSERT_TRUE(AppendPathComponent(pattern, "*.pending"));
    const std::vector<Str> found = EnumerateFiles(pattern);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_STREQ(found[0].Text(), "A.pending");
    EXPECT_TRUE(MoveFilePath(file, moved, true));
    EXPECT_FALSE(FileExists(file));
    EXPECT_TRUE(DeleteFilePath(moved, true));
    EXPECT_FALSE(FileExists(moved));
}

namespace {

Str ShellFolder(int csidl) {
    wchar_t buffer[MAX_PATH] = {};
    if (!SHGetSpecialFolderPathW(nullptr, buffer, csidl, FALSE))
        return Str();
    return Str(Narrow(buffer).c_str());
}

// Runs the lookups on a fresh thread in the given apartment (-1: no COM).
void LookUpOnThread(int apartment) {
    std::thread worker([apartment] {
        HRESULT initialised = S_FALSE;
        if (apartment >= 0) {
            ASSERT_EQ(CoInitializeEx(nullptr, apartment), S_OK);
        }
        struct {
            uint32_t number;
            int csidl;
        } folders[] = {{22, CSIDL_COMMON_APPDATA}, {23, CSIDL_PROGRAM_FILES}};
        for (const auto& f : folders) {
            SCOPED_TRACE(f.number);
            const Str found = GetWellKnownDirectory(f.number);
            EXPECT_FALSE(found.IsEmpty());
            EXPECT_STREQ(found.Text(), ShellFolder(f.csidl).Text());
        }
        SetLastError(0);
        EXPECT_TRUE(GetWellKnownDirectory(7).IsEmpty());
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        // The thread's apartment is as it was: the lookup balanced its own initialisation.
        initialised = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        if (apartment == COINIT_APARTMENTTHREADED) {
            EXPECT_EQ(initialised, RPC_E_CHANGED_MODE);
        } else {
            EXPECT_EQ(initialised, apartment < 0 ? S_OK : S_FALSE);
            CoUninitialize();
        }
        if (apartment >= 0)
            CoUninitialize();
    });
    worker.join();
}

} // namespace

TEST(GetWellKnownDirectory, MatchesShellFolders) {
    EXPECT_STREQ(ShellFolder(CSIDL_COMMON_APPDATA).Text(), "C:\\ProgramData");
    for (int apartment :
         {-1, static_cast<int>(COINIT_MULTITHREADED), static_cast<int>(COINIT_APARTMENTTHREADED)}) {
        SCOPED_TRACE(apartment);
        LookUpOnThread(apartment);
    }
}
