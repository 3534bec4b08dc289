// Registry access against the real registry of the test prefix. Every test works
// below keys whose names are unique to the run and removes them afterwards.
#include <gtest/gtest.h>

#include <aclapi.h>

#include <cstring>
#include <string>
#include <vector>

#include "registry.h"
#include "report.h"
#include "testsupport.h"

using testsupport::Narrow;
using testsupport::Widen;

namespace {

std::wstring UniqueName(const wchar_t* stem) {
    static unsigned sequence = 0;
    wchar_t buffer[96];
    swprintf(buffer, 96, L"%ls-%lu-%llu-%u", stem, GetCurrentProcessId(),
             static_cast<unsigned long long>(GetTickCount64()), ++sequence);
    return buffer;
}

// A class identifier text that no real registration uses.
std::wstring UniqueGuid() {
    static unsigned sequence = 0;
    wchar_t buffer[64];
    swprintf(buffer, 64, L"{4B56D1E0-%04X-4000-8000-%012llX}", ++sequence & 0xFFFF,
             (static_cast<unsigned long long>(GetCurrentProcessId()) << 24) ^ GetTickCount64());
    return buffer;
}

bool KeyExists(HKEY root, const std::wstring& subkey, REGSAM extra = 0) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, subkey.c_str(), 0, KEY_READ | extra, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

void CreateKey(HKEY root, const std::wstring& subkey) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                              nullptr),
              ERROR_SUCCESS)
        << Narrow(subkey);
    RegCloseKey(key);
}

void SetRaw(HKEY root, const std::wstring& subkey, const wchar_t* name, DWORD type,
            const void* data, DWORD size) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                              nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), size),
              ERROR_SUCCESS);
    RegCloseKey(key);
}

