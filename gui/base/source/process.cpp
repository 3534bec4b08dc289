// Starting other programs through CreateProcessW.
#include "process.h"

#include <cstring>
#include <memory>
#include <new>

#include "handles.h"
#include "report.h"

namespace {

const char kEventSource[] = "QELGUI";
constexpr uint32_t kEventStartSucceeded = 2105;
constexpr uint32_t kEventStartFailed = 2106;
constexpr uint32_t kEventCategory = 2;
constexpr DWORD kInputIdleTimeoutMs = 5000;
// Success must never read as 0, even for a process the system numbered 0.
constexpr uint32_t kProcessIdZero = 0xFFFFFFFF;

// The size the start-up record has on 64-bit Windows; a header that disagrees
// would hand CreateProcessW a record it reads differently.
static_assert(sizeof(STARTUPINFOW) == 104, "STARTUPINFOW must be 104 bytes");

void ReportStarted(const Str& commandLine, uint32_t processId) {
    const EventValue values[] = {
        {"command", commandLine, false},
        {"processid", StrFormat("%lu", static_cast<unsigned long>(processId)), true},
    };
    EventDescriptor descriptor;
    descriptor.message = "Command start succeeded";
    descriptor.values = values;
    descriptor.valueCount = 2;
    // No process information: its "processid" would name this process, not the new one.
    ReportEvent(Str(kEventSource), kEventStartSucceeded, descriptor, false, kLevelNotice,
                kEventCategory, false);
}

void ReportStartFailed(const Str& commandLine) {
    LastErrorKeeper keep;
    const EventValue values[] = {
        {"command", commandLine, false},
        {"error", LastErrorText(keep.Saved()), false},
    };
    EventDescriptor descriptor;
    descriptor.message = "Command start failed";
    descriptor.values = values;
    descriptor.valueCount = 2;
    ReportEvent(Str(kEventSource), kEventStartFailed, descriptor, false, kLevelWarning,
                kEventCategory, false);
}

} // namespace

uint32_t StartCommand(const Str& commandLine, const char* workingDirectory, bool show,
                      bool foreground, HANDLE* processHandleOut) {
    if (processHandleOut != nullptr)
        *processHandleOut = nullptr;
    if (commandLine.IsEmpty())
        return 0;

    WStr directory;
    const bool hasDirectory = workingDirectory != nullptr && workingDirectory[0] != 0;
    if (hasDirectory)
        directory =
            WStr::FromUtf8(workingDirectory, static_cast<uint32_t>(strlen(workingDirectory)));

    // CreateProcessW may write into the command line, so it gets a private copy.
    const WStr wide = WStr::FromUtf8(commandLine);
    std::unique_ptr<wchar_t[]> buffer;
    if (!wide.IsEmpty() && (!hasDirectory || !directory.IsEmpty())) {
        buffer.reset(new (std::nothrow) wchar_t[wide.Length() + 1]);
        if (buffer != nullptr)
            memcpy(buffer.get(), wide.Text(), (static_cast<size_t>(wide.Length()) + 1) * 2);
        else
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    if (buffer == nullptr) {
        // A failed conversion has set its own last error.
        ReportStartFailed(commandLine);
        return 0;
    }

    STARTUPINFOW startup;
    memset(&startup, 0, sizeof(startup));
    startup.cb = sizeof(startup);
    if (show) {
        startup.dwFlags = STARTF_USESHOWWINDOW | STARTF_FORCEONFEEDBACK;
        startup.wShowWindow = SW_SHOW;
    } else {
        startup.dwFlags = STARTF_USESHOWWINDOW | STARTF_FORCEOFFFEEDBACK;
        startup.wShowWindow = SW_HIDE;
    }
    PROCESS_INFORMATION created;
    memset(&created, 0, sizeof(created));
    if (!CreateProcessW(nullptr, buffer.get(), nullptr, nullptr, FALSE, NORMAL_PRIORITY_CLASS,
                        nullptr, hasDirectory ? directory.Text() : nullptr, &startup, &created)) {
        ReportStartFailed(commandLine);
        return 0;
    }

    UniqueHandle thread(created.hThread);
    UniqueHandle process(created.hProcess);
    thread.Reset();
    if (foreground) {
        AllowSetForegroundWindow(created.dwProcessId);
        // Console programs never become idle and fail at once; either way we go on.
        WaitForInputIdle(process.Get(), kInputIdleTimeoutMs);
    }
    if (processHandleOut != nullptr)
        *processHandleOut = process.Detach();
    const uint32_t processId = created.dwProcessId != 0 ? created.dwProcessId : kProcessIdZero;
    ReportStarted(commandLine, processId);
    return processId;
}

bool StartCommand(const Str& commandLine, const char* workingDirectory, bool show,
                  bool foreground) {
    HANDLE handle = nullptr;
    const uint32_t processId =
        StartCommand(commandLine, workingDirectory, show, foreground, &handle);
    UniqueHandle owner(handle);
    return processId != 0;
}

bool StartCommand(const Str& commandLine) {
    return StartCommand(commandLine, "", true, true);
}
