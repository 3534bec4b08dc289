// The service host with a counting pass in place of the installer queue, so
// tests can observe the loop under the real service manager.
//   kvt_counting_service.exe --log <file> --wait <ms>
// Every report line goes to the log file; each pass writes "pass <n>", signals the global event
// "Global\KvtPassStarted" and, while "Global\KvtPassGate" exists and is not
// signalled, waits on it (at most ten seconds), so a test can hold a pass open.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <cwchar>

#include "host.h"
#include "private/system.h"
#include "report.h"
#include "seams.h"
#include "trace.h"

namespace {

HANDLE s_log = INVALID_HANDLE_VALUE;
unsigned s_passes = 0;
void CountingPass();
ServiceSeams s_seams = {CountingPass, 0, nullptr};

bool LogLine(const char* line, uint32_t) {
    char buffer[kReportLineLimit + 4];
    const int n = snprintf(buffer, sizeof buffer, "%s\r\n", line);
    DWORD written = 0;
    // Appends whole lines; the test reads the file while the service runs.
    WriteFile(s_log, buffer, static_cast<DWORD>(n), &written, nullptr);
    return true;
}

void CountingPass() {
    ++s_passes;
    WriteReportF(kCategoryBase, kSeverityInfo, nullptr, 0, "pass %u", s_passes);
    HANDLE started = OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\KvtPassStarted");
    if (started != nullptr) {
        SetEvent(started);
        CloseHandle(started);
    }
    HANDLE gate = OpenEventW(SYNCHRONIZE, FALSE, L"Global\\KvtPassGate");
    if (gate != nullptr) {
        WaitForSingleObject(gate, 10000);
        CloseHandle(gate);
    }
}

} // namespace

int main() {
    for (uint32_t i = 1; i + 1 < CommandLineArgumentCount(); i += 2) {
        const Str name = CommandLineArgument(i);
        const Str value = CommandLineArgument(i + 1);
        if (name == "--log") {
            const WStr path = WStr::FromUtf8(value);
            s_log = CreateFileW(path.Text(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        } else if (name == "--wait") {
            s_seams.waitMs = static_cast<DWORD>(strtoul(value.Text(), nullptr, 10));
        }
    }
    if (s_log != INVALID_HANDLE_VALUE)
        SetTraceHook(LogLine);
    SetServiceSeamsForTesting(&s_seams);
    SetInteractionAllowed(false, false);
    return ServiceEntryPoint();
}
