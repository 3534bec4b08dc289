// A small service-control tool for the demonstration under Wine, whose own
// sc.exe has no pause or continue:
//   kvt_svcctl.exe start|stop|pause|continue|query <service> [timeout-seconds]
// Sends the control, waits for the matching state and prints it; exit code 0
// when the state was reached.
#include <windows.h>

#include <cstdio>
#include <cwchar>

namespace {

const wchar_t* StateName(DWORD state) {
    switch (state) {
    case SERVICE_STOPPED:
        return L"STOPPED";
    case SERVICE_START_PENDING:
        return L"START_PENDING";
    case SERVICE_STOP_PENDING:
        return L"STOP_PENDING";
    case SERVICE_RUNNING:
        return L"RUNNING";
    case SERVICE_CONTINUE_PENDING:
        return L"CONTINUE_PENDING";
    case SERVICE_PAUSE_PENDING:
        return L"PAUSE_PENDING";
    case SERVICE_PAUSED:
        return L"PAUSED";
    default:
        return L"UNKNOWN";
    }
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 3) {
        fwprintf(stderr,
                 L"usage: kvt_svcctl start|stop|pause|continue|query <service> [seconds]\n");
        return 2;
    }
    const wchar_t* verb = argv[1];
    const DWORD seconds = argc > 3 ? wcstoul(argv[3], nullptr, 10) : 30;
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE service = manager ? OpenServiceW(manager, argv[2], SERVICE_ALL_ACCESS) : nullptr;
    if (service == nullptr) {
        fwprintf(stderr, L"kvt_svcctl: cannot open service %ls (error %lu)\n", argv[2],
                 GetLastError());
        return 1;
    }
    DWORD target = 0;
    SERVICE_STATUS status{};
    BOOL sent = TRUE;
    if (wcscmp(verb, L"start") == 0) {
        target = SERVICE_RUNNING;
        sent = StartServiceW(service, 0, nullptr);
    } else if (wcscmp(verb, L"stop") == 0) {
        target = SERVICE_STOPPED;
        sent = ControlService(service, SERVICE_CONTROL_STOP, &status);
    } else if (wcscmp(verb, L"pause") == 0) {
        target = SERVICE_PAUSED;
        sent = ControlService(service, SERVICE_CONTROL_PAUSE, &status);
    } else if (wcscmp(verb, L"continue") == 0) {
        target = SERVICE_RUNNING;
        sent = ControlService(service, SERVICE_CONTROL_CONTINUE, &status);
    }
    if (!sent) {
        fwprintf(stderr, L"kvt_svcctl: %ls failed (error %lu)\n", verb, GetLastError());
        return 1;
    }
    const ULONGLONG deadline = GetTickCount64() + seconds * 1000ull;
    SERVICE_STATUS_PROCESS current{};
    DWORD needed = 0;
    for (;;) {
        QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&current),
                             sizeof current, &needed);
        if (target == 0 || current.dwCurrentState == target || GetTickCount64() > deadline)
            break;
        Sleep(50);
    }
    wprintf(L"%ls: %ls (exit code %lu)\n", argv[2], StateName(current.dwCurrentState),
            current.dwWin32ExitCode);
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    return target == 0 || current.dwCurrentState == target ? 0 : 1;
}
