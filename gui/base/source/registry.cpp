// Registry access through text key paths. Paths are parsed in UTF-16 so that
// root names compare under the platform's own collation, exactly as the
// registry itself sees the characters.
#include "registry.h"

#include <cstring>
#include <cwchar>

#include "report.h"

namespace {

struct RootEntry {
    const char* name;
    const wchar_t* wideName;
    uint32_t key; // predefined key value before sign extension
};

// Compared in this order; the first match of an abbreviation wins.
const RootEntry kRoots[] = {
    {"HKEY_CLASSES_ROOT", L"HKEY_CLASSES_ROOT", 0x80000000},
    {"HKEY_CURRENT_USER", L"HKEY_CURRENT_USER", 0x80000001},
    {"HKEY_LOCAL_MACHINE", L"HKEY_LOCAL_MACHINE", 0x80000002},
    {"HKEY_USERS", L"HKEY_USERS", 0x80000003},
    {"HKEY_PERFORMANCE_DATA", L"HKEY_PERFORMANCE_DATA", 0x80000004},
    {"HKEY_CURRENT_CONFIG", L"HKEY_CURRENT_CONFIG", 0x80000005},
    {"HKEY_DYN_DATA", L"HKEY_DYN_DATA", 0x80000006},
};
constexpr size_t kCurrentUserIndex = 1;

struct PseudoRoot {
    const wchar_t* name;
    const wchar_t* prefix; // null: the application's own key
};

const PseudoRoot kPseudoRoots[] = {
    {L"HKEY_COMPANY", L"Software\\Korvanta"},
    {L"HKEY_ENVIRONMENT", L"Software\\Korvanta\\Environment"},
    {L"HKEY_APPLICATION", nullptr},
};

// Class keys whose registrations may live per user; searched from the last
// entry so that the longest of nested entries wins.
const wchar_t* const kClassKeys[] = {
    L"AppID",
    L"ClsID",
    L"Component Categories",
    L"Drive",
    L"Drive\\shellex",
    L"Drive\\shellex\\ContextMenuHandlers",
    L"Drive\\shellex\\PropertyShellHandlers",
    L"FileType",
    L"Folder",
    L"Folder\\shellex",
    L"Folder\\shellex\\ColumnHandler",
    L"Folder\\shellex\\ContextMenuHandlers",
    L"Folder\\shellex\\ExtShellFolderViews",
    L"Folder\\shellex\\PropertySheetHandlers",
    L"Installer\\Components",
    L"Installer\\Features",
    L"Installer\\Products",
    L"Interface",
    L"Mime",
    L"Mime\\Database",
    L"Mime\\Database\\Charset",
    L"Mime\\Database\\Codepage",
    L"Mime\\Database\\Content Type",
    L"Typelib",
};

constexpr REGSAM kReadAccess = KEY_READ;                                       // 0x20019
constexpr REGSAM kWriteAccess = KEY_READ | KEY_SET_VALUE | KEY_CREATE_SUB_KEY; // 0x2001F

HKEY PredefinedKey(uint32_t value) {
    return reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(static_cast<LONG>(value)));
}

LCID CompareLocale() {
    const LCID locale = GetThreadLocale();
    return locale != 0 ? locale : 1024;
}

uint32_t WideLength(const wchar_t* text) {
    return static_cast<uint32_t>(wcslen(text));
}

// A root name matches when the component equals its leading part of the
// component's own length; a component longer than the name never matches.
bool MatchesRootName(LCID locale, const wchar_t* component, uint32_t length, const wchar_t* name) {
    if (length == 0)
        return false;
    const uint32_t nameLength = WideLength(name);
    const int count = static_cast<int>(length < nameLength ? length : nameLength);
    return CompareStringW(locale, 0, component, static_cast<int>(length), name, count) ==
           CSTR_EQUAL;
}

// Appends a component, putting one separator between it and what is there.
bool AppendComponent(WStr& out, const wchar_t* text, uint32_t length) {
    if (text == nullptr || length == 0)
        return true;
    const uint32_t have = out.Length();
    if (have != 0 && out.Text()[have - 1] != L'\\' && text[0] != L'\\' && !out.Append(L"\\", 1))
        return false;
    return out.Append(text, length);
}

