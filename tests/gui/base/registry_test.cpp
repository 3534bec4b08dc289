// Registry access against the real registry of the test prefix, below keys
// unique to the run that are removed afterwards.
#include <gtest/gtest.h>

#include <sddl.h>

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
    const std::tuple<const char*, const char*, const char*, const char*, std::string> cases[] = {
        {"HKEY_LOCAL_MACHINE\\SOFTWARE", nullptr, "", "HKEY_LOCAL_MACHINE", "SOFTWARE"},
        // Computer names; "." is the local registry.
        {"\\\\server7\\HKEY_USERS\\.DEFAULT", nullptr, "server7", "HKEY_USERS", ".DEFAULT"},
        {"\\\\.\\HKEY_CURRENT_USER\\Software", nullptr, "", "HKEY_CURRENT_USER", "Software"},
        {"\\\\host", nullptr, "host", "", ""},
        // Abbreviations: the first root of the table that begins so.
        {"HKEY_LOCAL\\X", nullptr, "", "HKEY_LOCAL_MACHINE", "X"},
        {"H\\X", nullptr, "", "HKEY_CLASSES_ROOT", "X"},
        {"HKEY_D", "X", "", "HKEY_DYN_DATA", "X"},
        // Pseudo roots come after the real ones, with their prefixes.
        {"HKEY_COMPANY", nullptr, "", "HKEY_CURRENT_USER", "Software\\Korvanta"},
        {"HKEY_CO\\Sub", "Deeper", "", "HKEY_CURRENT_USER", "Software\\Korvanta\\Sub\\Deeper"},
        {"\\\\.\\HKEY_APPLICATION", "A", "", "HKEY_CURRENT_USER", app + "\\A"},
        // Case counts; longer or foreign names match nothing and keep their component.
        {"hkey_local_machine\\SOFTWARE", nullptr, "", "", "hkey_local_machine\\SOFTWARE"},
        {"HKEY_COMPANYX\\A", nullptr, "", "", "HKEY_COMPANYX\\A"},
        // Joining, trailing backslashes, a missing path, non-ASCII components.
        {"HKEY_CURRENT_USER\\Software\\", "X\\", "", "HKEY_CURRENT_USER", "Software\\X"},
        {"", "\\\\box\\HKEY_CURRENT_USER\\Software", "box", "HKEY_CURRENT_USER", "Software"},
        {"HKEY_USERS\\Gr\xC3\xBC\xC3\x9F", "\xE6\x9D\xB1", "", "HKEY_USERS",
         "Gr\xC3\xBC\xC3\x9F\\\xE6\x9D\xB1"},
    };
    for (const auto& [path, subpath, machine, root, subkey] : cases) {
        SCOPED_TRACE(std::string(path ? path : "-") + " + " + (subpath ? subpath : "-"));
        const RegistryKeyPath parsed = ParseRegistryKeyPath(path, subpath);
        EXPECT_STREQ(parsed.machine.Text(), machine);
        EXPECT_STREQ(parsed.root.Text(), root);
        EXPECT_STREQ(parsed.subkey.Text(), subkey.c_str());
    }
}

TEST(Registry, OpenModesAndErrors) {
    SetRaw(HKEY_CURRENT_USER, kUser + L"\\Existing", L"v", REG_SZ, L"here");
    wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    ASSERT_TRUE(GetComputerNameW(computer, &size));
    const std::string self = "\\\\" + Narrow(computer) + "\\", user = Narrow(kUser);
    // Path, mode, view, last error, and a key below ours that exists afterwards when opened.
    const std::tuple<std::string, uint32_t, uint32_t, DWORD, const wchar_t*> cases[] = {
        {UserPath(L"Existing"), 0, 0, 0, nullptr},
        {UserPath(L"Missing"), 1, 0, ERROR_FILE_NOT_FOUND, L"Missing"},
        {UserPath(L"Created\\Two"), 2, 0, 0, L"Created\\Two"},
        {UserPath(L"Existing"), 3, 0, ERROR_INVALID_PARAMETER, nullptr},
        {UserPath(L"Existing"), 0, 3, ERROR_INVALID_PARAMETER, nullptr},
        {"HKEY_NOPE\\" + user + "\\Nope", 2, 0, ERROR_BAD_PATHNAME, L"Nope"},
        {"hkey_current_user\\" + user + "\\Lower", 2, 0, ERROR_BAD_PATHNAME, L"Lower"},
        {self + UserPath(L"Existing"), 0, 0, 0, nullptr},
        {self + UserPath(L"ViaName"), 2, 0, 0, L"ViaName"},
    };
    for (const auto& [path, mode, view, error, created] : cases) {
        SCOPED_TRACE(path + " mode " + std::to_string(mode) + " view " + std::to_string(view));
        SetLastError(kUntouched);
        UniqueRegKey key(OpenRegistryKey(ParseRegistryKeyPath(path.c_str()), mode, view));
        EXPECT_EQ(GetLastError(), error);
        ASSERT_EQ(key.Valid(), error == 0);
        if (key) {
            const DWORD one = 1; // only mode 2 may write
            EXPECT_EQ(RegSetValueExW(key.Get(), L"probe", 0, REG_DWORD,
                                     reinterpret_cast<const BYTE*>(&one), 4) == 0,
                      mode == 2);
            if (!created) {
                EXPECT_STREQ(ReadRegistryText(key.Get(), "v").Text(), "here");
            }
            SetLastError(1234); // closing keeps the caller's last error
            key.Reset();
            EXPECT_EQ(GetLastError(), 1234u);
        }
        if (created) {
            EXPECT_EQ(KeyExists(HKEY_CURRENT_USER, kUser + L"\\" + created), error == 0);
        }
    }
}