void SetRawText(HKEY root, const std::wstring& subkey, const wchar_t* name, DWORD type,
                const std::wstring& text) {
    SetRaw(root, subkey, name, type, text.c_str(),
           static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

struct RawValue {
    bool present = false;
    DWORD type = 0;
    std::vector<BYTE> data;
};

RawValue QueryRaw(HKEY root, const std::wstring& subkey, const wchar_t* name) {
    RawValue value;
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, subkey.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return value;
    DWORD size = 0;
    if (RegQueryValueExW(key, name, nullptr, &value.type, nullptr, &size) == ERROR_SUCCESS) {
        value.data.resize(size);
        value.present = RegQueryValueExW(key, name, nullptr, &value.type, value.data.data(),
                                         &size) == ERROR_SUCCESS;
    }
    RegCloseKey(key);
    return value;
}

std::wstring RawText(const RawValue& value) {
    std::wstring text(value.data.size() / 2, L'\0');
    memcpy(text.data(), value.data.data(), text.size() * 2);
    while (!text.empty() && text.back() == 0)
        text.pop_back();
    return text;
}

std::string ComputerName() {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    return GetComputerNameW(name, &size) ? Narrow(name) : std::string();
}

// Keys below the user's and the machine's software branch, unique to the test
// and removed with everything else the test registers for removal.
class RegistryTest : public testing::Test {
  protected:
    void SetUp() override {
        m_name = UniqueName(L"KorvantaTest");
        m_user = L"Software\\" + m_name;
        m_machine = L"SOFTWARE\\" + m_name;
        CreateKey(HKEY_CURRENT_USER, m_user);
        Remove(HKEY_CURRENT_USER, m_user);
        Remove(HKEY_LOCAL_MACHINE, m_machine);
    }
    void TearDown() override {
        for (auto it = m_cleanup.rbegin(); it != m_cleanup.rend(); ++it) {
            RegDeleteTreeW(it->first, it->second.c_str());
            EXPECT_FALSE(KeyExists(it->first, it->second)) << Narrow(it->second);
        }
    }
    void Remove(HKEY root, const std::wstring& subkey) { m_cleanup.emplace_back(root, subkey); }

    // "HKEY_CURRENT_USER\Software\KorvantaTest-...[\tail]" as UTF-8.
    std::string UserPath(const std::wstring& tail = L"") const {
        return Narrow(L"HKEY_CURRENT_USER\\" + m_user + (tail.empty() ? L"" : L"\\" + tail));
    }

    std::wstring m_name, m_user, m_machine;
    std::vector<std::pair<HKEY, std::wstring>> m_cleanup;
};

constexpr DWORD kUntouched = 0xDEADu;

// ---------------------------------------------------------------------------
// Parsing

TEST(RegistryParse, Table) {
    const std::string app = GetModuleBaseName().Text();
    struct Case {
        const char* path;
        const char* subpath;
        const char* machine;
        const char* root;
        std::string subkey;
    } cases[] = {
        {"HKEY_LOCAL_MACHINE\\SOFTWARE\\Korvanta", nullptr, "", "HKEY_LOCAL_MACHINE",
         "SOFTWARE\\Korvanta"},
        {"HKEY_LOCAL_MACHINE\\SOFTWARE\\Policies\\Korvanta\\NativeClient", "Cloud", "",
         "HKEY_LOCAL_MACHINE", "SOFTWARE\\Policies\\Korvanta\\NativeClient\\Cloud"},
        // Computer names; "." is the local registry.
        {"\\\\server7\\HKEY_USERS\\.DEFAULT", nullptr, "server7", "HKEY_USERS", ".DEFAULT"},
        {"\\\\.\\HKEY_CURRENT_USER\\Software", nullptr, "", "HKEY_CURRENT_USER", "Software"},
        {"\\\\..\\HKEY_CURRENT_USER", nullptr, "..", "HKEY_CURRENT_USER", ""},
        {"\\\\host", nullptr, "host", "", ""},
        // Abbreviations: the first root of the table that begins so.
        {"HKEY_LOCAL\\X", nullptr, "", "HKEY_LOCAL_MACHINE", "X"},
        {"H\\X", nullptr, "", "HKEY_CLASSES_ROOT", "X"},
        {"HKEY_\\X", nullptr, "", "HKEY_CLASSES_ROOT", "X"},
        {"HKEY_CU", nullptr, "", "HKEY_CURRENT_USER", ""},
        {"HKEY_CURRENT_\\X", nullptr, "", "HKEY_CURRENT_USER", "X"},
        {"HKEY_CURRENT_C\\X", nullptr, "", "HKEY_CURRENT_CONFIG", "X"},
        {"HKEY_P", nullptr, "", "HKEY_PERFORMANCE_DATA", ""},
        {"HKEY_D\\X", nullptr, "", "HKEY_DYN_DATA", "X"},
        {"HKEY_USERS\\S-1-5-18", nullptr, "", "HKEY_USERS", "S-1-5-18"},
        // Pseudo roots come after the real ones, with their prefixes.
        {"HKEY_COMPANY", nullptr, "", "HKEY_CURRENT_USER", "Software\\Korvanta"},
        {"HKEY_CO\\Sub", "Deeper", "", "HKEY_CURRENT_USER", "Software\\Korvanta\\Sub\\Deeper"},
        {"HKEY_ENVIRONMENT", nullptr, "", "HKEY_CURRENT_USER", "Software\\Korvanta\\Environment"},
        {"HKEY_E\\X", nullptr, "", "HKEY_CURRENT_USER", "Software\\Korvanta\\Environment\\X"},
        {"HKEY_APPLICATION\\Settings", nullptr, "", "HKEY_CURRENT_USER",
         "Software\\Korvanta\\" + app + "\\Settings"},
        {"\\\\.\\HKEY_APPLICATION", nullptr, "", "HKEY_CURRENT_USER", "Software\\Korvanta\\" + app},
        // Case counts; longer or foreign names match nothing and keep their component.
        {"hkey_local_machine\\SOFTWARE", nullptr, "", "", "hkey_local_machine\\SOFTWARE"},
        {"HKEY_Local_Machine\\SOFTWARE", nullptr, "", "", "HKEY_Local_Machine\\SOFTWARE"},
        {"HKLM\\SOFTWARE", "X", "", "", "HKLM\\SOFTWARE\\X"},
        {"HKEY_LOCAL_MACHINEX\\A", nullptr, "", "", "HKEY_LOCAL_MACHINEX\\A"},
        {"HKEY_COMPANYX", nullptr, "", "", "HKEY_COMPANYX"},
        // Subpath joining and trailing backslashes.
        {"HKEY_CURRENT_USER\\Software\\", "X\\", "", "HKEY_CURRENT_USER", "Software\\X"},
        {"HKEY_CURRENT_USER\\Software", "A\\B", "", "HKEY_CURRENT_USER", "Software\\A\\B"},
        {"HKEY_CURRENT_USER\\Software", "", "", "HKEY_CURRENT_USER", "Software"},
        {"HKEY_CURRENT_USER\\", nullptr, "", "HKEY_CURRENT_USER", ""},
        {"HKEY_CURRENT_USER", "Software", "", "HKEY_CURRENT_USER", "Software"},
        {nullptr, "HKEY_CURRENT_USER\\Software", "", "HKEY_CURRENT_USER", "Software"},
        {"", "\\\\box\\HKEY_LOCAL_MACHINE\\A", "box", "HKEY_LOCAL_MACHINE", "A"},
        {nullptr, nullptr, "", "", ""},
        // Non-ASCII components pass through.
        {"HKEY_CURRENT_USER\\Software\\Gr\xC3\xBC\xC3\x9F"
         "e",
         "\xE6\x9D\xB1\xE4\xBA\xAC", "", "HKEY_CURRENT_USER",
         "Software\\Gr\xC3\xBC\xC3\x9F"
         "e\\\xE6\x9D\xB1\xE4\xBA\xAC"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.path ? c.path : "(null)") + " + " +
                     (c.subpath ? c.subpath : "(null)"));
        const RegistryKeyPath parsed = ParseRegistryKeyPath(c.path, c.subpath);
        EXPECT_STREQ(parsed.machine.Text(), c.machine);
        EXPECT_STREQ(parsed.root.Text(), c.root);
        EXPECT_STREQ(parsed.subkey.Text(), c.subkey.c_str());
    }
}

TEST(RegistryParse, RootKeysAndOwner) {
    EXPECT_EQ(GetRegistryRootKey(Str("HKEY_CLASSES_ROOT")), HKEY_CLASSES_ROOT);
    EXPECT_EQ(GetRegistryRootKey(Str("HKEY_CURRENT_USER")), HKEY_CURRENT_USER);
    EXPECT_EQ(GetRegistryRootKey(Str("HKEY_LOCAL_MACHINE")), HKEY_LOCAL_MACHINE);
    EXPECT_EQ(GetRegistryRootKey(Str("HKEY_USERS")), HKEY_USERS);
    EXPECT_EQ(GetRegistryRootKey(Str("HKEY_PERFORMANCE_DATA")), HKEY_PERFORMANCE_DATA);
    EXPECT_EQ(GetRegistryRootKey(Str("HKEY_CURRENT_CONFIG")), HKEY_CURRENT_CONFIG);
    EXPECT_EQ(GetRegistryRootKey(Str("HKEY_DYN_DATA")), HKEY_DYN_DATA);
    // Opening compares exactly: abbreviations are the parser's business.
    EXPECT_EQ(GetRegistryRootKey(Str("HKEY_LOCAL")), nullptr);
    EXPECT_EQ(GetRegistryRootKey(Str("hkey_users")), nullptr);
    EXPECT_EQ(GetRegistryRootKey(Str()), nullptr);

    EXPECT_TRUE(IsPredefinedRegistryKey(HKEY_CLASSES_ROOT));
    EXPECT_TRUE(IsPredefinedRegistryKey(HKEY_DYN_DATA));
    EXPECT_FALSE(IsPredefinedRegistryKey(nullptr));

    // Closing a key keeps the caller's last error.
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, L"Software", 0, KEY_READ, &key), ERROR_SUCCESS);
    {
        UniqueRegKey owner(key);
        SetLastError(1234);
    }
    EXPECT_EQ(GetLastError(), 1234u);
    // The owner leaves predefined keys alone.
    { UniqueRegKey owner(HKEY_CURRENT_USER); }
    EXPECT_TRUE(KeyExists(HKEY_CURRENT_USER, L"Software"));
}

