// Registry access against the real registry of the test prefix, below keys
// unique to the run that are removed afterwards.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "registry.h"
#include "report.h"
#include "testsupport.h"

using testsupport::Narrow;
using testsupport::Widen;

namespace {

constexpr DWORD kUntouched = 0xDEADu;

std::wstring UniqueName(const wchar_t* stem) {
    static unsigned sequence = 0;
    return stem + (L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                   std::to_wstring(GetTickCount64()) + L"-" + std::to_wstring(++sequence));
}

// Creates the key and, with a type, sets a value (a text with its terminator when bytes < 0).
void SetRaw(HKEY root, const std::wstring& subkey, const wchar_t* name = nullptr, DWORD type = 0,
            const std::wstring& data = L"", int bytes = -1) {
    UniqueRegKey key;
    ASSERT_EQ(RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              key.Put(), nullptr),
              0);
    ASSERT_TRUE(type == 0 || RegSetValueExW(key.Get(), name, 0, type,
                                            reinterpret_cast<const BYTE*>(data.c_str()),
                                            bytes < 0 ? DWORD(data.size() + 1) * 2 : bytes) == 0);
}

// "type:size:text" of a value as stored, or "" when there is none.
std::string Raw(HKEY root, const std::wstring& subkey, const wchar_t* name) {
    wchar_t data[4096] = {};
    DWORD type = 0, size = sizeof data;
    if (RegGetValueW(root, subkey.c_str(), name, RRF_RT_ANY | RRF_NOEXPAND, &type, data, &size))
        return "";
    return std::to_string(type) + ":" + std::to_string(size) + ":" + Narrow(data);
}

// Every test works below this key; it and the other keys named here go at the end.
const std::wstring kUser = L"Software\\" + UniqueName(L"KorvantaTest");
struct Cleanup {
    std::vector<std::pair<HKEY, std::wstring>> keys = {{HKEY_CURRENT_USER, kUser}};
    ~Cleanup() {
        for (const auto& [root, subkey] : keys)
            RegDeleteTreeW(root, subkey.c_str());
    }
} g_cleanup;

std::string UserPath(const std::wstring& tail = L"") {
    return Narrow(L"HKEY_CURRENT_USER\\" + kUser + (tail.empty() ? L"" : L"\\" + tail));
}

} // namespace

TEST(Registry, Parse) {
    const std::string app = std::string("Software\\Korvanta\\") + GetModuleBaseName().Text();
    // Path, subpath, then "machine|root|subkey".
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {"HKEY_LOCAL_MACHINE\\SOFTWARE", nullptr, "|HKEY_LOCAL_MACHINE|SOFTWARE"},
        {"\\\\server7\\HKEY_USERS\\.DEFAULT", nullptr, "server7|HKEY_USERS|.DEFAULT"},
        {"\\\\.\\HKEY_CURRENT_USER\\Software", nullptr, "|HKEY_CURRENT_USER|Software"},
        {"HKEY_LOCAL\\X", nullptr, "|HKEY_LOCAL_MACHINE|X"}, // the first root that begins so
        {"H\\X", nullptr, "|HKEY_CLASSES_ROOT|X"},
        {"HKEY_COMPANY", nullptr, "|HKEY_CURRENT_USER|Software\\Korvanta"},
        {"HKEY_CO\\Sub", "Deeper", "|HKEY_CURRENT_USER|Software\\Korvanta\\Sub\\Deeper"},
        {"HKEY_ENV", "", "|HKEY_CURRENT_USER|Software\\Korvanta\\Environment"},
        {"\\\\.\\HKEY_APPLICATION", "A", "|HKEY_CURRENT_USER|" + app + "\\A"},
        {"hkey_local_machine\\SOFTWARE", nullptr, "||hkey_local_machine\\SOFTWARE"}, // case counts
        {"HKEY_CURRENT_USER\\Software\\", "X\\", "|HKEY_CURRENT_USER|Software\\X"},
        {"", "\\\\box\\HKEY_CURRENT_USER\\Software", "box|HKEY_CURRENT_USER|Software"}};
    for (const auto& [path, subpath, expected] : cases) {
        const RegistryKeyPath parsed = ParseRegistryKeyPath(path, subpath);
        EXPECT_EQ(std::string(parsed.machine.Text()) + "|" + parsed.root.Text() + "|" +
                      parsed.subkey.Text(),
                  expected)
            << path << " + " << (subpath ? subpath : "-");
    }
}

