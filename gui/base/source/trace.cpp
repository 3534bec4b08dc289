// The trace sink. Until the trace viewer's pipe and shared map are served,
// lines go to the debugger output (where the default destinations send them
// when no viewer listens) or to standard error.
#include "trace.h"

#include <windows.h>

#include <cstdio>
#include <cstring>

namespace {
TraceHook s_traceHook = nullptr;
uint32_t s_destinations = kTraceToPipe | kTraceToDebugger;
} // namespace

void SetTraceHook(TraceHook hook) {
    s_traceHook = hook;
}
uint32_t GetTraceDestinations() {
    return s_destinations;
}
void SetTraceDestinations(uint32_t destinations) {
    s_destinations = destinations;
}
uint32_t GetSharedHeaderFlags() {
    return kHeaderDefault;
}

void TraceWrite(ThreadReportState*, const char* line, uint32_t destinations) {
    if (line == nullptr)
        return;
    if (s_traceHook != nullptr && s_traceHook(line, destinations))
        return;
    if (destinations & kTraceToDebugger) {
        char buffer[kReportLineLimit + 3];
        size_t length = strnlen(line, kReportLineLimit);
        memcpy(buffer, line, length);
        buffer[length++] = '\r';
        buffer[length++] = '\n';
        buffer[length] = 0;
        OutputDebugStringA(buffer);
        return;
    }
    if (destinations & kTraceToStderr) {
        SYSTEMTIME now;
        GetLocalTime(&now);
        fprintf(stderr, "%04ld-%02ld-%02ld %02ld:%02ld:%02ld.%03ld: %s\n", (long)now.wYear,
                (long)now.wMonth, (long)now.wDay, (long)now.wHour, (long)now.wMinute,
                (long)now.wSecond, (long)now.wMilliseconds, line);
        fflush(stderr);
    }
}