// ---------------------------------------------------------------------------
// Opening

TEST_F(RegistryTest, OpenModes) {
    SetRawText(HKEY_CURRENT_USER, m_user + L"\\Existing", L"v", REG_SZ, L"here");
    const std::string computer = ComputerName();
    ASSERT_FALSE(computer.empty());
    const std::wstring user = L"HKEY_CURRENT_USER\\" + m_user;
    struct Case {
        std::string path;
        uint32_t mode;
        uint32_t view;
        bool opens;
        DWORD error;
        bool writable;           // a value can be set through the handle
        std::wstring createdKey; // below HKEY_CURRENT_USER, expected afterwards
        bool createdExists;
    } cases[] = {
        {UserPath(L"Existing"), 0, 0, true, 0, false, m_user + L"\\Existing", true},
        {UserPath(L"Existing"), 1, 0, true, 0, false, m_user + L"\\Existing", true},
        {UserPath(L"Existing"), 2, 0, true, 0, true, m_user + L"\\Existing", true},
        {UserPath(L"Existing"), 0, 2, true, 0, false, m_user + L"\\Existing", true},
        {UserPath(L"Missing"), 0, 0, false, ERROR_FILE_NOT_FOUND, false, m_user + L"\\Missing",
         false},
        {UserPath(L"Missing"), 1, 0, false, ERROR_FILE_NOT_FOUND, false, m_user + L"\\Missing",
         false},
        {UserPath(L"Created\\Two\\Levels"), 2, 0, true, 0, true, m_user + L"\\Created\\Two\\Levels",
         true},
        {UserPath(L"Existing"), 3, 0, false, ERROR_INVALID_PARAMETER, false, L"", false},
        {UserPath(L"Existing"), 0, 3, false, ERROR_INVALID_PARAMETER, false, L"", false},
        {"HKEY_NOPE\\" + Narrow(m_user) + "\\Nope", 2, 0, false, ERROR_BAD_PATHNAME, false,
         m_user + L"\\Nope", false},
        {"hkey_current_user\\" + Narrow(m_user) + "\\Lower", 2, 0, false, ERROR_BAD_PATHNAME, false,
         m_user + L"\\Lower", false},
        // Abbreviated root, the local computer as ".", and by its own name.
        {"HKEY_CU\\" + Narrow(m_user) + "\\Existing", 0, 0, true, 0, false, L"", false},
        {"\\\\.\\" + UserPath(L"Existing"), 0, 0, true, 0, false, L"", false},
        {"\\\\" + computer + "\\" + UserPath(L"Existing"), 0, 0, true, 0, false, L"", false},
        {"\\\\" + computer + "\\" + UserPath(L"ViaName"), 2, 0, true, 0, true,
         m_user + L"\\ViaName", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path + " mode " + std::to_string(c.mode) + " view " +
                     std::to_string(c.view));
        SetLastError(kUntouched);
        UniqueRegKey key(OpenRegistryKey(ParseRegistryKeyPath(c.path.c_str()), c.mode, c.view));
        EXPECT_EQ(GetLastError(), c.error);
        ASSERT_EQ(static_cast<bool>(key), c.opens);
        if (c.opens) {
            EXPECT_FALSE(IsPredefinedRegistryKey(key.Get()));
            const DWORD one = 1;
            const LONG set = RegSetValueExW(key.Get(), L"probe", 0, REG_DWORD,
                                            reinterpret_cast<const BYTE*>(&one), sizeof one);
            EXPECT_EQ(set == ERROR_SUCCESS, c.writable) << set;
            if (c.createdKey == m_user + L"\\Existing" || c.createdKey.empty()) {
                EXPECT_STREQ(ReadRegistryText(key.Get(), "v").Text(), "here");
            }
        }
        if (!c.createdKey.empty()) {
            EXPECT_EQ(KeyExists(HKEY_CURRENT_USER, c.createdKey), c.createdExists);
        }
    }
}

