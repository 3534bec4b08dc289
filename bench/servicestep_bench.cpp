// One queue pass over many requests, next to the same platform calls made
// directly on an identical set of files in the same run.
//   servicestep_bench.exe <fixtures directory> [requests] [rounds]
// The fixtures are those of tests/fixtures/make-fixtures.sh; the test CA must be
// trusted in the prefix (kvt_trustca.exe). The installer is replaced by a cheap
// console program for both sides, so that no package is really installed.
// Fairness: one untimed warm-up round, the side that goes first alternates, and
// the stand-in processes of a side are waited for (through a job object that
// every child joins) after its timed span, so neither side pays for the other's
// children. Printed: each round's ratio, their median and spread.
#include <windows.h>

#include <aclapi.h>
#include <msi.h>
#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "files.h"
#include "process.h"
#include "seams.h"
#include "servicestep.h"

namespace {

const wchar_t kStandIn[] = L"cmd.exe /c exit 0";

struct Request {
    std::wstring stem;
    const wchar_t* fixture; // null: a request without package
};

double Now() {
    LARGE_INTEGER counter, frequency;
    QueryPerformanceCounter(&counter);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(counter.QuadPart) / static_cast<double>(frequency.QuadPart);
}

std::wstring Wide(const Str& text) {
    const WStr wide = WStr::FromUtf8(text);
    return std::wstring(wide.Text(), wide.Length());
}

void EmptyDirectory(const std::wstring& directory) {
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((directory + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            DeleteFileW((directory + L"\\" + data.cFileName).c_str());
    } while (FindNextFileW(find, &data));
    FindClose(find);
}

void Place(const std::wstring& drop, const std::wstring& fixtures,
           const std::vector<Request>& requests) {
    for (const Request& r : requests) {
        if (r.fixture != nullptr)
            CopyFileW((fixtures + L"\\" + r.fixture).c_str(),
                      (drop + L"\\" + r.stem + L".msi").c_str(), FALSE);
        HANDLE marker = CreateFileW((drop + L"\\" + r.stem + L".pending").c_str(), GENERIC_WRITE, 0,
                                    nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        CloseHandle(marker);
    }
}

bool Trusted(const std::wstring& path) {
    WINTRUST_FILE_INFO file = {sizeof file, path.c_str(), nullptr, nullptr};
    WINTRUST_DATA data = {};
    data.cbStruct = sizeof data;
    data.dwUIChoice = WTD_UI_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file;
    data.dwStateAction = WTD_STATEACTION_VERIFY;
    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    const LONG result = WinVerifyTrust(nullptr, &action, &data);
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    WinVerifyTrust(nullptr, &action, &data);
    return result == 0;
}

bool Signed(const std::wstring& path) {
    PCCERT_CONTEXT certificate = nullptr;
    if (FAILED(MsiGetFileSignatureInformationW(path.c_str(), 0, &certificate, nullptr, nullptr)) ||
        certificate == nullptr)
        return false;
    wchar_t name[256];
    bool ok = false;
    for (const char* oid : {"2.5.4.10", "2.5.4.11"}) {
        if (CertGetNameStringW(certificate, CERT_NAME_ATTR_TYPE, 0, const_cast<char*>(oid), name,
                               256) > 1 &&
            wcscmp(name, L"Korvanta Labs") == 0) {
            ok = true;
            break;
        }
    }
    CertFreeCertificateContext(certificate);
    return ok;
}

bool Secure(const std::wstring& path) {
    BYTE aclBuffer[8];
    auto* acl = reinterpret_cast<PACL>(aclBuffer);
    InitializeAcl(acl, sizeof aclBuffer, ACL_REVISION);
    SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
    PSID administrators = nullptr;
    AllocateAndInitializeSid(&nt, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0,
                             0, 0, 0, &administrators);
    std::wstring writable = path;
    const DWORD status = SetNamedSecurityInfoW(writable.data(), SE_FILE_OBJECT, 0x20000007,
                                               administrators, administrators, acl, nullptr);
    FreeSid(administrators);
    return status == ERROR_SUCCESS;
}

bool Launch() {
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW | STARTF_FORCEONFEEDBACK;
    startup.wShowWindow = SW_SHOW;
    PROCESS_INFORMATION info = {};
    std::wstring command = kStandIn;
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, NORMAL_PRIORITY_CLASS,
                        nullptr, nullptr, &startup, &info))
        return false;
    CloseHandle(info.hThread);
    AllowSetForegroundWindow(info.dwProcessId);
    WaitForInputIdle(info.hProcess, 5000);
    CloseHandle(info.hProcess);
    return true;
}

void WriteResult(const std::wstring& path) {
    HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    const char line[] = "1|2026-01-01T00:00:00: 0";
    DWORD written = 0;
    WriteFile(file, line, sizeof line - 1, &written, nullptr);
    CloseHandle(file);
}

// The platform calls the pass makes for each request, made directly.
void DirectPass(const std::wstring& drop, const std::wstring& update,
                const std::vector<Request>& requests) {
    for (const Request& r : requests) {
        const std::wstring package = drop + L"\\" + r.stem + L".msi";
        std::wstring working = package;
        bool accepted = false;
        if (GetFileAttributesW(package.c_str()) != INVALID_FILE_ATTRIBUTES && Trusted(package) &&
            Signed(package)) {
            const std::wstring target = update + L"\\" + r.stem + L".msi";
            if (MoveFileExW(package.c_str(), target.c_str(),
                            MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED) &&
                Secure(target)) {
                working = target;
                HKEY key = nullptr;
                RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Korvanta\\WebClient\\Setups\\Cloud",
                                0, nullptr, 0, 0x2001F, nullptr, &key, nullptr);
                RegSetValueExW(key, L"UpdateInstaller", 0, REG_SZ,
                               reinterpret_cast<const BYTE*>(target.c_str()),
                               static_cast<DWORD>(target.size() * 2 + 2));
                RegCloseKey(key);
                accepted = Trusted(target) && Signed(target) && Launch();
            }
        }
        if (!accepted && !DeleteFileW(working.c_str())) {
            HANDLE marker = CreateFileW((drop + L"\\" + r.stem + L".removepending").c_str(),
                                        GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                        CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
            CloseHandle(marker);
        }
        DeleteFileW((drop + L"\\" + r.stem + L".pending").c_str());
        WriteResult(update + L"\\" + r.stem + L".result");
    }
}

// Seconds for one side: the drop directory filled, the side timed, then its
// stand-in processes waited for.
template <class Side>
double TimeSide(HANDLE job, const std::wstring& drop, const std::wstring& update,
                const std::wstring& fixtures, const std::vector<Request>& requests, Side side) {
    EmptyDirectory(drop);
    EmptyDirectory(update);
    Place(drop, fixtures, requests);
    const double start = Now();
    side();
    const double seconds = Now() - start;
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION info = {};
    do {
        Sleep(1);
        QueryInformationJobObject(job, JobObjectBasicAccountingInformation, &info, sizeof info,
                                  nullptr);
    } while (info.ActiveProcesses > 1);
    return seconds;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) {
        fwprintf(stderr, L"usage: servicestep_bench <fixtures directory> [requests] [rounds]\n");
        return 2;
    }
    const std::wstring fixtures = argv[1];
    const int count = argc > 2 ? _wtoi(argv[2]) : 120;
    const int rounds = std::max(7, argc > 3 ? _wtoi(argv[3]) : 9);
    std::vector<Request> requests;
    for (int i = 0; i < count; ++i) {
        const wchar_t* fixture = nullptr;
        switch (i % 6) {
        case 0:
            fixture = L"signed-korvanta.msi";
            break;
        case 1:
        case 2:
            fixture = L"unsigned.msi";
            break;
        case 3:
        case 4:
            fixture = L"signed-other.msi";
            break;
        default:
            break; // no package
        }
        requests.push_back({L"request-" + std::to_wstring(i), fixture});
    }
    static const QueueSeams standIn = {nullptr,
                                       nullptr,
                                       nullptr,
                                       [](const Str&) { return StartCommand(Str("cmd.exe /c exit 0"), nullptr, true, true); },
                                       nullptr,
                                       nullptr};
    SetQueueSeamsForTesting(&standIn);
    // Every stand-in process joins this job, so a side can wait for its own.
    HANDLE job = CreateJobObjectW(nullptr, nullptr);
    if (job == nullptr || !AssignProcessToJobObject(job, GetCurrentProcess())) {
        fwprintf(stderr, L"no job object: %lu\n", GetLastError());
        return 1;
    }