// Every value is read three ways: as a number (only a 4-byte REG_DWORD counts),
// as a number in decimal text (blanks around it allowed), and as text.
TEST(Registry, ReadNumbersAndTexts) {
    // The expanded text is longer than the stored one.
    const std::wstring dir = L"C:\\Gr\u00FC\u00DFe \u6771\\Korvanta Cloud",
                       longText(3000, L'\u00E9');
    ASSERT_TRUE(SetEnvironmentVariableW(L"KVT_RT_DIR", dir.c_str()));
    ASSERT_TRUE(SetEnvironmentVariableW(L"KVT_RT_NUMBER", L"31"));
    // Name, type, data and its size in bytes (-1: the text with its terminator), then the
    // expected number, number from text, and text.
    const std::tuple<const wchar_t*, DWORD, std::wstring, int, uint32_t, uint32_t, std::wstring>
        cases[] = {
            {L"dword7", REG_DWORD, {7, 0}, 4, 7, 99, L"\x7"},
            {L"dwordShort", REG_DWORD, {7, 0}, 2, 99, 99, L"\x7"},
            {L"binary4", REG_BINARY, {7, 0}, 4, 99, 99, L"\x7"},
            {L"sz0", REG_SZ, L"0", -1, 99, 0, L"0"},
            {L"sz42", REG_SZ, L"42", -1, 99, 42, L"42"},
            {L"szBlanks", REG_SZ, L" 17\t", -1, 99, 17, L" 17\t"},
            {L"szMax", REG_SZ, L"4294967295", -1, 99, ~0u, L"4294967295"},
            {L"szHuge", REG_SZ, L"4294967296", -1, 99, 99, L"4294967296"},
            {L"szTrailing", REG_SZ, L"12abc", -1, 99, 99, L"12abc"},
            {L"szEmpty", REG_SZ, L"", -1, 99, 99, L""},
            {L"zeroBytes", REG_SZ, L"", 0, 99, 99, L""},
            {L"unterminated", REG_SZ, L"abcdef", 6, 99, 99, L"abc"},
            {L"multi", REG_MULTI_SZ, std::wstring(L"one\0two\0", 9), 18, 99, 99, L"one"},
            {L"expandNumber", REG_EXPAND_SZ, L"%KVT_RT_NUMBER%", -1, 99, 31, L"31"},
            {nullptr, REG_SZ, L"64", -1, 99, 64, L"64"},
            {L"percent", REG_SZ, L"%KVT_RT_DIR%", -1, 99, 99, L"%KVT_RT_DIR%"},
            {L"expand", REG_EXPAND_SZ, L"%KVT_RT_DIR%\\x", -1, 99, 99, dir + L"\\x"},
            {L"expandLong", REG_EXPAND_SZ, L"%KVT_RT_DIR%" + longText, -1, 99, 99, dir + longText},
            {L"gr\u00FC\u00DFe \u6771", REG_SZ, L"named in UTF-8", -1, 99, 99, L"named in UTF-8"},
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
        SetLastError(kUntouched);
        EXPECT_EQ(ReadRegistryNumber(path.c_str(), nullptr, utf8, 99, true), number);
        EXPECT_EQ(GetLastError(), 0u);
        EXPECT_EQ(ReadRegistryNumber(path.c_str(), nullptr, utf8, 99, false), fromText);
        EXPECT_EQ(GetLastError(), 0u);
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
    SetEnvironmentVariableW(L"KVT_RT_DIR", nullptr);
    SetEnvironmentVariableW(L"KVT_RT_NUMBER", nullptr);
}

TEST(Registry, WriteAndReadBack) {
    const std::string path = UserPath();
    const std::pair<const char*, std::string> cases[] = {
        {"empty", ""},
        {"unicode", "Gr\xC3\xBC\xC3\x9F \xE2\x80\x93 \xE6\x9D\xB1\xE4\xBA\xAC \xF0\x9F\x98\x80"},
        {"long", std::string(4000, 'x')},
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
    const RawValue raw = QueryRaw(HKEY_CURRENT_USER, kUser + L"\\Write", L"n");
    EXPECT_EQ(raw.type, DWORD(REG_DWORD));
    EXPECT_EQ(raw.size, 4u);
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "N", 0, true), 0x12345678u);
    ASSERT_TRUE(WriteRegistryText(path.c_str(), "Write", "n", "77"));
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "n", 0, true), 0u);
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "n", 0, false), 77u);

    // Failures write nothing and say why.
    const std::tuple<std::string, const char*, const char*, DWORD> failures[] = {
        {"HKEY_NOPE\\" + Narrow(kUser), "x", "text", ERROR_BAD_PATHNAME},
        {"hkey_current_user\\" + Narrow(kUser), "x", "text", ERROR_BAD_PATHNAME},
        {path, "bad", "\xFF\xFE", ERROR_NO_UNICODE_TRANSLATION},
        {path, "\xC3", "name does not convert", ERROR_NO_UNICODE_TRANSLATION},
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
// user has the class, else machine-wide, else (machine refusing) per user.
TEST(Registry, ClassKeysRedirection) {
    const std::wstring mime = L"Mime\\Database\\Content Type\\", id = UniqueName(L"{kvt");
    // The per-user ClsID and Mime\Database keys exist, so only the class's own
    // key (class key plus one component) can decide.
    for (const std::wstring& key : {L"ClsID\\" + id, mime + id}) {
        SetRaw(HKEY_CURRENT_USER, kUserClasses + key);
        g_cleanup.keys.emplace_back(HKEY_CURRENT_USER, kUserClasses + key);
    }
    // Reading creates nothing on either side.
    SetLastError(kUntouched);
    EXPECT_EQ(
        OpenRegistryKey(Narrow(L"HKEY_CLASSES_ROOT\\ClsID\\" + id + L"m").c_str(), nullptr, 1),
        nullptr);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, kUserClasses + L"ClsID\\" + id + L"m"));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kMachineClasses + L"ClsID\\" + id + L"m"));

    // A machine key that lets everyone read and delete it, nothing else.
    const std::wstring locked = kMachineClasses + id + L"L\\A";
    SetRaw(HKEY_LOCAL_MACHINE, locked);
    g_cleanup.keys.emplace_back(HKEY_LOCAL_MACHINE, kMachineClasses + id + L"L");
    PSECURITY_DESCRIPTOR sd = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;KRSD;;;WD)", 1, &sd,
                                                                     nullptr));
    UniqueLocal sdOwner(sd);
    HKEY lockedKey = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, locked.c_str(), 0, WRITE_DAC, &lockedKey), 0);
    UniqueRegKey lockedOwner(lockedKey);
    ASSERT_EQ(RegSetKeySecurity(lockedKey, DACL_SECURITY_INFORMATION, sd), 0);

    // The class's own key below HKEY_CLASSES_ROOT, the rest of the path, whether the user
    // has the class, and whether the value lands per user.
    const std::tuple<std::wstring, std::wstring, bool, bool> cases[] = {
        {L"ClsID\\" + id + L"m", L"\\Inproc", false, false},
        {L"ClsID\\" + id + L"u", L"\\Inproc", true, true},
        // The class key matches in any case; the user's "ClsID" alone decides nothing.
        {L"clsid\\" + id + L"l", L"\\X", false, false},
        {L"CLSID\\" + id + L"s", L"", true, true},
        // The nested entry wins over "Mime" and "Mime\Database", whose per-user keys exist.
        {mime + L"application/x-" + id, L"\\Sub", false, false},
        // Not a listed class key: the first component decides.
        {id + L"M", L"\\A\\B", false, false},
        {id + L"U", L"\\A\\B", true, true},
        {id + L"L", L"\\A", false, true},
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
        EXPECT_EQ(user.present, perUser);
        EXPECT_EQ(machine.present, !perUser);
        EXPECT_EQ((perUser ? user : machine).text, L"w");
    }
}