TEST_F(RegistryTest, OpenRootsAndRemoteFailures) {
    // An empty subkey gives the root itself.
    SetLastError(kUntouched);
    EXPECT_EQ(OpenRegistryKey(ParseRegistryKeyPath("HKEY_CURRENT_USER"), 0, 0), HKEY_CURRENT_USER);
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(OpenRegistryKey(ParseRegistryKeyPath("\\\\.\\HKEY_LOCAL_MACHINE\\"), 2, 0),
              HKEY_LOCAL_MACHINE);

    // A computer name connects; the handle finds our values.
    SetRawText(HKEY_CURRENT_USER, m_user, L"v", REG_SZ, L"remote");
    const std::string computer = ComputerName();
    UniqueRegKey connected(OpenRegistryKey(
        ParseRegistryKeyPath(("\\\\" + computer + "\\HKEY_CURRENT_USER").c_str()), 0, 0));
    ASSERT_TRUE(connected);
    HKEY sub = nullptr;
    ASSERT_EQ(RegOpenKeyExW(connected.Get(), m_user.c_str(), 0, KEY_READ, &sub), ERROR_SUCCESS);
    UniqueRegKey subOwner(sub);
    EXPECT_STREQ(ReadRegistryText(sub, "v").Text(), "remote");

    // A computer that does not exist: no key, the connection's error.
    SetLastError(kUntouched);
    EXPECT_EQ(OpenRegistryKey(
                  ParseRegistryKeyPath("\\\\kvt-no-such-host\\HKEY_LOCAL_MACHINE\\SOFTWARE"), 0, 0),
              nullptr);
    const DWORD error = GetLastError();
    EXPECT_TRUE(error == ERROR_BAD_NETPATH || error == RPC_S_SERVER_UNAVAILABLE) << error;
}

TEST_F(RegistryTest, Views) {
    const std::wstring wow = L"SOFTWARE\\WOW6432Node\\" + m_name;
    Remove(HKEY_LOCAL_MACHINE, wow);
    const std::string path = Narrow(L"HKEY_LOCAL_MACHINE\\" + m_machine);

    UniqueRegKey key32(OpenRegistryKey(ParseRegistryKeyPath(path.c_str(), "View32"), 2, 1));
    ASSERT_TRUE(key32) << GetLastError();
    UniqueRegKey key64(OpenRegistryKey(ParseRegistryKeyPath(path.c_str(), "View64"), 2, 2));
    ASSERT_TRUE(key64) << GetLastError();

    // The 32-bit view lives in the redirected branch, the 64-bit one in the native branch.
    EXPECT_TRUE(KeyExists(HKEY_LOCAL_MACHINE, wow + L"\\View32", KEY_WOW64_64KEY));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, m_machine + L"\\View32", KEY_WOW64_64KEY));
    EXPECT_TRUE(KeyExists(HKEY_LOCAL_MACHINE, m_machine + L"\\View64", KEY_WOW64_64KEY));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, wow + L"\\View64", KEY_WOW64_64KEY));

    // Reading through each view finds only that view's key.
    UniqueRegKey read32(OpenRegistryKey(ParseRegistryKeyPath(path.c_str(), "View32"), 0, 1));
    EXPECT_TRUE(read32);
    SetLastError(kUntouched);
    EXPECT_EQ(OpenRegistryKey(ParseRegistryKeyPath(path.c_str(), "View32"), 0, 2), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

// ---------------------------------------------------------------------------
// Reading

TEST_F(RegistryTest, ReadNumber) {
    const std::wstring sub = m_user + L"\\Numbers";
    const DWORD seven = 7, max = 0xFFFFFFFFu;
    const unsigned long long quad = 5;
    const BYTE four[4] = {1, 0, 0, 0};
    SetRaw(HKEY_CURRENT_USER, sub, L"dword7", REG_DWORD, &seven, 4);
    SetRaw(HKEY_CURRENT_USER, sub, L"dwordMax", REG_DWORD, &max, 4);
    SetRaw(HKEY_CURRENT_USER, sub, L"dwordShort", REG_DWORD, &seven, 2);
    SetRaw(HKEY_CURRENT_USER, sub, L"binary4", REG_BINARY, four, 4);
    SetRaw(HKEY_CURRENT_USER, sub, L"qword", REG_QWORD, &quad, 8);
    SetRawText(HKEY_CURRENT_USER, sub, L"sz42", REG_SZ, L"42");
    SetRawText(HKEY_CURRENT_USER, sub, L"sz0", REG_SZ, L"0");
    SetRawText(HKEY_CURRENT_USER, sub, L"szBlanks", REG_SZ, L" 17\t");
    SetRawText(HKEY_CURRENT_USER, sub, L"szMax", REG_SZ, L"4294967295");
    SetRawText(HKEY_CURRENT_USER, sub, L"szHuge", REG_SZ, L"4294967296");
    SetRawText(HKEY_CURRENT_USER, sub, L"szNegative", REG_SZ, L"-1");
    SetRawText(HKEY_CURRENT_USER, sub, L"szHex", REG_SZ, L"0x10");
    SetRawText(HKEY_CURRENT_USER, sub, L"szTrailing", REG_SZ, L"12abc");
    SetRawText(HKEY_CURRENT_USER, sub, L"szEmpty", REG_SZ, L"");
    SetRawText(HKEY_CURRENT_USER, sub, L"expand", REG_EXPAND_SZ, L"%KVT_REGTEST_NUMBER%");
    SetRawText(HKEY_CURRENT_USER, sub, nullptr, REG_SZ, L"64");
    ASSERT_TRUE(SetEnvironmentVariableW(L"KVT_REGTEST_NUMBER", L"31"));

    const std::string path = UserPath();
    struct Case {
        std::string path;
        const char* subpath;
        const char* name;
        bool asNumber;
        uint32_t expected;
        DWORD error;
    } cases[] = {
        {path, "Numbers", "dword7", true, 7, 0},
        {path, "Numbers", "dwordMax", true, 0xFFFFFFFFu, 0},
        {path, "Numbers", "dword7", false, 99, 0}, // its data is no decimal text
        {path, "Numbers", "dwordShort", true, 99, 0},
        {path, "Numbers", "binary4", true, 99, 0},
        {path, "Numbers", "qword", true, 99, 0},
        {path, "Numbers", "sz0", true, 99, 0},
        {path, "Numbers", "sz0", false, 0, 0},
        {path, "Numbers", "sz42", true, 99, 0},
        {path, "Numbers", "sz42", false, 42, 0},
        {path, "Numbers", "szBlanks", false, 17, 0},
        {path, "Numbers", "szMax", false, 0xFFFFFFFFu, 0},
        {path, "Numbers", "szHuge", false, 99, 0},
        {path, "Numbers", "szNegative", false, 99, 0},
        {path, "Numbers", "szHex", false, 99, 0},
        {path, "Numbers", "szTrailing", false, 99, 0},
        {path, "Numbers", "szEmpty", false, 99, 0},
        {path, "Numbers", "expand", false, 31, 0},
        {path, "Numbers", nullptr, false, 64, 0},
        {path + "\\Numbers", nullptr, "sz42", false, 42, 0},
        {path, "Numbers", "absent", true, 99, ERROR_FILE_NOT_FOUND},
        {path, "Numbers", "absent", false, 99, ERROR_FILE_NOT_FOUND},
        {path, "NoSuchKey", "dword7", true, 99, ERROR_FILE_NOT_FOUND},
        {"HKEY_NOPE\\" + Narrow(m_user), "Numbers", "dword7", true, 99, ERROR_BAD_PATHNAME},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path + " " + (c.subpath ? c.subpath : "") + " " +
                     (c.name ? c.name : "(default)") + (c.asNumber ? " number" : " text"));
        SetLastError(kUntouched);
        EXPECT_EQ(ReadRegistryNumber(c.path.c_str(), c.subpath, c.name, 99, c.asNumber),
                  c.expected);
        EXPECT_EQ(GetLastError(), c.error);
    }
    SetEnvironmentVariableW(L"KVT_REGTEST_NUMBER", nullptr);
}

