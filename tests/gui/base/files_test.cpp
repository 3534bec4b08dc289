// File-system operations on real files in scratch directories.
#include <gtest/gtest.h>
#include <objbase.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "files.h"
#include "handles.h"
#include "private/seams.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

Str U8(const std::wstring& text) {
    return Str(Narrow(text).c_str());
}

std::string ReadText(const std::wstring& path) {
    std::string bytes;
    return ReadFileBytes(path, bytes) ? bytes : "<missing>";
}

// Holds a file open without FILE_SHARE_DELETE.
UniqueHandle Lock(const std::wstring& path) {
    return UniqueHandle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, 0, nullptr));
}

// Every notice as "operation phase path [second]", with "+" when the path exists then.
std::vector<std::string> g_notices;

void RecordNotice(uint32_t operation, uint32_t tag, uint32_t phase, const char* path,
                  const char* second) {
    const bool exists = GetFileAttributesW(Widen(path).c_str()) != INVALID_FILE_ATTRIBUTES;
    g_notices.push_back(std::to_string(operation) + " " + std::to_string(phase) + " " + path +
                        (second ? std::string(" ") + second : "") + (exists ? " +" : "") +
                        (tag == kFileOperationNoticeTag ? "" : " bad tag"));
    SetLastError(0xBAD); // the operations must not see this
}

// Stand-ins for the platform moves, to reach the fallbacks: each fails with its
// error, or (error 0) does the real move.
DWORD g_moveFileExError, g_moveFileError;
int g_moveFileCalls;

BOOL WINAPI ScriptedMoveFileEx(LPCWSTR source, LPCWSTR destination, DWORD flags) {
    SetLastError(g_moveFileExError);
    return g_moveFileExError == 0 && MoveFileExW(source, destination, flags);
}

BOOL WINAPI ScriptedMoveFile(LPCWSTR source, LPCWSTR destination) {
    ++g_moveFileCalls;
    SetLastError(g_moveFileError);
    return g_moveFileError == 0 && MoveFileW(source, destination);
}

} // namespace

TEST(Files, DeleteFilePath) {
    ScratchDir dir(L"files-delete");
    // Name, made (read-only), held open without delete sharing, force, result, last error
    // (0: not checked).
    const std::tuple<const wchar_t*, bool, bool, bool, bool, DWORD> cases[] = {
        {L"gone", false, false, true, true, 0},
        {L"no folder\\gone", false, false, true, true, 0}, // the folder is missing too
        {L"gone", false, false, false, false, ERROR_FILE_NOT_FOUND},
        {L"read-only", true, false, false, false, ERROR_ACCESS_DENIED},
        {L"read-only forced", true, false, true, true, 0},
        // The open for deletion fails before read-only matters.
        {L"held", true, true, true, false, ERROR_SHARING_VIOLATION}};
    for (const auto& [name, made, held, force, expected, error] : cases) {
        SCOPED_TRACE(Narrow(name) + (force ? " forced" : ""));
        const std::wstring path = dir.Join(name);
        ASSERT_TRUE(!made || (WriteFileBytes(path, "data") &&
                              SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY)));
        const UniqueHandle lock = held ? Lock(path) : UniqueHandle();
        ASSERT_EQ(lock.Valid(), held);
        SetLastError(0);
        EXPECT_EQ(DeleteFilePath(U8(path), force), expected);
        EXPECT_EQ(error ? GetLastError() : 0u, error);
        EXPECT_EQ(PathExists(path), made && !expected);
    }
}