TEST(Registry, OpenModesAndErrors) {
    SetRaw(HKEY_CURRENT_USER, kUser + L"\\Existing");
    // Root, key below ours, mode (2 creates and may write), last error.
    const std::tuple<const char*, const wchar_t*, uint32_t, DWORD> cases[] = {
        {"HKEY_CURRENT_USER", L"Existing", 0, 0},
        {"HKEY_CURRENT_USER", L"Missing", 1, ERROR_FILE_NOT_FOUND},
        {"\\\\.\\HKEY_CURRENT_USER", L"Created\\Two", 2, 0},
        {"hkey_current_user", L"Lower", 2, ERROR_BAD_PATHNAME}};
    for (const auto& [root, tail, mode, error] : cases) {
        SCOPED_TRACE(Narrow(tail));
        SetLastError(kUntouched);
        UniqueRegKey key(
            OpenRegistryKey(UserPath(tail).replace(0, 17, root).c_str(), nullptr, mode));
        EXPECT_EQ(GetLastError(), error);
        const DWORD one = 1;
        EXPECT_EQ(key && RegSetValueExW(key.Get(), L"probe", 0, REG_DWORD,
                                        reinterpret_cast<const BYTE*>(&one), 4) == 0,
                  error == 0 && mode == 2);
        SetLastError(1234); // closing keeps the caller's last error
        key.Reset();
        EXPECT_EQ(GetLastError(), 1234u);
    }
}

// Every value is read three ways: as a number (only a 4-byte REG_DWORD counts),
// as a number in decimal text, and as text.
TEST(Registry, ReadNumbersAndTexts) {
    const std::wstring dir = L"C:\\Gr\u00FC\u00DFe \u6771\\Korvanta Cloud";
    ASSERT_TRUE(SetEnvironmentVariableW(L"KVT_RT_DIR", dir.c_str()));
    ASSERT_TRUE(SetEnvironmentVariableW(L"KVT_RT_NUMBER", L"31"));
    // Name, type, data and its size (-1: the text with its terminator), then the number,
    // the number from text, and the text (99: the default).
    const std::tuple<const wchar_t*, DWORD, std::wstring, int, uint32_t, uint32_t, std::wstring>
        cases[] = {
            {L"dword7", REG_DWORD, {7, 0}, 4, 7, 99, L"\x7"},
            {L"binary4", REG_BINARY, {7, 0}, 4, 99, 99, L"\x7"},
            {L"qword", REG_QWORD, {7, 0, 0, 0}, 8, 99, 99, L"\x7"},
            {L"sz0", REG_SZ, L"0", -1, 99, 0, L"0"},
            {L"sz42", REG_SZ, L" 42\t", -1, 99, 42, L" 42\t"},
            {L"szMax", REG_SZ, L"4294967295", -1, 99, ~0u, L"4294967295"},
            {L"szHuge", REG_SZ, L"4294967296", -1, 99, 99, L"4294967296"},
            {L"szTrailing", REG_SZ, L"12abc", -1, 99, 99, L"12abc"},
            {L"unterminated", REG_SZ, L"abcdef", 6, 99, 99, L"abc"},
            {L"long", REG_SZ, std::wstring(700, L'w'), -1, 99, 99, std::wstring(700, L'w')},
            {L"expandNumber", REG_EXPAND_SZ, L"%KVT_RT_NUMBER%", -1, 99, 31, L"31"},
            {nullptr, REG_SZ, L"64", -1, 99, 64, L"64"},
            {L"expand", REG_EXPAND_SZ, L"%KVT_RT_DIR%\\x", -1, 99, 99, dir + L"\\x"},
        };
    const std::string path = UserPath(L"Values");
    for (const auto& [name, type, data, bytes, number, fromText, text] : cases)
        SetRaw(HKEY_CURRENT_USER, kUser + L"\\Values", name, type, data, bytes);
    UniqueRegKey key(OpenRegistryKey(path.c_str(), nullptr, 0));
    ASSERT_TRUE(key);
    for (const auto& [name, type, data, bytes, number, fromText, text] : cases) {
        const std::string narrow = name ? Narrow(name) : std::string();
        SCOPED_TRACE(narrow);
        const char* utf8 = name ? narrow.c_str() : nullptr;
        SetLastError(kUntouched); // success leaves 0
        EXPECT_EQ(ReadRegistryNumber(path.c_str(), nullptr, utf8, 99, true), number);
        EXPECT_EQ(ReadRegistryNumber(path.c_str(), nullptr, utf8, 99, false), fromText);
        EXPECT_EQ(Widen(ReadRegistryText(key.Get(), utf8).Text()), text);
        EXPECT_EQ(GetLastError(), 0u);
    }
    // What is missing gives the default or "", and the reason.
    for (const auto& [where, error] : std::vector<std::pair<std::string, DWORD>>{
             {path, ERROR_FILE_NOT_FOUND},
             {UserPath(L"NoSuchKey"), ERROR_FILE_NOT_FOUND},
             {"HKEY_NOPE\\" + Narrow(kUser), ERROR_BAD_PATHNAME}}) {
        SetLastError(kUntouched);
        EXPECT_EQ(ReadRegistryNumber(where.c_str(), nullptr, "absent", 99, true), 99u);
        EXPECT_EQ(GetLastError(), error) << where;
        SetLastError(kUntouched);
        EXPECT_STREQ(ReadRegistryTextAt(where.c_str(), nullptr, "absent").Text(), "");
        EXPECT_EQ(GetLastError(), error) << where;
        EXPECT_FALSE(RegistryValueExists(where.c_str(), "absent"));
    }
    EXPECT_TRUE(RegistryValueExists(path.c_str(), "binary4"));
}