// UTF-8 to UTF-16; false (with the converter's last error) when a non-empty
// text does not convert, so that it never silently becomes "".
bool ToWide(const char* text, WStr& out) {
    out = WStr();
    if (text == nullptr || *text == 0)
        return true;
    out = WStr::FromUtf8(text, static_cast<uint32_t>(strlen(text)));
    return !out.IsEmpty();
}

// Value names: null stays null (the default value).
bool ToWideName(const char* name, WStr& out, const wchar_t*& pointer) {
    if (!ToWide(name, out))
        return false;
    pointer = name == nullptr ? nullptr : out.Text();
    return true;
}

const wchar_t* Find(const wchar_t* from, const wchar_t* end, wchar_t c) {
    while (from < end && *from != c)
        ++from;
    return from;
}

// Opens or creates a key below HKEY_CLASSES_ROOT: per user when the user
// already has the class's key, else machine-wide, else per user.
LONG CreateClassKey(const wchar_t* subkey, uint32_t length, REGSAM access, HKEY* result) {
    const LCID locale = CompareLocale();
    uint32_t start = 0;
    for (size_t i = sizeof kClassKeys / sizeof kClassKeys[0]; i-- > 0;) {
        const uint32_t entryLength = WideLength(kClassKeys[i]);
        if (length >= entryLength &&
            CompareStringW(locale, NORM_IGNORECASE, subkey, static_cast<int>(entryLength),
                           kClassKeys[i], static_cast<int>(entryLength)) == CSTR_EQUAL) {
            start = entryLength + 1;
            break;
        }
    }
    const wchar_t* end = subkey + length;
    const wchar_t* split = start < length ? Find(subkey + start, end, L'\\') : end;
    const uint32_t headLength = static_cast<uint32_t>(split - subkey);
    const wchar_t* tail = split < end ? split + 1 : end;
    const uint32_t tailLength = static_cast<uint32_t>(end - tail);

    WStr perUser(L"Software\\Classes\\");
    if (!perUser.Append(subkey, headLength))
        return ERROR_OUTOFMEMORY;
    WStr tailText(tail, tailLength);

    UniqueRegKey user;
    LONG status = RegOpenKeyExW(HKEY_CURRENT_USER, perUser.Text(), 0, access, user.Put());
    if (status == ERROR_SUCCESS) {
        if (tailLength == 0) {
            *result = user.Detach();
            return ERROR_SUCCESS;
        }
        return RegCreateKeyExW(user.Get(), tailText.Text(), 0, nullptr, 0, access, nullptr, result,
                               nullptr);
    }
    user.Detach(); // a failed open leaves nothing to close
    WStr full(perUser);
    if (!AppendComponent(full, tail, tailLength))
        return ERROR_OUTOFMEMORY;
    status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, full.Text(), 0, nullptr, 0, access, nullptr,
                             result, nullptr);
    if (status != ERROR_SUCCESS)
        status = RegCreateKeyExW(HKEY_CURRENT_USER, full.Text(), 0, nullptr, 0, access, nullptr,
                                 result, nullptr);
    return status;
}

// A decimal number with optional blanks around it that fits in 32 bits.
bool ParseDecimal(const char* text, uint32_t& value) {
    const char* p = text;
    while (*p == ' ' || *p == '\t')
        ++p;
    uint64_t number = 0;
    const char* digits = p;
    while (*p >= '0' && *p <= '9') {
        number = number * 10 + static_cast<uint64_t>(*p - '0');
        if (number > 0xFFFFFFFFull)
            return false;
        ++p;
    }
    if (p == digits)
        return false;
    while (*p == ' ' || *p == '\t')
        ++p;
    if (*p != 0)
        return false;
    value = static_cast<uint32_t>(number);
    return true;
}

