// The trace sink: finished report lines go to a listening trace viewer (named
// pipe), else to the debugger output, a trace file or standard error. A 4-byte
// shared map lets the viewer switch the header columns of every process at
// once. Everything here is best effort: a destination that fails is dropped
// silently and tried again later.
#include "trace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "datetime.h"
#include "handles.h"
#include "locks.h"
#include "private/reportstate.h"
#include "security.h"

namespace {

const char kPipeName[] = "\\\\.\\pipe\\ZemTracePipe";
const char kMapName[] = "ZemTraceMap";

// Lifetime of the channel: the pipe and the shared word are used only before
// the teardown at process exit.
constexpr LONG kChannelUnbuilt = 1;
constexpr LONG kChannelBuilt = 2;
constexpr LONG kChannelTornDown = 4;

struct TraceChannel {
    DWORD tlsIndex = TLS_OUT_OF_INDEXES; // per thread: non-null while in the pipe step
    DWORD lastPipeFailure = 0;           // GetTickCount of the last failed attempt, 0 when none
    HANDLE pipe = INVALID_HANDLE_VALUE;
    volatile uint32_t* headerFlags = nullptr;
    HANDLE map = nullptr;
    void* view = nullptr;
    // Held shared for a write and exclusively, briefly, to take a handle away;
    // never across a reconnection, which each thread makes on its own. It keeps
    // a handle from being closed under a writer: the number could meanwhile
    // name another object, which would receive the line.
    SRWLOCK pipeLock = SRWLOCK_INIT;
};

TraceChannel s_channel;
TraceHook s_traceHook = nullptr;
uint32_t s_destinations = kTraceToPipe | kTraceToDebugger;
volatile LONG s_channelState = kChannelUnbuilt;

HANDLE s_traceFile = INVALID_HANDLE_VALUE; // under the "TraceFile" section

NamedSection* GetTraceFileSection() {
    static NamedSection* s_section = [] {
        static NamedSection section;
        InitNamedSection(&section, "TraceFile");
        return &section;
    }();
    return s_section;
}

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
    LastErrorKeeper keep;
    s_channel.tlsIndex = TlsAlloc();
    s_channel.map =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4, kMapName);
    const bool created = s_channel.map != nullptr && GetLastError() != ERROR_ALREADY_EXISTS;
    // Open to every user and to low-integrity processes, so one viewer serves all.
    if (created)
        SecureKernelObject(s_channel.map);
    if (s_channel.map != nullptr) {
        s_channel.view = MapViewOfFile(s_channel.map, FILE_MAP_WRITE | FILE_MAP_READ, 0, 0, 4);
        if (s_channel.view != nullptr) {
            s_channel.headerFlags = static_cast<volatile uint32_t*>(s_channel.view);
            // A word found existing belongs to the viewer or another process: keep it.
            if (created)
                *s_channel.headerFlags = kHeaderDefault;
        }
    }
    InterlockedExchange(&s_channelState, kChannelBuilt);
    atexit(TearDownChannel);
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
// there is none. Identification only: a process squatting on the pipe's name
// must not act with this process's rights (the service's are LocalSystem's).
HANDLE OpenTracePipe() {
    for (;;) {
        HANDLE pipe =
            CreateFileA(kPipeName, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                        OPEN_EXISTING, SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
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

// Writes to the shared handle; false with `seen` set to the handle that failed.
bool WriteShared(TraceChannel* channel, const char* line, DWORD bytes, HANDLE* seen) {
    AcquireSRWLockShared(&channel->pipeLock);
    *seen = channel->pipe;
    const bool delivered = *seen != INVALID_HANDLE_VALUE && WriteMessage(*seen, line, bytes);
    ReleaseSRWLockShared(&channel->pipeLock);
    return delivered;
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
    HANDLE seen = INVALID_HANDLE_VALUE;
    if (WriteShared(channel, line, bytes, &seen))
        return true;

    // Take the failed handle away (the first thread to see it closes it); when
    // another thread has reconnected meanwhile, use its handle.
    AcquireSRWLockExclusive(&channel->pipeLock);
    const HANDLE current = channel->pipe;
    if (current == seen)
        channel->pipe = INVALID_HANDLE_VALUE;
    ReleaseSRWLockExclusive(&channel->pipeLock);
    if (current != seen)
        return WriteShared(channel, line, bytes, &seen);
    if (seen != INVALID_HANDLE_VALUE)
        CloseHandle(seen);

    UniqueHandle fresh(OpenTracePipe());
    bool delivered = false;
    if (fresh) {
        DWORD mode = PIPE_READMODE_MESSAGE;
        SetNamedPipeHandleState(fresh.Get(), &mode, nullptr, nullptr);
        delivered = WriteMessage(fresh.Get(), line, bytes);
    }
    if (!delivered) {
        RecordPipeFailure(channel);
        return false;
    }
    // Publish, unless a thread that reconnected at the same time was first.
    AcquireSRWLockExclusive(&channel->pipeLock);
    if (channel->pipe == INVALID_HANDLE_VALUE)
        channel->pipe = fresh.Detach();
    ReleaseSRWLockExclusive(&channel->pipeLock);
    return true;
}

void WriteStamped(FILE* stream, const char* line) {
    fprintf(stream, "%s: %s\n", LocalTimeText(kTimeTextStamp).Text(), line);
    fflush(stream);
}

void WriteTraceFile(const char* line) {
    NamedSectionLock lock(GetTraceFileSection(), "HANDLE s_traceFile");
    if (s_traceFile == INVALID_HANDLE_VALUE)
        return;
    Str text = LocalTimeText(kTimeTextStamp);
    text.Append(": ");
    text.Append(line);
    text.Append("\n");
    DWORD written = 0;
    WriteFile(s_traceFile, text.Text(), text.Length(), &written, nullptr);
}

// The process's own user (not an impersonated one) is a service account.
bool ProcessRunsAsServiceAccount() {
    UniqueHandle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Put()))
        return false;
    alignas(8) BYTE buffer[512];
    DWORD length = 0;
    if (!GetTokenInformation(token.Get(), TokenUser, buffer, sizeof buffer, &length))
        return false;
    return IsServiceAccountSid(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid);
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

bool SetSharedHeaderFlags(uint32_t flags) {
    if (!ChannelUsable())
        return false;
    volatile uint32_t* word = GetTraceChannel()->headerFlags;
    if (word == nullptr)
        return false;
    *word = flags;
    return true;
}

bool OpenTraceFile(const Str& path) {
    LastErrorKeeper keep;
    const WStr widePath = WStr::FromUtf8(path);
    HANDLE file = CreateFileW(widePath.Text(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    {
        NamedSectionLock lock(GetTraceFileSection(), "HANDLE s_traceFile");
        static const bool s_closedAtExit = atexit(CloseTraceFile) == 0;
        (void)s_closedAtExit;
        if (s_traceFile != INVALID_HANDLE_VALUE)
            CloseHandle(s_traceFile);
        s_traceFile = file;
    }
    // The debugger bit would keep lines from the file.
    SetTraceDestinations((GetTraceDestinations() | kTraceToFile) & ~kTraceToDebugger);
    return true;
}

void CloseTraceFile() {
    NamedSectionLock lock(GetTraceFileSection(), "HANDLE s_traceFile");
    if (s_traceFile != INVALID_HANDLE_VALUE)
        CloseHandle(s_traceFile);
    s_traceFile = INVALID_HANDLE_VALUE;
}

bool TraceShowsUserName() {
    static const bool s_shows = !ProcessRunsAsServiceAccount();
    return s_shows;
}

void TraceWrite(ThreadReportState* state, const char* line, uint32_t destinations) {
    if (line == nullptr)
        return;
    if (s_traceHook != nullptr && s_traceHook(line, destinations))
        return;
    if ((destinations & kTraceToPipe) && state != nullptr && ChannelUsable()) {
        TraceChannel* channel = GetTraceChannel();
        // A report raised while writing to the pipe must not recurse into it.
        const DWORD slot = channel->tlsIndex;
        if (slot != TLS_OUT_OF_INDEXES && TlsGetValue(slot) == nullptr) {
            TlsSetValue(slot, channel);
            const bool delivered = WriteToPipe(channel, line);
            TlsSetValue(slot, nullptr);
            if (delivered)
                return;
        }
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
    if (destinations & kTraceToFile)
        WriteTraceFile(line);
    if (destinations & kTraceToStderr)
        WriteStamped(stderr, line);
}