TEST_F(RegistryTest, ReadText) {
    const std::wstring sub = m_user + L"\\Texts";
    const std::wstring folder = L"C:\\Gr\u00FC\u00DFe \u6771\u4EAC";
    ASSERT_TRUE(SetEnvironmentVariableW(L"KVT_REGTEST_DIR", folder.c_str()));
    const std::wstring longText(3000, L'\u00E9');
    SetRawText(HKEY_CURRENT_USER, sub, L"plain", REG_SZ, L"plain text");
    SetRawText(HKEY_CURRENT_USER, sub, L"long", REG_SZ, longText);
    SetRawText(HKEY_CURRENT_USER, sub, L"empty", REG_SZ, L"");
    SetRaw(HKEY_CURRENT_USER, sub, L"zeroBytes", REG_SZ, L"", 0);
    SetRaw(HKEY_CURRENT_USER, sub, L"unterminated", REG_SZ, L"abcdef", 6); // "abc", no null
    SetRaw(HKEY_CURRENT_USER, sub, L"multi", REG_MULTI_SZ, L"one\0two\0", 18);
    SetRawText(HKEY_CURRENT_USER, sub, L"percentSz", REG_SZ, L"%KVT_REGTEST_DIR%");
    SetRawText(HKEY_CURRENT_USER, sub, L"expand", REG_EXPAND_SZ, L"%KVT_REGTEST_DIR%\\sub");
    SetRawText(HKEY_CURRENT_USER, sub, L"expandUnknown", REG_EXPAND_SZ,
               L"%KVT_REGTEST_NO_SUCH_VARIABLE%\\x");
    SetRawText(HKEY_CURRENT_USER, sub, L"expandLong", REG_EXPAND_SZ,
               L"%KVT_REGTEST_DIR%" + longText + L"%KVT_REGTEST_DIR%");
    SetRawText(HKEY_CURRENT_USER, sub, nullptr, REG_SZ, L"default text");
    SetRawText(HKEY_CURRENT_USER, sub, L"gr\u00FC\u00DFe", REG_SZ, L"named in UTF-8");

    UniqueRegKey key(OpenRegistryKey(ParseRegistryKeyPath(UserPath(L"Texts").c_str()), 0, 0));
    ASSERT_TRUE(key);
    struct Case {
        const char* name;
        std::wstring expected;
        DWORD error;
    } cases[] = {
        {"plain", L"plain text", 0},
        {"long", longText, 0},
        {"empty", L"", 0},
        {"zeroBytes", L"", 0},
        {"unterminated", L"abc", 0},
        {"multi", L"one", 0},
        {"percentSz", L"%KVT_REGTEST_DIR%", 0},
        {"expand", folder + L"\\sub", 0},
        {"expandUnknown", L"%KVT_REGTEST_NO_SUCH_VARIABLE%\\x", 0},
        {"expandLong", folder + longText + folder, 0},
        {nullptr, L"default text", 0},
        {"", L"default text", 0},
        {"gr\xC3\xBC\xC3\x9F"
         "e",
         L"named in UTF-8", 0},
        {"absent", L"", ERROR_FILE_NOT_FOUND},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name ? c.name : "(default)");
        SetLastError(kUntouched);
        const Str text = ReadRegistryText(key.Get(), c.name);
        EXPECT_EQ(Widen(text.Text()), c.expected);
        EXPECT_EQ(GetLastError(), c.error);
    }

    // The convenience form opens the key itself; a missing key or a bad handle is "" too.
    EXPECT_STREQ(ReadRegistryTextAt(UserPath().c_str(), "Texts", "plain").Text(), "plain text");
    SetLastError(kUntouched);
    EXPECT_STREQ(ReadRegistryTextAt(UserPath().c_str(), "NoSuchKey", "plain").Text(), "");
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    SetLastError(kUntouched);
    EXPECT_STREQ(ReadRegistryText(nullptr, "plain").Text(), "");
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    SetEnvironmentVariableW(L"KVT_REGTEST_DIR", nullptr);
}