Str ExpandText(const wchar_t* text) {
    DWORD need = ExpandEnvironmentStringsW(text, nullptr, 0);
    for (int attempt = 0; attempt < 4 && need != 0; ++attempt) {
        WStr buffer;
        wchar_t* p = buffer.Reserve(need);
        if (p == nullptr)
            return Str();
        const DWORD got = ExpandEnvironmentStringsW(text, p, need);
        if (got == 0)
            break;
        if (got <= need) {
            Str result = Str::FromUtf16(p, static_cast<uint32_t>(wcsnlen(p, need)));
            SetLastError(ERROR_SUCCESS);
            return result;
        }
        need = got; // the environment grew in between
    }
    return Str();
}

} // namespace

RegistryKeyPath ParseRegistryKeyPath(const char* path, const char* subpath) {
    RegistryKeyPath result;
    if (path == nullptr || *path == 0) {
        path = subpath;
        subpath = nullptr;
    }
    WStr widePath, wideSubpath;
    if (!ToWide(path, widePath) || !ToWide(subpath, wideSubpath))
        return result;

    const wchar_t* p = widePath.Text();
    const wchar_t* end = p + widePath.Length();
    if (end - p >= 2 && p[0] == L'\\' && p[1] == L'\\') {
        const wchar_t* machine = p + 2;
        const wchar_t* stop = Find(machine, end, L'\\');
        const uint32_t length = static_cast<uint32_t>(stop - machine);
        if (!(length == 1 && machine[0] == L'.'))
            result.machine = Str::FromUtf16(machine, length);
        p = stop < end ? stop + 1 : end;
    }

    const wchar_t* componentEnd = Find(p, end, L'\\');
    const uint32_t componentLength = static_cast<uint32_t>(componentEnd - p);
    const wchar_t* rest = componentEnd < end ? componentEnd + 1 : end;

    const LCID locale = CompareLocale();
    WStr subkey;
    bool matched = false;
    for (const RootEntry& entry : kRoots) {
        if (MatchesRootName(locale, p, componentLength, entry.wideName)) {
            result.root = Str(entry.name);
            matched = true;
            break;
        }
    }
    if (!matched) {
        for (const PseudoRoot& pseudo : kPseudoRoots) {
            if (!MatchesRootName(locale, p, componentLength, pseudo.name))
                continue;
            result.root = Str(kRoots[kCurrentUserIndex].name);
            if (pseudo.prefix != nullptr) {
                AppendComponent(subkey, pseudo.prefix, WideLength(pseudo.prefix));
            } else {
                AppendComponent(subkey, L"Software\\Korvanta", WideLength(L"Software\\Korvanta"));
                const WStr name = WStr::FromUtf8(GetModuleBaseName());
                AppendComponent(subkey, name.Text(), name.Length());
            }
            matched = true;
            break;
        }
    }
    // An unknown root keeps its component in the subkey, so nothing is lost.
    if (!matched)
        rest = p;

    AppendComponent(subkey, rest, static_cast<uint32_t>(end - rest));
    AppendComponent(subkey, wideSubpath.Text(), wideSubpath.Length());
    uint32_t length = subkey.Length();
    while (length != 0 && subkey.Text()[length - 1] == L'\\')
        --length;
    result.subkey = Str::FromUtf16(subkey.Text(), length);
    return result;
}

HKEY GetRegistryRootKey(const Str& root) {
    for (const RootEntry& entry : kRoots) {
        if (strcmp(root.Text(), entry.name) == 0)
            return PredefinedKey(entry.key);
    }
    return nullptr;
}

