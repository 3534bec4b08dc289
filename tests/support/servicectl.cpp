#include "servicectl.h"

namespace testsupport {

SC_HANDLE OpenManager() {
    return OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
}

bool WaitForServiceState(SC_HANDLE service, DWORD state, DWORD timeoutMs,
                         SERVICE_STATUS_PROCESS* last) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    SERVICE_STATUS_PROCESS status{};
    for (;;) {
        DWORD needed = 0;
        if (QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                 sizeof status, &needed) &&
            status.dwCurrentState == state) {
            if (last != nullptr)
                *last = status;
            return true;
        }
        if (GetTickCount64() >= deadline) {
            if (last != nullptr)
                *last = status;
            return false;
        }
        Sleep(20);
    }
}

DWORD ServiceProcessId(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                              sizeof status, &needed))
        return 0;
    return status.dwProcessId;
}

void RemoveService(const std::wstring& name) {
    UniqueServiceHandle manager(OpenManager());
    if (!manager)
        return;
    UniqueServiceHandle service(OpenServiceW(manager.Get(), name.c_str(), SERVICE_ALL_ACCESS));
    if (!service)
        return;
    SERVICE_STATUS status{};
    ControlService(service.Get(), SERVICE_CONTROL_STOP, &status);
    if (!WaitForServiceState(service.Get(), SERVICE_STOPPED, 3000)) {
        const DWORD pid = ServiceProcessId(service.Get());
        if (pid != 0) {
            UniqueHandle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid));
            if (process) {
                TerminateProcess(process.Get(), 1);
                WaitForSingleObject(process.Get(), 5000);
            }
        }
        WaitForServiceState(service.Get(), SERVICE_STOPPED, 5000);
    }
    DeleteService(service.Get());
}

bool RunningUnderWine() {
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

} // namespace testsupport
