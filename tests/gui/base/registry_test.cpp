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
const std::wstring kUserClasses = L"Software\\Classes\\", kMachineClasses = L"SOFTWARE\\Classes\\";

std::wstring UniqueName(const wchar_t* stem) {
    static unsigned sequence = 0;
    return stem + (L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                   std::to_wstring(GetTickCount64()) + L"-" + std::to_wstring(++sequence));
}

bool KeyExists(HKEY root, const std::wstring& subkey) {
    HKEY key = nullptr;
    return RegOpenKeyExW(root, subkey.c_str(), 0, KEY_READ, &key) == 0 && UniqueRegKey(key);
}

// Sets a value (a text with its terminator when bytes < 0), or only creates the key.
void SetRaw(HKEY root, const std::wstring& subkey, const wchar_t* name = nullptr, DWORD type = 0,
            const std::wstring& data = L"", int bytes = -1) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                              nullptr),
              0);
    UniqueRegKey owner(key);
    if (type != 0) {
        EXPECT_EQ(RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(data.c_str()),
                                 bytes < 0 ? DWORD(data.size() + 1) * 2 : bytes),
                  0);
    }
}

struct RawValue {
    bool present = false;
    DWORD type = 0, size = 16384;
    std::wstring text; // trailing nulls dropped
};

RawValue QueryRaw(HKEY root, const std::wstring& subkey, const wchar_t* name) {
    RawValue v;
    wchar_t data[8192] = {};
    v.present = RegGetValueW(root, subkey.c_str(), name, RRF_RT_ANY | RRF_NOEXPAND, &v.type, data,
                             &v.size) == 0;
    v.text.assign(data, v.present ? v.size / 2 : 0);
    v.text.erase(v.text.find_last_not_of(L'\0') + 1);
    return v;
}

// Every test works below this key; it and the class keys go when the program ends.
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
        // Computer names; "." is the local registry.
        {"\\\\server7\\HKEY_USERS\\.DEFAULT", nullptr, "server7|HKEY_USERS|.DEFAULT"},
        {"\\\\.\\HKEY_CURRENT_USER\\Software", nullptr, "|HKEY_CURRENT_USER|Software"},
        // Abbreviations: the first root of the table that begins so.
        {"HKEY_LOCAL\\X", nullptr, "|HKEY_LOCAL_MACHINE|X"},
        {"H\\X", nullptr, "|HKEY_CLASSES_ROOT|X"},
        // Pseudo roots come after the real ones, with their prefixes.
        {"HKEY_COMPANY", nullptr, "|HKEY_CURRENT_USER|Software\\Korvanta"},
        {"HKEY_CO\\Sub", "Deeper", "|HKEY_CURRENT_USER|Software\\Korvanta\\Sub\\Deeper"},
        {"\\\\.\\HKEY_APPLICATION", "A", "|HKEY_CURRENT_USER|" + app + "\\A"},
        // Case counts: a name that matches nothing keeps its component.
        {"hkey_local_machine\\SOFTWARE", nullptr, "||hkey_local_machine\\SOFTWARE"},
        // Joining, trailing backslashes, a missing path.
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
        {"hkey_current_user", L"Lower", 2, ERROR_BAD_PATHNAME}}; // case counts
    for (const auto& [root, tail, mode, error] : cases) {
        SCOPED_TRACE(Narrow(tail));
        const std::string path = root + ("\\" + Narrow(kUser + L"\\" + tail));
        SetLastError(kUntouched);
        UniqueRegKey key(OpenRegistryKey(ParseRegistryKeyPath(path.c_str()), mode, 0));
        EXPECT_EQ(GetLastError(), error);
        EXPECT_EQ(key.Valid(), error == 0);
        EXPECT_EQ(KeyExists(HKEY_CURRENT_USER, kUser + L"\\" + tail), error == 0);
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
    // Name, type, data and its size in bytes (-1: the text with its terminator), then the
    // expected number, number from text, and text.
    const std::tuple<const wchar_t*, DWORD, std::wstring, int, uint32_t, uint32_t, std::wstring>
        cases[] = {
            {L"dword7", REG_DWORD, {7, 0}, 4, 7, 99, L"\x7"},
            {L"binary4", REG_BINARY, {7, 0}, 4, 99, 99, L"\x7"},
            {L"sz0", REG_SZ, L"0", -1, 99, 0, L"0"},
            {L"sz42", REG_SZ, L"42", -1, 99, 42, L"42"},
            {L"szMax", REG_SZ, L"4294967295", -1, 99, ~0u, L"4294967295"},
            {L"szHuge", REG_SZ, L"4294967296", -1, 99, 99, L"4294967296"},
            {L"szTrailing", REG_SZ, L"12abc", -1, 99, 99, L"12abc"},
            {L"unterminated", REG_SZ, L"abcdef", 6, 99, 99, L"abc"},
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
    }
}