    const std::wstring drop = Wide(GetDropDirectory());
    const std::wstring update = Wide(GetUpdateDirectory());
    CreateDirectoryW(drop.c_str(), nullptr);
    int accepted = 0;
    for (const Request& r : requests)
        accepted += r.fixture != nullptr && wcscmp(r.fixture, L"signed-korvanta.msi") == 0;

    const auto pass = [] { ExecuteServiceStep(); };
    const auto direct = [&] { DirectPass(drop, update, requests); };
    std::vector<double> passMs, directMs, ratios;
    // Round 0 is the untimed warm-up.
    for (int round = 0; round <= rounds; ++round) {
        double passSeconds, directSeconds;
        if (round % 2 == 0) {
            passSeconds = TimeSide(job, drop, update, fixtures, requests, pass);
            directSeconds = TimeSide(job, drop, update, fixtures, requests, direct);
        } else {
            directSeconds = TimeSide(job, drop, update, fixtures, requests, direct);
            passSeconds = TimeSide(job, drop, update, fixtures, requests, pass);
        }
        if (round == 0)
            continue;
        passMs.push_back(passSeconds / count * 1e3);
        directMs.push_back(directSeconds / count * 1e3);
        ratios.push_back(passSeconds / directSeconds);
        wprintf(L"round %2d (%ls first): pass %7.3f ms, direct %7.3f ms per request, ratio %.3f\n",
                round, round % 2 == 0 ? L"pass" : L"direct", passMs.back(), directMs.back(),
                ratios.back());
    }
    EmptyDirectory(drop);
    EmptyDirectory(update);
    wprintf(L"requests per pass: %d (%d accepted), timed rounds: %d\n", count, accepted, rounds);
    wprintf(L"queue pass:           median %8.3f ms per request (%.3f..%.3f)\n", Median(passMs),
            *std::min_element(passMs.begin(), passMs.end()),
            *std::max_element(passMs.begin(), passMs.end()));
    wprintf(L"platform calls alone: median %8.3f ms per request (%.3f..%.3f)\n", Median(directMs),
            *std::min_element(directMs.begin(), directMs.end()),
            *std::max_element(directMs.begin(), directMs.end()));
    wprintf(L"pass / direct:        median %.3f (%.3f..%.3f)\n", Median(ratios),
            *std::min_element(ratios.begin(), ratios.end()),
            *std::max_element(ratios.begin(), ratios.end()));
    return 0;
}