TEST(Registry, WriteAndReadBack) {
    const std::string path = UserPath();
    const std::string unicode = "Gr\xC3\xBC\xC3\x9F \xE6\x9D\xB1\xE4\xBA\xAC \xF0\x9F\x98\x80";
    // Stored as REG_SZ (1) with exactly one terminating null; names need not be ASCII.
    for (const auto& [name, text] : {std::pair{"unicode", unicode}, {"\xE6\x9D\xB1", "named"}}) {
        SetLastError(kUntouched);
        ASSERT_TRUE(WriteRegistryText(path.c_str(), "Write\\Deep", name, text.c_str()));
        EXPECT_EQ(GetLastError(), 0u);
        EXPECT_EQ(Raw(HKEY_CURRENT_USER, kUser + L"\\Write\\Deep", Widen(name).c_str()),
                  "1:" + std::to_string(Widen(text).size() * 2 + 2) + ":" + text);
    }
    // A number replaces a text of the same name (names ignore case), and a text a number.
    ASSERT_TRUE(WriteRegistryNumber(path.c_str(), "Write", "n", 0x12345678));
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "N", 0, true), 0x12345678u);
    ASSERT_TRUE(WriteRegistryText(path.c_str(), "Write", "n", "77"));
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "n", 0, true), 0u);
    // Failures write nothing and say why.
    const std::tuple<std::string, const char*, DWORD> failures[] = {
        {"HKEY_NOPE\\" + Narrow(kUser), "text", ERROR_BAD_PATHNAME},
        {path, "\xFF\xFE", ERROR_NO_UNICODE_TRANSLATION}};
    for (const auto& [where, text, error] : failures) {
        SetLastError(kUntouched);
        EXPECT_FALSE(WriteRegistryText(where.c_str(), "Fail", "x", text));
        EXPECT_EQ(GetLastError(), error) << where;
        EXPECT_EQ(Raw(HKEY_CURRENT_USER, kUser + L"\\Fail", L"x"), "");
    }
}

