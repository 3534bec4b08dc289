// Soak: many requests from several clients at once to the installed service,
// with a stop, a pause and a killed service in between. Run by hand in a
// prefix where the test CA is trusted:
//   soak.exe <fixtures directory> [requests] [clients]
// Prints requests sent, answered, answered twice, answered with another code,
// lost, markers left and requests per second.
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

const wchar_t kService[] = L"KORVANTACLOUDUS";
const std::wstring kDrop = L"C:\\ProgramData\\korvanta.plugin";
const std::wstring kUpdate = L"C:\\Program Files\\Korvanta\\Update";
constexpr size_t kOutstanding = 8; // per client

struct Request {
    std::wstring stem;
    char expected; // '0' started, '6' refused
    bool answered = false;
};

std::atomic<size_t> s_answered{0}, s_wrongCode{0};
std::wstring s_fixtures;
std::atomic<HANDLE> s_push{nullptr};

bool Exists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string ReadAll(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return "";
    char buffer[128];
    DWORD got = 0;
    ReadFile(file, buffer, sizeof buffer, &got, nullptr);
    CloseHandle(file);
    return std::string(buffer, got);
}

void Place(const Request& r) {
    const wchar_t* fixture = r.expected == '6' ? L"\\unsigned.msi" : L"\\signed-korvanta.msi";
    CopyFileW((s_fixtures + fixture).c_str(), (kDrop + L"\\" + r.stem + L".msi").c_str(), FALSE);
    HANDLE marker = CreateFileW((kDrop + L"\\" + r.stem + L".pending").c_str(), GENERIC_WRITE, 0,
                                nullptr, CREATE_ALWAYS, 0, nullptr);
    CloseHandle(marker);
    SetEvent(s_push);
}

// Takes an answer: notes its code and removes the result, so that a second
// answer to the same request would show as a new file.
bool Collect(Request& r) {
    const std::wstring result = kUpdate + L"\\" + r.stem + L".result";
    const std::string line = ReadAll(result);
    if (line.empty() || line.back() < '0' || line.back() > '9')
        return false;
    s_wrongCode += line.back() != r.expected;
    r.answered = true;
    ++s_answered;
    DeleteFileW(result.c_str());
    return true;
}

void Client(std::vector<Request>* requests, const std::atomic<bool>* stop) {
    size_t next = 0, open = 0;
    while (!*stop) {
        for (Request& r : *requests)
            if (!r.answered && &r < requests->data() + next && Collect(r))
                --open;
        while (open < kOutstanding && next < requests->size())
            Place((*requests)[next++]), ++open;
        if (open == 0 && next == requests->size())
            return;
        SetEvent(s_push);
        Sleep(50);
    }
}

SC_HANDLE OpenService() {
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE service = manager ? OpenServiceW(manager, kService, SERVICE_ALL_ACCESS) : nullptr;
    if (manager)
        CloseServiceHandle(manager);
    return service;
}

bool WaitState(SC_HANDLE service, DWORD state) {
    for (int i = 0; i < 600; ++i) {
        SERVICE_STATUS status{};
        if (QueryServiceStatus(service, &status) && status.dwCurrentState == state)
            return true;
        Sleep(50);
    }
    return false;
}

void Control(SC_HANDLE service, DWORD control, DWORD state) {
    SERVICE_STATUS status{};
    ControlService(service, control, &status);
    WaitState(service, state);
}

void Start(SC_HANDLE service) {
    StartServiceW(service, 0, nullptr);
    WaitState(service, SERVICE_RUNNING);
}

void Kill(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                              sizeof status, &needed))
        return;
    HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, status.dwProcessId);
    if (process != nullptr) {
        TerminateProcess(process, 1);
        WaitForSingleObject(process, 10000);
        CloseHandle(process);
    }
    WaitState(service, SERVICE_STOPPED);
}

HANDLE OpenPushEvent() {
    return OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\com.korvanta.updateservice.msipush");
}