// The platform's move first; where it is not implemented, a plain move, which
// neither replaces nor crosses volumes, then delete-and-retry or copy-and-delete.
TEST(Files, MoveFilePath) {
    ScratchDir dir(L"files-move");
    const FileSeams seams = {&ScriptedMoveFileEx, &ScriptedMoveFile};
    SetFileSeamsForTesting(&seams);
    constexpr DWORD kNone = ERROR_CALL_NOT_IMPLEMENTED, kCross = ERROR_NOT_SAME_DEVICE;
    // The platform's errors (0: real), setup ("s" source, "d" destination, "h" source held,
    // "f" fail-if-exists), result, last error (0: not checked), plain moves, destination
    // afterwards, source afterwards.
    const std::tuple<DWORD, DWORD, const char*, bool, DWORD, int, const char*, bool> cases[] = {
        {0, 0, "s", true, 0, 0, "source", false},
        {0, 0, "sd", true, 0, 0, "source", false},
        {0, 0, "sdf", false, ERROR_ALREADY_EXISTS, 0, "destination", true},
        // Only "not implemented" leads to the fallbacks.
        {ERROR_ACCESS_DENIED, 0, "s", false, ERROR_ACCESS_DENIED, 0, "<missing>", true},
        {kNone, 0, "s", true, 0, 1, "source", false},
        {kNone, 0, "sd", true, 0, 2, "source", false}, // delete the destination, then again
        {kNone, 0, "sdf", false, 0, 1, "destination", true},
        {kNone, ERROR_INVALID_NAME, "s", false, ERROR_INVALID_NAME, 1, "<missing>", true},
        // Across volumes: copy, then delete the source.
        {kNone, kCross, "s", true, 0, 1, "source", false},
        {kNone, kCross, "sdf", false, 0, 1, "destination", true},
        // A source that cannot be deleted: the copy is taken back.
        {kNone, kCross, "sh", false, ERROR_SHARING_VIOLATION, 1, "<missing>", true},
    };
    int row = 0;
    for (const auto& [exError, plainError, setup, expected, error, plainMoves, destinationAfter,
                      sourceAfter] : cases) {
        SCOPED_TRACE(++row);
        const auto has = [&](char flag) { return std::strchr(setup, flag) != nullptr; };
        const std::wstring source = dir.Join(std::to_wstring(row) + L".src"),
                           destination = dir.Join(std::to_wstring(row) + L".dst");
        ASSERT_TRUE(!has('s') || WriteFileBytes(source, "source"));
        ASSERT_TRUE(!has('d') || WriteFileBytes(destination, "destination"));
        std::tie(g_moveFileExError, g_moveFileError, g_moveFileCalls) =
            std::tuple(exError, plainError, 0);
        UniqueHandle lock = has('h') ? Lock(source) : UniqueHandle();
        ASSERT_EQ(lock.Valid(), has('h'));
        SetLastError(0);
        EXPECT_EQ(MoveFilePath(U8(source), U8(destination), has('f')), expected);
        EXPECT_EQ(error ? GetLastError() : 0u, error);
        lock.Reset();
        EXPECT_EQ(g_moveFileCalls, plainMoves);
        EXPECT_EQ(ReadText(destination), destinationAfter);
        EXPECT_EQ(PathExists(source), sourceAfter);
    }
    SetFileSeamsForTesting(nullptr);
}

