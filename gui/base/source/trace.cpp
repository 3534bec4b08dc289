// The trace sink: finished report lines go to a listening trace viewer (named
// pipe), else to the debugger output or standard error. A 4-byte shared map lets
// the viewer switch the header columns of every process at once. Everything
// here is best effort: a destination that fails is dropped silently.
#include "trace.h"

#include "datetime.h"

#include "private/reportstate.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char kPipeName[] = "\\\\.\\pipe\\ZemTracePipe";
const char kMapName[] = "ZemTraceMap";

// Lifetime of the channel: the pipe and the shared word are used only before
// the teardown at process exit.
constexpr LONG kChannelUnbuilt = 1;
constexpr LONG kChannelBuilt = 2;
constexpr LONG kChannelTornDown = 4;

struct TraceChannel {
    HANDLE pipe = INVALID_HANDLE_VALUE;
    DWORD lastPipeFailure = 0; // GetTickCount of the last failed attempt, 0 when none
    volatile uint32_t* headerFlags = nullptr;
    HANDLE map = nullptr;
    void* view = nullptr;
    // Writers share the pipe handle; only the one that replaces it takes the
    // lock exclusively, so no line is ever written to a handle being closed.
    SRWLOCK pipeLock = SRWLOCK_INIT;
};

TraceChannel s_channel;
TraceHook s_traceHook = nullptr;
uint32_t s_destinations = kTraceToPipe | kTraceToDebugger;
volatile LONG s_channelState = kChannelUnbuilt;

void TearDownChannel() {
    InterlockedExchange(&s_channelState, kChannelTornDown);
    AcquireSRWLockExclusive(&s_channel.pipeLock);
    if (s_channel.pipe != INVALID_HANDLE_VALUE)
        CloseHandle(s_channel.pipe);
    s_channel.pipe = INVALID_HANDLE_VALUE;
    ReleaseSRWLockExclusive(&s_channel.pipeLock);
    // The view stays mapped: a thread still reporting may be reading the word,
    // and the process is ending anyway.
    s_channel.headerFlags = nullptr;
    if (s_channel.map != nullptr)
        CloseHandle(s_channel.map);
    s_channel.map = nullptr;
}

bool BuildChannel() {
    const DWORD error = GetLastError();
    s_channel.map =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4, kMapName);
    const bool created = s_channel.map != nullptr && GetLastError() != ERROR_ALREADY_EXISTS;
    if (s_channel.map != nullptr) {
        s_channel.view = MapViewOfFile(s_channel.map, FILE_MAP_WRITE | FILE_MAP_READ, 0, 0, 4);
        if (s_channel.view != nullptr) {
            s_channel.headerFlags = static_cast<volatile uint32_t*>(s_channel.view);
            // A word found existing belongs to the viewer or another process: keep it.
            // (A new map keeps the default protection until the shared-object
            // access rules are available to this file.)
            if (created)
                *s_channel.headerFlags = kHeaderDefault;
        }
    }
    InterlockedExchange(&s_channelState, kChannelBuilt);
    atexit(TearDownChannel);
    SetLastError(error);
    return true;
}

TraceChannel* GetTraceChannel() {
    static const bool s_built = BuildChannel();
    (void)s_built;
    return &s_channel;
}

bool ChannelUsable() {
    return InterlockedCompareExchange(&s_channelState, 0, 0) != kChannelTornDown;
}

bool WriteMessage(HANDLE pipe, const char* line, DWORD bytes) {
    DWORD written = 0;
    return WriteFile(pipe, line, bytes, &written, nullptr) && written == bytes;
}

// Opens the viewer's pipe, waiting while it is busy; INVALID_HANDLE_VALUE when
// there is none.
HANDLE OpenTracePipe() {
    for (;;) {
        HANDLE pipe = CreateFileA(kPipeName, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_EXISTING, 0, nullptr);
        if (pipe != INVALID_HANDLE_VALUE)
            return pipe;
        if (GetLastError() != ERROR_PIPE_BUSY || !WaitNamedPipeA(kPipeName, 0))
            return INVALID_HANDLE_VALUE;
    }
}

void RecordPipeFailure(TraceChannel* channel) {
    const DWORD now = GetTickCount();
    InterlockedExchange(reinterpret_cast<volatile LONG*>(&channel->lastPipeFailure),
                        static_cast<LONG>(now != 0 ? now : 1));
}

// True when the viewer took the line (with its terminating zero).
bool WriteToPipe(TraceChannel* channel, const char* line) {
    const DWORD bytes = static_cast<DWORD>(strnlen(line, kReportLineLimit) + 1);
    volatile LONG* failure = reinterpret_cast<volatile LONG*>(&channel->lastPipeFailure);
    const DWORD failedAt = static_cast<DWORD>(InterlockedCompareExchange(failure, 0, 0));
    if (failedAt != 0) {
        // Without a viewer a line pays for one open attempt a second at most.
        if (GetTickCount() - failedAt <= 1000)
            return false;
        InterlockedCompareExchange(failure, 0, static_cast<LONG>(failedAt));
    }

    AcquireSRWLockShared(&channel->pipeLock);
    const HANDLE seen = channel->pipe;
    const bool delivered = seen != INVALID_HANDLE_VALUE && WriteMessage(seen, line, bytes);
    ReleaseSRWLockShared(&channel->pipeLock);
    if (delivered)
        return true;

    AcquireSRWLockExclusive(&channel->pipeLock);
    bool result = false;
    if (channel->pipe != seen) {
        // Another thread reconnected meanwhile: use its handle.
        result = channel->pipe != INVALID_HANDLE_VALUE && WriteMessage(channel->pipe, line, bytes);
    } else {
        if (channel->pipe != INVALID_HANDLE_VALUE)
            CloseHandle(channel->pipe);
        channel->pipe = OpenTracePipe();
        if (channel->pipe != INVALID_HANDLE_VALUE) {
            DWORD mode = PIPE_READMODE_MESSAGE;
            SetNamedPipeHandleState(channel->pipe, &mode, nullptr, nullptr);
            result = WriteMessage(channel->pipe, line, bytes);
            if (!result) {
                CloseHandle(channel->pipe);
                channel->pipe = INVALID_HANDLE_VALUE;
            }
        }
        if (!result)
            RecordPipeFailure(channel);
    }
    ReleaseSRWLockExclusive(&channel->pipeLock);
    return result;
}

void WriteStamped(FILE* stream, const char* line) {
    fprintf(stream, "%s: %s\n", LocalTimeText(kTimeTextStamp).Text(), line);
    fflush(stream);
}

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
    if (!ChannelUsable())
        return kHeaderDefault;
    const TraceChannel* channel = GetTraceChannel();
    volatile uint32_t* word = channel->headerFlags;
    return word != nullptr && ChannelUsable() ? *word : kHeaderDefault;
}

void TraceWrite(ThreadReportState* state, const char* line, uint32_t destinations) {
    if (line == nullptr)
        return;
    if (s_traceHook != nullptr && s_traceHook(line, destinations))
        return;
    // A report raised while writing to the pipe must not recurse into it.
    if ((destinations & kTraceToPipe) && state != nullptr && !state->inPipeStep &&
        ChannelUsable()) {
        state->inPipeStep = true;
        const bool delivered = WriteToPipe(GetTraceChannel(), line);
        state->inPipeStep = false;
        if (delivered)
            return;
    }
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
    // No trace file is opened in this program, so bit 8 has nothing to write to.
    if (destinations & kTraceToStderr)
        WriteStamped(stderr, line);
}