size_t CountMarkers(const std::wstring& directory) {
    size_t count = 0;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((directory + L"\\*.removepending").c_str(), &data);
    for (bool more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &data))
        ++count;
    if (find != INVALID_HANDLE_VALUE)
        FindClose(find);
    return count;
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) {
        fwprintf(stderr, L"usage: soak.exe <fixtures directory> [requests] [clients]\n");
        return 2;
    }
    s_fixtures = argv[1];
    const size_t total = argc > 2 ? wcstoul(argv[2], nullptr, 10) : 10000;
    const size_t clients = argc > 3 ? wcstoul(argv[3], nullptr, 10) : 4;
    wchar_t self[MAX_PATH];
    std::wstring exe(self, GetModuleFileNameW(nullptr, self, MAX_PATH));
    exe = exe.substr(0, exe.rfind(L"\\bench\\")) +
          L"\\clients\\services\\winupdate\\KorvantaCloudUS.exe";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION install{};
    std::wstring command = L"\"" + exe + L"\" install";
    if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                       &startup, &install)) {
        WaitForSingleObject(install.hProcess, 30000);
        CloseHandle(install.hProcess), CloseHandle(install.hThread);
    }
    SC_HANDLE service = OpenService();
    if (service == nullptr) {
        fwprintf(stderr, L"the service is not installed (%lu)\n", GetLastError());
        return 1;
    }
    Start(service);
    s_push = OpenPushEvent();
    CreateDirectoryW(kDrop.c_str(), nullptr);

    std::vector<std::vector<Request>> work(clients);
    for (size_t i = 0; i < total; ++i)
        work[i % clients].push_back(
            {L"soak-" + std::to_wstring(i % clients) + L"-" + std::to_wstring(i / clients),
             i % 3 == 0 ? '6' : '0'});
    std::atomic<bool> stop{false};
    const ULONGLONG start = GetTickCount64();
    std::vector<std::thread> threads;
    for (auto& requests : work)
        threads.emplace_back(Client, &requests, &stop);

    // The disturbances, each once the answers have come that far; the push event
    // is made anew by each start.
    const struct {
        size_t at;
        const wchar_t* what;
    } steps[] = {{total / 4, L"stop and start"},
                 {total / 2, L"pause and continue"},
                 {3 * total / 4, L"kill and start"}};
    for (const auto& step : steps) {
        for (ULONGLONG last = GetTickCount64(), seen = s_answered;
             s_answered < step.at && GetTickCount64() - last < 120000; Sleep(100))
            if (s_answered != seen)
                seen = s_answered, last = GetTickCount64();
        fwprintf(stderr, L"%zu answered: %ls\n", s_answered.load(), step.what);
        // A service refuses to start while its push event exists: let it go first.
        HANDLE push = s_push.exchange(nullptr);
        if (step.what[0] != L'p')
            CloseHandle(push);
        if (step.what[0] == L's') {
            Control(service, SERVICE_CONTROL_STOP, SERVICE_STOPPED);
            Start(service);
        } else if (step.what[0] == L'p') {
            Control(service, SERVICE_CONTROL_PAUSE, SERVICE_PAUSED);
            Sleep(2000);
            Control(service, SERVICE_CONTROL_CONTINUE, SERVICE_RUNNING);
        } else {
            Kill(service);
            Start(service);
        }
        s_push = step.what[0] == L'p' ? push : OpenPushEvent();
    }
    // The rest, until no answer has come for two minutes.
    for (ULONGLONG last = GetTickCount64(), seen = s_answered;
         s_answered < total && GetTickCount64() - last < 120000; Sleep(200))
        if (s_answered != seen)
            seen = s_answered, last = GetTickCount64();
    const double seconds = double(GetTickCount64() - start) / 1000;
    stop = true;
    for (std::thread& t : threads)
        t.join();
    // A second answer would come as a new result file of an answered request.
    SetEvent(s_push);
    Sleep(3000);
    size_t twice = 0, lost = 0;
    for (const auto& requests : work)
        for (const Request& r : requests) {
            twice += r.answered && Exists(kUpdate + L"\\" + r.stem + L".result");
            lost += !r.answered;
        }
    printf("requests sent %zu, answered %zu, answered twice %zu, answered with another code %zu, "
           "lost %zu, markers left %zu, %.1f requests per second (%zu clients, %.0f s)\n",
           total, s_answered.load(), twice, s_wrongCode.load(), lost,
           CountMarkers(kDrop) + CountMarkers(kUpdate), s_answered / seconds, clients, seconds);
    Control(service, SERVICE_CONTROL_STOP, SERVICE_STOPPED);
    CloseServiceHandle(service);
    return twice == 0 && lost == 0 ? 0 : 1;
}