// Changing operations announce themselves before and after, whatever the outcome.
TEST(Files, NoticesOrderAndPhases) {
    ScratchDir dir(L"files-notices");
    const std::string d = Narrow(dir.Path()) + "\\";
    const auto at = [&d](const char* name) { return Str((d + name).c_str()); };
    SetFileOperationHook(&RecordNotice);
    // Missing levels are created from the top down, none twice.
    EXPECT_TRUE(CreateDirectoryPath(at("a\\b\\c"), true, false));
    std::vector<std::string> created;
    for (const std::string& notice : g_notices) {
        EXPECT_EQ(notice.rfind("0 ", 0), 0u) << notice;
        EXPECT_FALSE(notice.rfind("0 1 ", 0) == 0 && notice.back() == '+') << notice;
        if (notice.rfind("0 2 ", 0) == 0 && notice.back() == '+')
            created.push_back(notice.substr(4, notice.size() - 6));
    }
    EXPECT_EQ(created, (std::vector<std::string>{d + "a", d + "a\\b", d + "a\\b\\c"}));

    g_notices.clear();
    ASSERT_TRUE(WriteFileBytes(dir.Join(L"f"), "old content"));
    EXPECT_TRUE(CreateEmptyFile(at("f"))); // truncates, and closes: movable at once
    EXPECT_EQ(ReadText(dir.Join(L"f")), "");
    EXPECT_TRUE(MoveFilePath(at("f"), at("g"), false));
    EXPECT_TRUE(FileExists(at("g")));
    EXPECT_TRUE(DeleteFilePath(at("g"), false));
    EXPECT_TRUE(DeleteFilePath(at("missing"), true)); // changes nothing, says nothing
    // Failures are announced all the same, and the hook keeps the caller's last error;
    // queries are not announced, nor is a path that is not UTF-8 handed on.
    const auto failure = [](bool result) { return result ? DWORD(-1) : GetLastError(); };
    EXPECT_EQ(failure(DeleteFilePath(at("missing"), false)), DWORD(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(failure(CreateEmptyFile(at("nodir\\x"))), DWORD(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(failure(FileExists(at("g"))), DWORD(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(failure(DeleteFilePath(Str("\xFF\xFE"), true)), DWORD(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_FALSE(FileExists(at("a"))); // a directory is no file
    EXPECT_TRUE(EnumerateFiles(at("*")).empty());
    const std::vector<std::string> expected = {
        "0 1 " + d + "f +",          "0 2 " + d + "f +",     "9 1 " + d + "f " + d + "g +",
        "9 2 " + d + "f " + d + "g", "2 1 " + d + "g +",     "2 2 " + d + "g",
        "2 1 " + d + "missing",      "2 2 " + d + "missing", "0 1 " + d + "nodir\\x",
        "0 2 " + d + "nodir\\x"};
    EXPECT_EQ(g_notices, expected);
    SetFileOperationHook(nullptr);
}

TEST(Files, EnumerateFilesSkipsDirectories) {
    ScratchDir dir(L"files-enum");
    for (const wchar_t* name : {L"a.pending", L"b.pending", L"c.msi", L"\u00e4\u20ac.pending"})
        ASSERT_TRUE(WriteFileBytes(dir.Join(name), ""));
    for (const wchar_t* name : {L"sub.pending", L"only", L"only\\x.pending", L"only\\y"})
        ASSERT_TRUE(CreateDirectoryW(dir.Join(name).c_str(), nullptr));
    // Pattern, the files found (sorted), last error (0: not checked).
    const std::tuple<const wchar_t*, std::set<std::string>, DWORD> cases[] = {
        {L"*.pending", {"a.pending", "b.pending", "\xC3\xA4\xE2\x82\xAC.pending"}, 0},
        {L"*", {"a.pending", "b.pending", "c.msi", "\xC3\xA4\xE2\x82\xAC.pending"}, 0},
        {L"only\\*", {}, 0},
        {L"*.result", {}, ERROR_FILE_NOT_FOUND},
        {L"nodir\\*.pending", {}, ERROR_PATH_NOT_FOUND}};
    for (const auto& [pattern, expected, error] : cases) {
        SCOPED_TRACE(Narrow(pattern));
        SetLastError(0);
        std::set<std::string> names;
        for (const Str& name : EnumerateFiles(U8(dir.Join(pattern))))
            names.insert(name.Text());
        EXPECT_EQ(error ? GetLastError() : 0u, error);
        EXPECT_EQ(names, expected);
    }
}

TEST(Files, IsValidFileName) {
    std::string wide255; // 255 characters of two, three and four bytes each
    for (int i = 0; i < 85; ++i)
        wide255 += "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
    std::vector<std::string> valid = {"A.msi", ".x", "x.", "a b", "a\x7F", std::string(255, 'n'),
                                      wide255};
    std::vector<std::string> invalid = {
        "a:b", "...", ".", "..", "", "a\x01", "a\x1F", "a\t", std::string(256, 'n'), wide255 + "x"};
    for (char forbidden : std::string("?*<>|\":\\/"))
        invalid.push_back(std::string("a") + forbidden + "b");
    for (const auto& [names, isValid] : {std::pair{&valid, true}, {&invalid, false}})
        for (const std::string& name : *names)
            EXPECT_EQ(IsValidFileName(name.c_str(), 255), isValid) << name;
    EXPECT_FALSE(IsValidFileName(static_cast<const char*>(nullptr), 255));
    // Maxima count characters; a multi-byte character makes a name of dots valid.
    for (const auto& [name, maximum, isValid] : {std::tuple{"abc", 3u, true},
                                                 {"abcd", 3u, false},
                                                 {"\xC3\xA4", 1u, true},
                                                 {"\xC3\xA4.", 1u, false},
                                                 {"..\xC3\xA4", 3u, true}})
        EXPECT_EQ(IsValidFileName(name, maximum), isValid) << name;
}

// The two folders, from a thread without COM, in a multi-threaded and in a
// single-threaded apartment, leaving the thread's apartment as it was.
TEST(Files, GetWellKnownDirectoryInAnyApartment) {
    for (int apartment : {-1, int(COINIT_MULTITHREADED), int(COINIT_APARTMENTTHREADED)}) {
        SCOPED_TRACE(apartment);
        std::thread([apartment] {
            if (apartment >= 0) {
                ASSERT_EQ(CoInitializeEx(nullptr, apartment), S_OK);
            }
            EXPECT_STREQ(GetWellKnownDirectory(22).Text(), "C:\\ProgramData");
            EXPECT_STREQ(GetWellKnownDirectory(23).Text(), "C:\\Program Files");
            SetLastError(0);
            EXPECT_TRUE(GetWellKnownDirectory(7).IsEmpty());
            EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
            const HRESULT again = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            if (apartment == COINIT_APARTMENTTHREADED) {
                EXPECT_EQ(again, RPC_E_CHANGED_MODE);
            } else {
                EXPECT_EQ(again, apartment < 0 ? S_OK : S_FALSE);
                CoUninitialize();
            }
            if (apartment >= 0)
                CoUninitialize();
        }).join();
    }
}

// With the long-path switch on, absolute drive and root paths get the extended
// form of their full path; everything else, and every path with it off, is
// converted as it is.
TEST(Files, ToPlatformPathAndTheLongPathSwitch) {
    wchar_t drive[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, drive);
    const std::string root = Narrow(std::wstring(drive, 2)), name(300, 'n');
    const std::tuple<bool, std::string, std::string> cases[] = {
        {true, "C:\\a\\..\\b", "\\\\?\\C:\\b"},
        {true, "c:/a/b", "\\\\?\\c:\\a\\b"},
        {true, "\\x", "\\\\?\\" + root + "\\x"},
        {true, "C:\\" + name, "\\\\?\\C:\\" + name},
        {true, "\\\\server\\share", "\\\\server\\share"},
        {true, "rel\\x", "rel\\x"},
        {true, "C:", "C:"},
        {true, "", ""},
        {false, "C:/a/../b", "C:/a/../b"}};
    for (const auto& [enabled, path, expected] : cases) {
        SetLongPathsEnabled(enabled);
        const WStr platform = ToPlatformPath(Str(path.c_str()));
        EXPECT_EQ(Narrow(std::wstring(platform.Text(), platform.Length())), expected) << path;
    }
    SetLongPathsEnabled(false);
}