// ---------------------------------------------------------------------------
// Writing and existence

TEST_F(RegistryTest, WriteAndReadBack) {
    const std::string path = UserPath();
    const std::string longText(10000, 'x');
    struct Case {
        const char* name;
        std::string text;
    } cases[] = {
        {"ascii", "C:\\Program Files\\Korvanta\\Update\\A.msi"},
        {"empty", ""},
        {"unicode", "Gr\xC3\xBC\xC3\x9F"
                    "e \xE2\x80\x93 \xE6\x9D\xB1\xE4\xBA\xAC \xF0\x9F\x98\x80"},
        {"long", longText},
        {"\xE6\x9D\xB1", "value whose name is not ASCII"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SetLastError(kUntouched);
        ASSERT_TRUE(WriteRegistryText(path.c_str(), "Write\\Deep", c.name, c.text.c_str()));
        EXPECT_EQ(GetLastError(), 0u);
        // Stored as REG_SZ with exactly one terminating null.
        const std::wstring wide = Widen(c.text);
        const RawValue raw =
            QueryRaw(HKEY_CURRENT_USER, m_user + L"\\Write\\Deep", Widen(c.name).c_str());
        ASSERT_TRUE(raw.present);
        EXPECT_EQ(raw.type, static_cast<DWORD>(REG_SZ));
        EXPECT_EQ(raw.data.size(), wide.size() * 2 + 2);
        EXPECT_EQ(RawText(raw), wide);
        EXPECT_EQ(ReadRegistryTextAt(path.c_str(), "Write\\Deep", c.name).Text(), c.text);
    }

    // A text replaces a number of the same name; a number replaces a text.
    ASSERT_TRUE(WriteRegistryNumber(path.c_str(), "Write", "n", 0x12345678));
    RawValue raw = QueryRaw(HKEY_CURRENT_USER, m_user + L"\\Write", L"n");
    EXPECT_EQ(raw.type, static_cast<DWORD>(REG_DWORD));
    EXPECT_EQ(raw.data.size(), 4u);
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "n", 0, true), 0x12345678u);
    ASSERT_TRUE(WriteRegistryText(path.c_str(), "Write", "n", "77"));
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "n", 0, true), 0u);
    EXPECT_EQ(ReadRegistryNumber(path.c_str(), "Write", "n", 0, false), 77u);

    // The default value, and a null text written as "".
    ASSERT_TRUE(WriteRegistryText(path.c_str(), "Write", nullptr, nullptr));
    raw = QueryRaw(HKEY_CURRENT_USER, m_user + L"\\Write", nullptr);
    EXPECT_TRUE(raw.present);
    EXPECT_EQ(raw.data.size(), 2u);

    // Failures write nothing and say why.
    struct Failure {
        std::string path;
        const char* name;
        const char* text;
        DWORD error;
    } failures[] = {
        {"HKEY_NOPE\\" + Narrow(m_user), "x", "text", ERROR_BAD_PATHNAME},
        {"hkey_current_user\\" + Narrow(m_user), "x", "text", ERROR_BAD_PATHNAME},
        {path, "bad", "\xFF\xFE", ERROR_NO_UNICODE_TRANSLATION},
        {path, "\xC3", "name does not convert", ERROR_NO_UNICODE_TRANSLATION},
    };
    for (const Failure& f : failures) {
        SCOPED_TRACE(f.path + " " + f.name);
        SetLastError(kUntouched);
        EXPECT_FALSE(WriteRegistryText(f.path.c_str(), "Fail", f.name, f.text));
        EXPECT_EQ(GetLastError(), f.error);
        EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, m_user + L"\\Fail"));
    }
}

