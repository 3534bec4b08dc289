// System functions: process initialisation and the process's argument list,
// split once from GetCommandLineW.
#include "private/system.h"

#include <windows.h>

#include <shellapi.h>

#include <cstring>
#include <new>

#include "alloc.h"
#include "locks.h"
#include "private/growbuffer.h"

namespace {

struct ArgumentList {
    Str* items = nullptr;
    uint32_t count = 0;
};

INIT_ONCE s_argumentsOnce = INIT_ONCE_STATIC_INIT;
ArgumentList s_arguments;

// The platform's own splitting rules (quotes, backslashes before quotes).
BOOL CALLBACK BuildArguments(PINIT_ONCE, PVOID, PVOID*) {
    int count = 0;
    LPWSTR* argv = CommandLineToArgvW(GetCommandLineW(), &count);
    if (argv == nullptr || count <= 0)
        return TRUE;
    s_arguments.items = new (std::nothrow) Str[count];
    if (s_arguments.items != nullptr) {
        s_arguments.count = static_cast<uint32_t>(count);
        for (int i = 0; i < count; ++i)
            s_arguments.items[i] = Str::FromUtf16(argv[i]);
    }
    LocalFree(argv);
    return TRUE;
}

const ArgumentList& Arguments() {
    DWORD error = GetLastError();
    InitOnceExecuteOnce(&s_argumentsOnce, BuildArguments, nullptr, nullptr);
    SetLastError(error);
    return s_arguments;
}

} // namespace

void InitBaseLibrary() {
    CheckParticleManagement();
    LoadLockThresholds();
}

Str GetProcessEnvironment(const char* name) {
    const WStr wideName =
        WStr::FromUtf8(name != nullptr ? name : "", name != nullptr ? strlen(name) : 0);
    if (wideName.IsEmpty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return Str();
    }
    WStr value;
    const bool read = FillGrowing(
        [&wideName](wchar_t* buffer, uint32_t capacity, uint32_t* needed) {
            SetLastError(ERROR_SUCCESS);
            const DWORD length = GetEnvironmentVariableW(wideName.Text(), buffer, capacity);
            // 0 is an absent variable, or an empty one (no error).
            if (length == 0 && GetLastError() != ERROR_SUCCESS)
                return false;
            *needed = length < capacity ? length + 1 : length;
            return true;
        },
        value);
    return read ? Str::FromUtf16(value) : Str();
}

Str CommandLineArgument(uint32_t index) {
    const ArgumentList& list = Arguments();
    return index < list.count ? list.items[index] : Str();
}

uint32_t CommandLineArgumentCount() {
    return Arguments().count;
}
