// tracetail: the trace viewer. Serves the trace pipe to any number of writing
// processes at once and prints each report line as it comes.
//
//   tracetail.exe [--pid] [--tid] [--module] [--filter TEXT] [--file PATH]
//
// --pid, --tid and --module set the shared header word of this session's
// processes (process id, thread id and module name columns; with none of them
// the word is left as it is). --filter keeps only lines that contain TEXT;
// --file appends the lines to PATH as well. Ctrl+C ends it.
#include <windows.h>

#include <sddl.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

#include "handles.h"
#include "report.h"
#include "trace.h"

namespace {

const char kPipeName[] = "\\\\.\\pipe\\ZemTracePipe";
constexpr DWORD kLineLimit = 1024 + 1; // a line and its terminating zero

struct Options {
    uint32_t headerFlags = 0; // 0: leave the shared word alone
    std::string filter;
    std::wstring file;
};

Options s_options;
SRWLOCK s_outputLock = SRWLOCK_INIT;
FILE* s_file = nullptr;
HANDLE s_stop = nullptr;
volatile bool s_failed = false;
constexpr int kListeners = 4;
// Writers may be any user's processes; LocalSystem and Administrators keep full control.
const char kPipeSddl[] = "D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;OW)(A;;GRGW;;;WD)";

void Print(const char* line, DWORD bytes) {
    std::string text(line, strnlen(line, bytes));
    if (!s_options.filter.empty() && text.find(s_options.filter) == std::string::npos)
        return;
    AcquireSRWLockExclusive(&s_outputLock);
    fprintf(stdout, "%s\n", text.c_str());
    fflush(stdout);
    if (s_file != nullptr) {
        fprintf(s_file, "%s\n", text.c_str());
        fflush(s_file);
    }
    ReleaseSRWLockExclusive(&s_outputLock);
}

// Reads one writer's lines until it goes away; the pipe instance is this thread's.
DWORD WINAPI ServeWriter(void* parameter) {
    UniqueHandle pipe(static_cast<HANDLE>(parameter));
    char line[kLineLimit];
    for (;;) {
        DWORD got = 0;
        // Longer than any report line (ERROR_MORE_DATA): shown cut.
        if (!ReadFile(pipe.Get(), line, sizeof line, &got, nullptr) &&
            GetLastError() != ERROR_MORE_DATA)
            return 0;
        Print(line, got);
    }
}

// Keeps one instance waiting for the next writer and hands each connected one
// to a thread of its own. Several listeners keep instances free while writers
// connect in a burst: a writer that finds them all busy gives up for a second.
DWORD WINAPI Listen(void* security) {
    for (;;) {
        HANDLE pipe = CreateNamedPipeA(
            kPipeName, PIPE_ACCESS_INBOUND, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
            PIPE_UNLIMITED_INSTANCES, 0, 64 * 1024, 0, static_cast<SECURITY_ATTRIBUTES*>(security));
        if (pipe == INVALID_HANDLE_VALUE) {
            fprintf(stderr, "tracetail: cannot serve %s (error %lu)\n", kPipeName, GetLastError());
            s_failed = true;
            SetEvent(s_stop);
            return 1;
        }
        HANDLE thread = nullptr;
        if (ConnectNamedPipe(pipe, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED)
            thread = CreateThread(nullptr, 0, ServeWriter, pipe, 0, nullptr);
        if (thread != nullptr)
            CloseHandle(thread);
        else
            CloseHandle(pipe);
    }
}

// Serves until Ctrl+C sets the stop event; the process's end ends the threads.
int Serve() {
    SECURITY_ATTRIBUTES security = {sizeof security, nullptr, FALSE};
    UniqueLocal descriptor;
    if (ConvertStringSecurityDescriptorToSecurityDescriptorA(
            kPipeSddl, SDDL_REVISION_1, reinterpret_cast<PSECURITY_DESCRIPTOR*>(descriptor.Put()),
            nullptr))
        security.lpSecurityDescriptor = descriptor.Get();
    for (int i = 0; i < kListeners; ++i) {
        HANDLE thread = CreateThread(nullptr, 0, Listen, &security, 0, nullptr);
        if (thread != nullptr)
            CloseHandle(thread);
    }
    WaitForSingleObject(s_stop, INFINITE);
    return s_failed ? 1 : 0;
}

BOOL WINAPI OnControl(DWORD) {
    SetEvent(s_stop);
    return TRUE;
}

bool ParseOptions(int argc, wchar_t** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::wstring option = argv[i];
        const bool hasValue = i + 1 < argc;
        if (option == L"--pid") {
            s_options.headerFlags |= kHeaderProcessId;
        } else if (option == L"--tid") {
            s_options.headerFlags |= kHeaderThreadId;
        } else if (option == L"--module") {
            s_options.headerFlags |= kHeaderModule;
        } else if (option == L"--filter" && hasValue) {
            ++i;
            s_options.filter =
                Str::FromUtf16(argv[i], static_cast<uint32_t>(wcslen(argv[i]))).Text();
        } else if (option == L"--file" && hasValue) {
            s_options.file = argv[++i];
        } else {
            return false;
        }
    }
    return true;
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    if (!ParseOptions(argc, argv)) {
        fprintf(stderr, "Usage: tracetail.exe [--pid] [--tid] [--module] [--filter TEXT] "
                        "[--file PATH]\n");
        return 2;
    }
    // The viewer's own lines would come back to it: it writes none.
    SetTraceDestinations(0);
    if (!s_options.file.empty() && _wfopen_s(&s_file, s_options.file.c_str(), L"ab") != 0) {
        fprintf(stderr, "tracetail: cannot open the file [%ls]\n", s_options.file.c_str());
        return 2;
    }
    if (s_options.headerFlags != 0 && !SetSharedHeaderFlags(s_options.headerFlags))
        fprintf(stderr, "tracetail: the header word of this session could not be set\n");
    s_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(OnControl, TRUE);
    const int code = Serve();
    AcquireSRWLockExclusive(&s_outputLock);
    if (s_file != nullptr)
        fclose(s_file);
    s_file = nullptr;
    ReleaseSRWLockExclusive(&s_outputLock);
    return code;
}