TEST_F(RegistryTest, ValueExists) {
    SetRawText(HKEY_CURRENT_USER, m_user + L"\\Exists", L"there", REG_SZ, L"1");
    CreateKey(HKEY_CURRENT_USER, m_user + L"\\Exists\\NoDefault");
    SetRawText(HKEY_CURRENT_USER, m_user + L"\\Exists\\WithDefault", nullptr, REG_SZ, L"d");
    const DWORD zero = 0;
    SetRaw(HKEY_CURRENT_USER, m_user + L"\\Exists", L"number", REG_DWORD, &zero, 4);
    struct Case {
        std::wstring tail;
        const char* name;
        bool exists;
        DWORD error;
    } cases[] = {
        {L"Exists", "there", true, 0},
        {L"Exists", "THERE", true, 0}, // value names ignore case
        {L"Exists", "number", true, 0},
        {L"Exists", "absent", false, ERROR_FILE_NOT_FOUND},
        {L"Exists\\NoDefault", nullptr, false, ERROR_FILE_NOT_FOUND},
        {L"Exists\\NoDefault", "", false, ERROR_FILE_NOT_FOUND},
        {L"Exists\\WithDefault", nullptr, true, 0},
        {L"Missing", "there", false, ERROR_FILE_NOT_FOUND},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.tail) + " " + (c.name ? c.name : "(default)"));
        SetLastError(kUntouched);
        EXPECT_EQ(RegistryValueExists(UserPath(c.tail).c_str(), c.name), c.exists);
        EXPECT_EQ(GetLastError(), c.error);
    }
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, m_user + L"\\Missing"));
}

// ---------------------------------------------------------------------------
// Environment

TEST_F(RegistryTest, EnvironmentFallsBackToRegistry) {
    const std::wstring name = UniqueName(L"KVT_REGTEST_ENV");
    const std::string narrowName = Narrow(name);
    const std::wstring envKey = L"Software\\Korvanta\\Environment";
    // Leave the company key as it was found.
    if (!KeyExists(HKEY_CURRENT_USER, L"Software\\Korvanta"))
        Remove(HKEY_CURRENT_USER, L"Software\\Korvanta");
    else if (!KeyExists(HKEY_CURRENT_USER, envKey))
        Remove(HKEY_CURRENT_USER, envKey);

    // Neither the process nor the registry has it.
    SetEnvironmentVariableW(name.c_str(), nullptr);
    EXPECT_STREQ(GetEnvironment(narrowName.c_str()).Text(), "");

    // The registry value sits in the per-user environment key.
    ASSERT_TRUE(
        WriteRegistryText("HKEY_ENVIRONMENT", nullptr, narrowName.c_str(), "from registry"));
    EXPECT_EQ(RawText(QueryRaw(HKEY_CURRENT_USER, envKey, name.c_str())), L"from registry");

    struct Case {
        const wchar_t* process; // null: unset
        const char* expected;
    } cases[] = {
        {nullptr, "from registry"},
        {L"", "from registry"},
        {L"from process \u00E4", "from process \xC3\xA4"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        ASSERT_TRUE(SetEnvironmentVariableW(name.c_str(), c.process) || c.process == nullptr);
        EXPECT_STREQ(GetEnvironment(narrowName.c_str()).Text(), c.expected);
    }
    SetEnvironmentVariableW(name.c_str(), nullptr);

    // A REG_EXPAND_SZ in the registry is expanded against the process environment.
    ASSERT_TRUE(SetEnvironmentVariableW(L"KVT_REGTEST_PART", L"expanded"));
    SetRawText(HKEY_CURRENT_USER, envKey, name.c_str(), REG_EXPAND_SZ, L"<%KVT_REGTEST_PART%>");
    EXPECT_STREQ(GetEnvironment(narrowName.c_str()).Text(), "<expanded>");
    SetEnvironmentVariableW(L"KVT_REGTEST_PART", nullptr);

    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, envKey.c_str(), 0, KEY_SET_VALUE, &key),
              ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueW(key, name.c_str()), ERROR_SUCCESS);
    RegCloseKey(key);
    EXPECT_STREQ(GetEnvironment(narrowName.c_str()).Text(), "");
    EXPECT_STREQ(GetEnvironment("").Text(), "");
    EXPECT_STREQ(GetEnvironment(nullptr).Text(), "");
}

// ---------------------------------------------------------------------------
// Class registrations below HKEY_CLASSES_ROOT

class RegistryClassesTest : public RegistryTest {
  protected:
    static constexpr const wchar_t* kUserClasses = L"Software\\Classes\\";
    static constexpr const wchar_t* kMachineClasses = L"SOFTWARE\\Classes\\";

    // Makes the per-user class key exist (and be removed afterwards).
    void CreateUserClass(const std::wstring& classKey) {
        CreateKey(HKEY_CURRENT_USER, kUserClasses + classKey);
        Remove(HKEY_CURRENT_USER, kUserClasses + classKey);
    }
    // Which branch holds value "v" below the class key, and with which text.
    void ExpectLanded(const std::wstring& classKey, bool perUser, const std::wstring& text) {
        const RawValue user = QueryRaw(HKEY_CURRENT_USER, kUserClasses + classKey, L"v");
        const RawValue machine = QueryRaw(HKEY_LOCAL_MACHINE, kMachineClasses + classKey, L"v");
        EXPECT_EQ(user.present, perUser) << "per-user " << Narrow(classKey);
        EXPECT_EQ(machine.present, !perUser) << "machine " << Narrow(classKey);
        EXPECT_EQ(RawText(perUser ? user : machine), text);
    }
    void Forget(const std::wstring& top) {
        Remove(HKEY_CURRENT_USER, kUserClasses + top);
        Remove(HKEY_LOCAL_MACHINE, kMachineClasses + top);
    }
};