TEST(Registry, WriteAndReadBack) {
    const std::string path = UserPath();
    const std::pair<const char*, std::string> cases[] = {
        {"unicode", "Gr\xC3\xBC\xC3\x9F \xE2\x80\x93 \xE6\x9D\xB1\xE4\xBA\xAC \xF0\x9F\x98\x80"},
        {"\xE6\x9D\xB1", "value whose name is not ASCII"},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        SetLastError(kUntouched);
        ASSERT_TRUE(WriteRegistryText(path.c_str(), "Write\\Deep", name, text.c_str()));
        EXPECT_EQ(GetLastError(), 0u);
        // Stored as REG_SZ with exactly one terminating null.
        const RawValue raw =
            QueryRaw(HKEY_CURRENT_USER, kUser + L"\\Write\\Deep", Widen(name).c_str());
        EXPECT_EQ(raw.type, DWORD(REG_SZ));
        EXPECT_EQ(raw.size, Widen(text).size() * 2 + 2);
        EXPECT_EQ(raw.text, Widen(text));
        EXPECT_EQ(ReadRegistryTextAt(path.c_str(), "Write\\Deep", name).Text(), text);
    }
    // A number replaces a text of the same name (names ignore case), and a text a number.
    ASSERT_TRUE(WriteRegistryNumber(path.c_str(), "Write", "n", 0x12345678));
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "N", 0, true), 0x12345678u);
    ASSERT_TRUE(WriteRegistryText(path.c_str(), "Write", "n", "77"));
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "n", 0, true), 0u);

    // Failures write nothing and say why.
    const std::tuple<std::string, const char*, const char*, DWORD> failures[] = {
        {"HKEY_NOPE\\" + Narrow(kUser), "x", "text", ERROR_BAD_PATHNAME},
        {path, "bad", "\xFF\xFE", ERROR_NO_UNICODE_TRANSLATION},
    };
    for (const auto& [where, name, text, error] : failures) {
        SCOPED_TRACE(where + " " + name);
        SetLastError(kUntouched);
        EXPECT_FALSE(WriteRegistryText(where.c_str(), "Fail", name, text));
        EXPECT_EQ(GetLastError(), error);
        EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, kUser + L"\\Fail"));
    }
}

// Class registrations below HKEY_CLASSES_ROOT are written per user where the
// user has the class, else machine-wide.
TEST(Registry, ClassKeysRedirection) {
    const std::wstring mime = L"Mime\\Database\\Content Type\\", id = UniqueName(L"{kvt");
    // The per-user ClsID and Mime\Database keys exist, so only the class's own
    // key (class key plus one component) can decide.
    for (const std::wstring& key : {L"ClsID\\" + id, mime + id}) {
        SetRaw(HKEY_CURRENT_USER, kUserClasses + key);
        g_cleanup.keys.emplace_back(HKEY_CURRENT_USER, kUserClasses + key);
    }
    // The class's own key below HKEY_CLASSES_ROOT, the rest of the path, whether the user
    // has the class, and whether the value lands per user.
    const std::tuple<std::wstring, std::wstring, bool, bool> cases[] = {
        {L"ClsID\\" + id + L"m", L"\\Inproc", false, false},
        {L"ClsID\\" + id + L"u", L"\\Inproc", true, true},
        // The class key matches in any case.
        {L"CLSID\\" + id + L"s", L"", true, true},
        // The nested entry wins over "Mime" and "Mime\Database", whose per-user keys exist.
        {mime + L"application/x-" + id, L"\\Sub", false, false},
        // Not a listed class key: the first component decides.
        {id + L"M", L"\\A\\B", false, false},
        {id + L"U", L"\\A\\B", true, true},
    };
    for (const auto& [own, tail, userHas, perUser] : cases) {
        SCOPED_TRACE(Narrow(own + tail));
        g_cleanup.keys.emplace_back(HKEY_CURRENT_USER, kUserClasses + own);
        g_cleanup.keys.emplace_back(HKEY_LOCAL_MACHINE, kMachineClasses + own);
        if (userHas)
            SetRaw(HKEY_CURRENT_USER, kUserClasses + own);
        SetLastError(kUntouched);
        ASSERT_TRUE(WriteRegistryText(Narrow(L"HKEY_CLASSES_ROOT\\" + own + tail).c_str(), nullptr,
                                      "v", "w"));
        EXPECT_EQ(GetLastError(), 0u);
        const RawValue user = QueryRaw(HKEY_CURRENT_USER, kUserClasses + own + tail, L"v");
        const RawValue machine = QueryRaw(HKEY_LOCAL_MACHINE, kMachineClasses + own + tail, L"v");
        EXPECT_TRUE(user.present == perUser && machine.present == !perUser);
        EXPECT_EQ((perUser ? user : machine).text, L"w");
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
        SCOPED_TRACE(view);
        g_cleanup.keys.emplace_back(HKEY_LOCAL_MACHINE, where);
        UniqueRegKey key(OpenRegistryKey(path.c_str(), nullptr, kRegistryWrite, view));
        ASSERT_TRUE(key) << GetLastError();
        const DWORD value = view + 10;
        ASSERT_EQ(RegSetValueExW(key.Get(), L"view", 0, REG_DWORD,
                                 reinterpret_cast<const BYTE*>(&value), 4),
                  0);
        UniqueRegKey raw;
        DWORD read = 0, size = 4;
        EXPECT_TRUE(RegOpenKeyExW(HKEY_LOCAL_MACHINE, where.c_str(), 0, KEY_READ | KEY_WOW64_64KEY,
                                  raw.Put()) == 0 &&
                    RegQueryValueExW(raw.Get(), L"view", nullptr, nullptr,
                                     reinterpret_cast<BYTE*>(&read), &size) == 0 &&
                    read == value);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, where.c_str());
    }
}
