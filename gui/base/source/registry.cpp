// Registry access through text key paths. Paths are parsed in UTF-16 so that
// root names compare under the platform's own collation, exactly as the
// registry itself sees the characters.
#include "registry.h"

#include <cstring>
#include <cwchar>

#include "private/growbuffer.h"
#include "private/system.h"
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

// UTF-8 to UTF-16; the converter's error when a non-empty text does not
// convert, so that it never silently becomes "".
LONG ToWide(const char* text, WStr& out) {
    out = WStr();
    if (text == nullptr || *text == 0)
        return ERROR_SUCCESS;
    out = WStr::FromUtf8(text, static_cast<uint32_t>(strlen(text)));
    return out.IsEmpty() ? static_cast<LONG>(GetLastError()) : ERROR_SUCCESS;
}

// Value names: null stays null (the default value).
LONG ToWideName(const char* name, WStr& out, const wchar_t*& pointer) {
    pointer = nullptr;
    const LONG status = ToWide(name, out);
    if (status == ERROR_SUCCESS && name != nullptr)
        pointer = out.Text();
    return status;
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

const char* SkipBlanks(const char* p) {
    while (*p == ' ' || *p == '\t')
        ++p;
    return p;
}

} // namespace

RegistryKeyPath ParseRegistryKeyPath(const char* path, const char* subpath) {
    RegistryKeyPath result;
    if (path == nullptr || *path == 0) {
        path = subpath;
        subpath = nullptr;
    }
    WStr widePath, wideSubpath;
    if (ToWide(path, widePath) != ERROR_SUCCESS || ToWide(subpath, wideSubpath) != ERROR_SUCCESS)
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

// Every operation below computes one status, the result of its last registry
// call (or of a conversion that failed), and the public function leaves it as
// the thread's last error once, on its way out.
namespace {

LONG OpenKey(const RegistryKeyPath& keyPath, uint32_t mode, uint32_t view, HKEY* result) {
    *result = nullptr;
    const HKEY root = GetRegistryRootKey(keyPath.root);
    if (root == nullptr)
        return ERROR_BAD_PATHNAME;
    if (mode > kRegistryWrite || view > kRegistryView64)
        return ERROR_INVALID_PARAMETER;

    UniqueRegKey remote;
    HKEY base = root;
    if (!keyPath.machine.IsEmpty()) {
        WStr machine(L"\\\\"), name;
        LONG status = ToWide(keyPath.machine.Text(), name);
        if (status != ERROR_SUCCESS)
            return status;
        machine.Append(name);
        status = RegConnectRegistryW(machine.Text(), root, remote.Put());
        if (status != ERROR_SUCCESS) {
            remote.Detach();
            return status;
        }
        base = remote.Get();
    }

    if (keyPath.subkey.IsEmpty()) {
        *result = remote ? remote.Detach() : root;
        return ERROR_SUCCESS;
    }
    WStr subkey;
    const LONG converted = ToWide(keyPath.subkey.Text(), subkey);
    if (converted != ERROR_SUCCESS)
        return converted;

    REGSAM access = mode == kRegistryWrite ? kWriteAccess : kReadAccess;
    if (view == kRegistryView32)
        access |= KEY_WOW64_32KEY;
    else if (view == kRegistryView64)
        access |= KEY_WOW64_64KEY;

    if (mode != kRegistryWrite)
        return RegOpenKeyExW(base, subkey.Text(), 0, access, result);
    if (root != HKEY_CLASSES_ROOT)
        return RegCreateKeyExW(base, subkey.Text(), 0, nullptr, 0, access, nullptr, result,
                               nullptr);
    return CreateClassKey(subkey.Text(), subkey.Length(), access, result);
}

LONG ExpandText(const wchar_t* text, Str& result) {
    WStr expanded;
    if (!FillGrowing(
            [text](wchar_t* buffer, uint32_t capacity, uint32_t* needed) {
                *needed = ExpandEnvironmentStringsW(text, buffer, capacity);
                return *needed != 0;
            },
            expanded))
        return static_cast<LONG>(GetLastError());
    result = Str::FromUtf16(expanded);
    return ERROR_SUCCESS;
}

LONG QueryText(HKEY key, const char* valueName, Str& result) {
    WStr nameBuffer;
    const wchar_t* name = nullptr;
    LONG status = ToWideName(valueName, nameBuffer, name);
    if (status != ERROR_SUCCESS)
        return status;
    DWORD type = 0;
    WStr data;
    const bool read = FillGrowing(
        [&](wchar_t* buffer, uint32_t capacity, uint32_t* needed) {
            // One unit is kept back for a terminator: the data need not have one.
            DWORD bytes = (capacity - 1) * sizeof(wchar_t);
            status = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer),
                                      &bytes);
            if (status == ERROR_MORE_DATA) {
                *needed = bytes / sizeof(wchar_t) + 2;
                return true;
            }
            if (status != ERROR_SUCCESS)
                return false;
            buffer[bytes / sizeof(wchar_t)] = 0;
            *needed = static_cast<uint32_t>(wcslen(buffer)) + 1;
            return true;
        },
        data);
    if (!read)
        return status != ERROR_SUCCESS ? status : static_cast<LONG>(GetLastError());
    if (type == REG_EXPAND_SZ)
        return ExpandText(data.Text(), result);
    result = Str::FromUtf16(data);
    return ERROR_SUCCESS;
}

