// The module identity that reports and events carry: the program's path,
// application name and version, set by the entry point.
#include <windows.h>

#include <cwchar>

#include "handles.h"
#include "locks.h"
#include "report.h"

namespace {

// Set once by the entry point, before any other thread runs.
Str s_modulePath;
Str s_applicationName;
Str s_moduleVersion("24.7.0.15");

constexpr DWORD kProgramPathBuffer = 261;

} // namespace

void SetModulePath(const Str& path) {
    s_modulePath = path;
}
void SetApplicationName(const Str& name) {
    s_applicationName = name;
}
void SetModuleVersion(const Str& version) {
    s_moduleVersion = version;
}
Str GetModulePathText() {
    return s_modulePath;
}
Str GetModuleVersion() {
    return s_moduleVersion;
}

WStr GetProgramPath() {
    wchar_t buffer[kProgramPathBuffer];
    const DWORD length = GetModuleFileNameW(nullptr, buffer, kProgramPathBuffer);
    // A path cut short by the buffer is no path.
    if (length == 0 || length >= kProgramPathBuffer)
        return WStr();
    return WStr(buffer, length);
}

Str GetModuleBaseName() {
    static Str s_moduleName;
    static volatile LONG s_known = 0;
    if (InterlockedCompareExchange(&s_known, 0, 0) != 0)
        return s_moduleName;
    LastErrorKeeper keep;
    MonitoredSectionLock lock(GetStaticsSection(), "Str s_modulename");
    if (s_known == 0) {
        const WStr path = GetProgramPath();
        const wchar_t* name = path.Text();
        for (const wchar_t* p = name; *p; ++p)
            if (*p == L'\\' || *p == L'/')
                name = p + 1;
        const wchar_t* dot = wcsrchr(name, L'.');
        s_moduleName =
            Str::FromUtf16(name, static_cast<uint32_t>(dot != nullptr ? dot - name : wcslen(name)));
        InterlockedExchange(&s_known, 1);
    }
    return s_moduleName;
}

Str GetApplicationName() {
    if (!s_applicationName.IsEmpty())
        return s_applicationName;
    Str fallback = GetModuleBaseName();
    Str copy(fallback.Text(), fallback.Length());
    UpperCaseUtf8(copy.MutableText());
    return copy;
}