HKEY OpenRegistryKey(const RegistryKeyPath& keyPath, uint32_t mode, uint32_t view) {
    const HKEY root = GetRegistryRootKey(keyPath.root);
    if (root == nullptr) {
        SetLastError(ERROR_BAD_PATHNAME);
        return nullptr;
    }
    if (mode > kRegistryWrite || view > kRegistryView64) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }

    UniqueRegKey remote;
    HKEY base = root;
    if (!keyPath.machine.IsEmpty()) {
        WStr machine(L"\\\\");
        WStr name;
        if (!ToWide(keyPath.machine.Text(), name))
            return nullptr;
        machine.Append(name);
        const LONG status = RegConnectRegistryW(machine.Text(), root, remote.Put());
        SetLastError(static_cast<DWORD>(status));
        if (status != ERROR_SUCCESS) {
            remote.Detach();
            return nullptr;
        }
        base = remote.Get();
    }

    if (keyPath.subkey.IsEmpty()) {
        SetLastError(ERROR_SUCCESS);
        return remote ? remote.Detach() : root;
    }
    WStr subkey;
    if (!ToWide(keyPath.subkey.Text(), subkey))
        return nullptr;

    REGSAM access = mode == kRegistryWrite ? kWriteAccess : kReadAccess;
    if (view == kRegistryView32)
        access |= KEY_WOW64_32KEY;
    else if (view == kRegistryView64)
        access |= KEY_WOW64_64KEY;

    HKEY key = nullptr;
    LONG status;
    if (mode != kRegistryWrite)
        status = RegOpenKeyExW(base, subkey.Text(), 0, access, &key);
    else if (root != HKEY_CLASSES_ROOT)
        status =
            RegCreateKeyExW(base, subkey.Text(), 0, nullptr, 0, access, nullptr, &key, nullptr);
    else
        status = CreateClassKey(subkey.Text(), subkey.Length(), access, &key);
    remote.Reset();
    SetLastError(static_cast<DWORD>(status));
    return status == ERROR_SUCCESS ? key : nullptr;
}

HKEY OpenRegistryKey(const char* path, const char* subpath, uint32_t mode, uint32_t view) {
    return OpenRegistryKey(ParseRegistryKeyPath(path, subpath), mode, view);
}

uint32_t ReadRegistryNumber(const char* path, const char* subpath, const char* valueName,
                            uint32_t defaultValue, bool asNumber) {
    const RegistryKeyPath keyPath = ParseRegistryKeyPath(path, subpath);
    if (keyPath.root.IsEmpty()) {
        SetLastError(ERROR_BAD_PATHNAME);
        return defaultValue;
    }
    UniqueRegKey key(OpenRegistryKey(keyPath, kRegistryReadOnly, kRegistryViewNative));
    if (!key)
        return defaultValue;

    if (!asNumber) {
        uint32_t number = 0;
        const Str text = ReadRegistryText(key.Get(), valueName);
        return ParseDecimal(text.Text(), number) ? number : defaultValue;
    }

    WStr nameBuffer;
    const wchar_t* name = nullptr;
    if (!ToWideName(valueName, nameBuffer, name))
        return defaultValue;
    DWORD type = 0, size = 0;
    LONG status = RegQueryValueExW(key.Get(), name, nullptr, &type, nullptr, &size);
    SetLastError(static_cast<DWORD>(status));
    if (status != ERROR_SUCCESS || type != REG_DWORD || size != 4)
        return defaultValue;
    DWORD number = 0;
    size = sizeof number;
    status =
        RegQueryValueExW(key.Get(), name, nullptr, &type, reinterpret_cast<BYTE*>(&number), &size);
    SetLastError(static_cast<DWORD>(status));
    if (status != ERROR_SUCCESS || type != REG_DWORD || size != 4)
        return defaultValue;
    return number;
}