// The process environment first; an absent or empty variable falls back to the
// company's per-user environment key.
TEST(Registry, GetEnvironment) {
    const std::wstring name = UniqueName(L"KVT_ENV");
    g_cleanup.keys.emplace_back(HKEY_CURRENT_USER, L"Software\\Korvanta\\Environment");
    SetRaw(HKEY_CURRENT_USER, L"Software\\Korvanta\\Environment", name.c_str(), REG_SZ, L"stored");
    EXPECT_STREQ(GetEnvironment(Narrow(name).c_str()).Text(), "stored");
    SetEnvironmentVariableW(name.c_str(), L"process \u00e4");
    EXPECT_STREQ(GetEnvironment(Narrow(name).c_str()).Text(), "process \xC3\xA4");
    SetEnvironmentVariableW(name.c_str(), nullptr);
}

// Class registrations below HKEY_CLASSES_ROOT are written per user where the
// user has the class, else machine-wide.
TEST(Registry, ClassKeysRedirection) {
    const std::wstring user = L"Software\\Classes\\", machine = L"SOFTWARE\\Classes\\";
    const std::wstring mime = L"Mime\\Database\\Content Type\\", id = UniqueName(L"{kvt");
    // The per-user ClsID and Mime\Database keys exist, so only the class's own key decides.
    for (const std::wstring& key : {L"ClsID\\" + id, mime + id}) {
        SetRaw(HKEY_CURRENT_USER, user + key);
        g_cleanup.keys.emplace_back(HKEY_CURRENT_USER, user + key);
    }
    // The class's own key, the rest of the path, whether the user has the class, and
    // whether the value lands per user.
    const std::tuple<std::wstring, std::wstring, bool, bool> cases[] = {
        {L"ClsID\\" + id + L"m", L"\\Inproc", false, false},
        {L"ClsID\\" + id + L"u", L"\\Inproc", true, true},
        {L"CLSID\\" + id + L"s", L"", true, true}, // the class key in any case
        // The nested entry wins over "Mime" and "Mime\Database", whose per-user keys exist.
        {mime + L"application/x-" + id, L"\\Sub", false, false},
        // Not a listed class key: the first component decides.
        {id + L"M", L"\\A\\B", false, false},
        {id + L"U", L"\\A\\B", true, true},
    };
    for (const auto& [own, tail, userHas, perUser] : cases) {
        SCOPED_TRACE(Narrow(own + tail));
        g_cleanup.keys.emplace_back(HKEY_CURRENT_USER, user + own);
        g_cleanup.keys.emplace_back(HKEY_LOCAL_MACHINE, machine + own);
        if (userHas)
            SetRaw(HKEY_CURRENT_USER, user + own);
        ASSERT_TRUE(WriteRegistryText(Narrow(L"HKEY_CLASSES_ROOT\\" + own + tail).c_str(), nullptr,
                                      "v", "w"));
        EXPECT_EQ(Raw(HKEY_CURRENT_USER, user + own + tail, L"v"), perUser ? "1:4:w" : "");
        EXPECT_EQ(Raw(HKEY_LOCAL_MACHINE, machine + own + tail, L"v"), perUser ? "" : "1:4:w");
    }
}

// The 32-bit view of the machine's software key is its Wow6432Node; the 64-bit
// view and the process's own (64-bit) view are the key itself.
TEST(Registry, ViewsReachTheirHalvesOfTheMachine) {
    const std::wstring name = UniqueName(L"KvtView");
    const std::string path = Narrow(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\" + name);
    const std::pair<uint32_t, std::wstring> cases[] = {
        {kRegistryViewNative, L"SOFTWARE\\" + name},
        {kRegistryView32, L"SOFTWARE\\Wow6432Node\\" + name},
        {kRegistryView64, L"SOFTWARE\\" + name}};
    for (const auto& [view, where] : cases) {
        g_cleanup.keys.emplace_back(HKEY_LOCAL_MACHINE, where);
        UniqueRegKey key(OpenRegistryKey(path.c_str(), nullptr, kRegistryWrite, view));
        ASSERT_TRUE(key) << GetLastError();
        ASSERT_EQ(
            RegSetValueExW(key.Get(), L"v", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"w"), 4), 0);
        EXPECT_EQ(Raw(HKEY_LOCAL_MACHINE, where, L"v"), "1:4:w") << view; // read unredirected
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, where.c_str());
    }
}