LONG ReadNumber(const RegistryKeyPath& keyPath, const char* valueName, bool asNumber,
                uint32_t& number) {
    UniqueRegKey key;
    LONG status = OpenKey(keyPath, kRegistryReadOnly, kRegistryViewNative, key.Put());
    if (status != ERROR_SUCCESS)
        return status;
    if (!asNumber) {
        Str text;
        status = QueryText(key.Get(), valueName, text);
        uint64_t value = 0;
        const char* end = ParseDecimal(SkipBlanks(text.Text()), 0xFFFFFFFF, value);
        if (status == ERROR_SUCCESS && end != nullptr && *SkipBlanks(end) == 0)
            number = static_cast<uint32_t>(value);
        return status;
    }
    WStr nameBuffer;
    const wchar_t* name = nullptr;
    status = ToWideName(valueName, nameBuffer, name);
    if (status != ERROR_SUCCESS)
        return status;
    // Only a REG_DWORD of 4 bytes is a number; the type and size are asked first.
    DWORD type = 0, size = 0, value = 0;
    status = RegQueryValueExW(key.Get(), name, nullptr, &type, nullptr, &size);
    if (status != ERROR_SUCCESS || type != REG_DWORD || size != sizeof value)
        return status;
    status =
        RegQueryValueExW(key.Get(), name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
    if (status == ERROR_SUCCESS && type == REG_DWORD && size == sizeof value)
        number = value;
    return status;
}

LONG WriteValue(const char* path, const char* subpath, const char* valueName, DWORD type,
                const BYTE* data, DWORD size) {
    WStr nameBuffer;
    const wchar_t* name = nullptr;
    LONG status = ToWideName(valueName, nameBuffer, name);
    if (status != ERROR_SUCCESS)
        return status;
    UniqueRegKey key;
    status = OpenKey(ParseRegistryKeyPath(path, subpath), kRegistryWrite, kRegistryViewNative,
                     key.Put());
    if (status != ERROR_SUCCESS)
        return status;
    return RegSetValueExW(key.Get(), name, 0, type, data, size);
}

// The public functions' one exit: the status becomes the thread's last error.
template <class T> T Leave(LONG status, T result) {
    SetLastError(static_cast<DWORD>(status));
    return result;
}

} // namespace

HKEY OpenRegistryKey(const RegistryKeyPath& keyPath, uint32_t mode, uint32_t view) {
    HKEY key = nullptr;
    const LONG status = OpenKey(keyPath, mode, view, &key);
    return Leave(status, key);
}

HKEY OpenRegistryKey(const char* path, const char* subpath, uint32_t mode, uint32_t view) {
    return OpenRegistryKey(ParseRegistryKeyPath(path, subpath), mode, view);
}

uint32_t ReadRegistryNumber(const char* path, const char* subpath, const char* valueName,
                            uint32_t defaultValue, bool asNumber) {
    uint32_t number = defaultValue;
    const LONG status =
        ReadNumber(ParseRegistryKeyPath(path, subpath), valueName, asNumber, number);
    return Leave(status, number);
}

Str ReadRegistryText(HKEY key, const char* valueName) {
    Str text;
    const LONG status = QueryText(key, valueName, text);
    return Leave(status, text);
}

Str ReadRegistryTextAt(const char* path, const char* subpath, const char* valueName) {
    UniqueRegKey key;
    Str text;
    LONG status = OpenKey(ParseRegistryKeyPath(path, subpath), kRegistryReadOnly,
                          kRegistryViewNative, key.Put());
    if (status == ERROR_SUCCESS)
        status = QueryText(key.Get(), valueName, text);
    key.Reset();
    return Leave(status, text);
}

bool WriteRegistryText(const char* path, const char* subpath, const char* valueName,
                       const char* text) {
    WStr wide;
    LONG status = ToWide(text, wide);
    if (status == ERROR_SUCCESS)
        status = WriteValue(path, subpath, valueName, REG_SZ,
                            reinterpret_cast<const BYTE*>(wide.Text()), wide.Length() * 2 + 2);
    return Leave(status, status == ERROR_SUCCESS);
}

bool WriteRegistryNumber(const char* path, const char* subpath, const char* valueName,
                         uint32_t number) {
    const DWORD value = number;
    const LONG status = WriteValue(path, subpath, valueName, REG_DWORD,
                                   reinterpret_cast<const BYTE*>(&value), sizeof value);
    return Leave(status, status == ERROR_SUCCESS);
}

bool RegistryValueExists(const char* path, const char* valueName) {
    WStr nameBuffer;
    const wchar_t* name = nullptr;
    UniqueRegKey key;
    LONG status = ToWideName(valueName, nameBuffer, name);
    if (status == ERROR_SUCCESS)
        status = OpenKey(ParseRegistryKeyPath(path, nullptr), kRegistryReadOnly,
                         kRegistryViewNative, key.Put());
    if (status == ERROR_SUCCESS)
        status = RegQueryValueExW(key.Get(), name, nullptr, nullptr, nullptr, nullptr);
    key.Reset();
    return Leave(status, status == ERROR_SUCCESS);
}

Str GetEnvironment(const char* name) {
    if (name == nullptr || *name == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return Str();
    }
    const Str value = GetProcessEnvironment(name);
    return value.IsEmpty() ? ReadRegistryTextAt("HKEY_ENVIRONMENT", nullptr, name) : value;
}