TEST_F(RegistryClassesTest, WritesGoPerUserOnlyWhereTheUserHasTheClass) {
    // The per-user ClsID and Mime\Database keys exist for every case, so only
    // the class's own key (class key plus one component) can decide.
    const std::wstring marker = UniqueGuid();
    CreateUserClass(L"ClsID\\" + marker);
    const std::wstring mimeMarker = UniqueName(L"kvt-marker");
    CreateUserClass(L"Mime\\Database\\Content Type\\" + mimeMarker);

    const std::wstring machineGuid = UniqueGuid(), userGuid = UniqueGuid(),
                       lowerGuid = UniqueGuid(), selfGuid = UniqueGuid();
    const std::wstring mimeType = L"application/x-" + UniqueName(L"kvt");
    const std::wstring plainMachine = UniqueName(L"KvtClass"), plainUser = UniqueName(L"KvtClass");
    CreateUserClass(L"ClsID\\" + userGuid);
    CreateUserClass(L"CLSID\\" + selfGuid);
    CreateUserClass(plainUser);
    for (const std::wstring& guid : {machineGuid, userGuid, lowerGuid, selfGuid})
        Forget(L"ClsID\\" + guid);
    Forget(L"Mime\\Database\\Content Type\\" + mimeType);
    Forget(plainMachine);
    Forget(plainUser);

    struct Case {
        std::wstring path;      // below HKEY_CLASSES_ROOT, as written
        std::wstring landedKey; // below Software\Classes
        bool perUser;
    } cases[] = {
        {L"ClsID\\" + machineGuid + L"\\InprocServer32",
         L"ClsID\\" + machineGuid + L"\\InprocServer32", false},
        {L"ClsID\\" + userGuid + L"\\InprocServer32", L"ClsID\\" + userGuid + L"\\InprocServer32",
         true},
        // The class key matches in any case; the user's "ClsID" alone decides nothing.
        {L"clsid\\" + lowerGuid + L"\\X", L"ClsID\\" + lowerGuid + L"\\X", false},
        // No tail: the per-user class key itself.
        {L"CLSID\\" + selfGuid, L"ClsID\\" + selfGuid, true},
        // The nested entry wins over "Mime" and "Mime\Database", whose per-user keys exist.
        {L"Mime\\Database\\Content Type\\" + mimeType + L"\\Sub",
         L"Mime\\Database\\Content Type\\" + mimeType + L"\\Sub", false},
        // Not a listed class key: the first component decides.
        {plainMachine + L"\\A\\B", plainMachine + L"\\A\\B", false},
        {plainUser + L"\\A\\B", plainUser + L"\\A\\B", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.path));
        const std::string path = Narrow(L"HKEY_CLASSES_ROOT\\" + c.path);
        SetLastError(kUntouched);
        ASSERT_TRUE(WriteRegistryText(path.c_str(), nullptr, "v", "written"));
        EXPECT_EQ(GetLastError(), 0u);
        ExpectLanded(c.landedKey, c.perUser, L"written");
    }
}

TEST_F(RegistryClassesTest, FallsBackToUserWhenMachineRefuses) {
    // The machine's key grants everyone reading and deletion only.
    const std::wstring locked = UniqueName(L"KvtLocked");
    Forget(locked);
    CreateKey(HKEY_LOCAL_MACHINE, kMachineClasses + locked + L"\\A");
    EXPLICIT_ACCESSW access = {};
    access.grfAccessPermissions = KEY_READ | DELETE;
    access.grfAccessMode = SET_ACCESS;
    access.grfInheritance = NO_INHERITANCE;
    access.Trustee.TrusteeForm = TRUSTEE_IS_NAME;
    access.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    access.Trustee.ptstrName = const_cast<wchar_t*>(L"EVERYONE");
    PACL acl = nullptr;
    ASSERT_EQ(SetEntriesInAclW(1, &access, nullptr, &acl), ERROR_SUCCESS);
    const std::wstring lockedPath = kMachineClasses + locked + L"\\A";
    const DWORD set = SetNamedSecurityInfoW(
        const_cast<wchar_t*>((L"MACHINE\\" + lockedPath).c_str()), SE_REGISTRY_KEY,
        DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr, nullptr, acl,
        nullptr);
    LocalFree(acl);
    ASSERT_EQ(set, ERROR_SUCCESS);
    HKEY probe = nullptr;
    const LONG refused =
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, lockedPath.c_str(), 0, nullptr, 0,
                        KEY_READ | KEY_SET_VALUE | KEY_CREATE_SUB_KEY, nullptr, &probe, nullptr);
    if (refused == ERROR_SUCCESS) {
        RegCloseKey(probe);
        GTEST_SKIP() << "this registry does not enforce key access lists";
    }

    const std::string path = Narrow(L"HKEY_CLASSES_ROOT\\" + locked + L"\\A");
    ASSERT_TRUE(WriteRegistryText(path.c_str(), nullptr, "v", "fallback"));
    ExpectLanded(locked + L"\\A", true, L"fallback");
}

TEST_F(RegistryClassesTest, ReadingCreatesNothing) {
    const std::wstring guid = UniqueGuid();
    Forget(L"ClsID\\" + guid);
    const std::string path = Narrow(L"HKEY_CLASSES_ROOT\\ClsID\\" + guid);
    for (uint32_t mode : {0u, 1u}) {
        SetLastError(kUntouched);
        EXPECT_EQ(OpenRegistryKey(ParseRegistryKeyPath(path.c_str()), mode, 0), nullptr);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    }
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, kUserClasses + (L"ClsID\\" + guid)));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kMachineClasses + (L"ClsID\\" + guid)));
}

} // namespace