Str ReadRegistryText(HKEY key, const char* valueName) {
    WStr nameBuffer;
    const wchar_t* name = nullptr;
    if (!ToWideName(valueName, nameBuffer, name))
        return Str();
    // The value may change between the size query and the read: try again then.
    for (int attempt = 0; attempt < 4; ++attempt) {
        DWORD type = 0, size = 0;
        LONG status = RegQueryValueExW(key, name, nullptr, &type, nullptr, &size);
        if (status != ERROR_SUCCESS || size < sizeof(wchar_t)) {
            SetLastError(static_cast<DWORD>(status));
            return Str();
        }
        const uint32_t units = size / sizeof(wchar_t);
        WStr buffer;
        wchar_t* p = buffer.Reserve(units);
        if (p == nullptr)
            return Str();
        memset(p, 0, (static_cast<size_t>(units) + 1) * sizeof(wchar_t));
        DWORD got = units * sizeof(wchar_t);
        status = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(p), &got);
        if (status == ERROR_MORE_DATA)
            continue;
        if (status != ERROR_SUCCESS) {
            SetLastError(static_cast<DWORD>(status));
            return Str();
        }
        // Data need not be terminated: the zeroed unit after it ends the text.
        const uint32_t length = static_cast<uint32_t>(wcsnlen(p, got / sizeof(wchar_t)));
        p[length] = 0;
        if (type == REG_EXPAND_SZ)
            return ExpandText(p);
        Str result = Str::FromUtf16(p, length);
        SetLastError(ERROR_SUCCESS);
        return result;
    }
    SetLastError(ERROR_MORE_DATA);
    return Str();
}

Str ReadRegistryTextAt(const char* path, const char* subpath, const char* valueName) {
    UniqueRegKey key(OpenRegistryKey(ParseRegistryKeyPath(path, subpath), kRegistryReadOnly,
                                     kRegistryViewNative));
    if (!key)
        return Str();
    return ReadRegistryText(key.Get(), valueName);
}

namespace {

bool WriteValue(const char* path, const char* subpath, const char* valueName, DWORD type,
                const BYTE* data, DWORD size) {
    WStr nameBuffer;
    const wchar_t* name = nullptr;
    if (!ToWideName(valueName, nameBuffer, name))
        return false;
    UniqueRegKey key(
        OpenRegistryKey(ParseRegistryKeyPath(path, subpath), kRegistryWrite, kRegistryViewNative));
    if (!key)
        return false;
    const LONG status = RegSetValueExW(key.Get(), name, 0, type, data, size);
    SetLastError(static_cast<DWORD>(status));
    return status == ERROR_SUCCESS;
}

} // namespace

bool WriteRegistryText(const char* path, const char* subpath, const char* valueName,
                       const char* text) {
    WStr wide;
    if (!ToWide(text, wide))
        return false;
    return WriteValue(path, subpath, valueName, REG_SZ, reinterpret_cast<const BYTE*>(wide.Text()),
                      wide.Length() * 2 + 2);
}

bool WriteRegistryNumber(const char* path, const char* subpath, const char* valueName,
                         uint32_t number) {
    const DWORD value = number;
    return WriteValue(path, subpath, valueName, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                      sizeof value);
}

bool RegistryValueExists(const char* path, const char* valueName) {
    WStr nameBuffer;
    const wchar_t* name = nullptr;
    if (!ToWideName(valueName, nameBuffer, name))
        return false;
    UniqueRegKey key(OpenRegistryKey(ParseRegistryKeyPath(path, nullptr), kRegistryReadOnly,
                                     kRegistryViewNative));
    if (!key)
        return false;
    const LONG status = RegQueryValueExW(key.Get(), name, nullptr, nullptr, nullptr, nullptr);
    SetLastError(static_cast<DWORD>(status));
    return status == ERROR_SUCCESS;
}

Str GetEnvironment(const char* name) {
    WStr wideName;
    if (name == nullptr || *name == 0 || !ToWide(name, wideName)) {
        if (name == nullptr || *name == 0)
            SetLastError(ERROR_INVALID_PARAMETER);
        return Str();
    }
    DWORD need = GetEnvironmentVariableW(wideName.Text(), nullptr, 0);
    for (int attempt = 0; attempt < 4 && need > 1; ++attempt) {
        WStr buffer;
        wchar_t* p = buffer.Reserve(need);
        if (p == nullptr)
            return Str();
        const DWORD got = GetEnvironmentVariableW(wideName.Text(), p, need);
        if (got == 0)
            break;
        if (got < need) {
            Str result = Str::FromUtf16(p, got);
            SetLastError(ERROR_SUCCESS);
            return result;
        }
        need = got;
    }
    return ReadRegistryTextAt("HKEY_ENVIRONMENT", nullptr, name);
}
