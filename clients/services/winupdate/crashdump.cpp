// The unhandled-exception filter and its minidump.
#include "crashdump.h"

#include <windows.h>

#include <aclapi.h>
#include <dbghelp.h>
#include <sddl.h>

#include "constants.h"
#include "files.h"
#include "handles.h"
#include "private/system.h"
#include "report.h"

namespace {

// Only administrators and the service itself may change the folder: a user
// who could would choose where the service writes.
const wchar_t kDumpFolderSddl[] = L"O:BAG:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

struct CrashCall {
    EXCEPTION_POINTERS* pointers;
    DWORD threadId;
};

// The folder's owner is Administrators, LocalSystem or this process's user.
bool OwnedByUs(HANDLE folder) {
    PSID owner = nullptr;
    UniqueLocal descriptor;
    if (GetSecurityInfo(
            folder, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
            reinterpret_cast<PSECURITY_DESCRIPTOR*>(descriptor.Put())) != ERROR_SUCCESS ||
        owner == nullptr)
        return false;
    if (IsWellKnownSid(owner, WinBuiltinAdministratorsSid) ||
        IsWellKnownSid(owner, WinLocalSystemSid))
        return true;
    UniqueHandle token;
    alignas(8) BYTE buffer[256];
    DWORD length = 0;
    return OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Put()) &&
           GetTokenInformation(token.Get(), TokenUser, buffer, sizeof buffer, &length) &&
           EqualSid(owner, reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid);
}

// A new file in the folder, never an existing name.
UniqueHandle CreateDumpFile(const Str& folder) {
    SYSTEMTIME now;
    GetLocalTime(&now);
    const Str name =
        StrFormat("KorvantaCloudUS-%04u%02u%02u-%02u%02u%02u-%lu.dmp", now.wYear, now.wMonth,
                  now.wDay, now.wHour, now.wMinute, now.wSecond, GetCurrentProcessId());
    Str path = folder;
    if (!AppendPathComponent(path, name.Text()))
        return UniqueHandle();
    const WStr wide = WStr::FromUtf8(path);
    return UniqueHandle(CreateFileW(wide.Text(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    CREATE_NEW,
                                    FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

// On a thread of its own: a stack overflow leaves the faulting thread no room.
DWORD WINAPI ReportAndDump(void* parameter) {
    const auto* call = static_cast<CrashCall*>(parameter);
    ExceptionFilter("UnhandledException", call->pointers, EXCEPTION_EXECUTE_HANDLER);
    const Str folder = GetCrashDumpDirectory();
    UniqueHandle file = folder.IsEmpty() ? UniqueHandle() : CreateDumpFile(folder);
    if (!file)
        return 1;
    MINIDUMP_EXCEPTION_INFORMATION exception = {call->threadId, call->pointers, FALSE};
    const auto type =
        static_cast<MINIDUMP_TYPE>(MiniDumpWithThreadInfo | MiniDumpWithIndirectlyReferencedMemory);
    return MiniDumpWriteDump(GetCurrentProcess(), GetCurrentProcessId(), file.Get(), type,
                             &exception, nullptr, nullptr)
               ? 0
               : 1;
}

LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* pointers) {
    static volatile LONG s_entered = 0;
    if (InterlockedExchange(&s_entered, 1) != 0) // a second fault meanwhile: just end
        return EXCEPTION_EXECUTE_HANDLER;
    CrashCall call = {pointers, GetCurrentThreadId()};
    HANDLE thread = CreateThread(nullptr, 0, ReportAndDump, &call, 0, nullptr);
    if (thread != nullptr) {
        WaitForSingleObject(thread, 120000);
        CloseHandle(thread);
    }
    // The process ends with the fault's code.
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

Str GetCrashDumpDirectory() {
    Str folder = GetWellKnownDirectory(kDirectoryProgramFiles);
    if (folder.IsEmpty() || !AppendPathComponent(folder, kUpdateCompanyFolder) ||
        !CreateDirectoryPath(folder, true, false) || !AppendPathComponent(folder, "Crashes"))
        return Str();
    const WStr wide = WStr::FromUtf8(folder);
    UniqueLocal descriptor;
    if (ConvertStringSecurityDescriptorToSecurityDescriptorW(
            kDumpFolderSddl, SDDL_REVISION_1,
            reinterpret_cast<PSECURITY_DESCRIPTOR*>(descriptor.Put()), nullptr)) {
        SECURITY_ATTRIBUTES attributes = {sizeof attributes, descriptor.Get(), FALSE};
        CreateDirectoryW(wide.Text(), &attributes); // an existing one is checked below
    }
    UniqueHandle handle(CreateFileW(wide.Text(), READ_CONTROL | FILE_READ_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                    nullptr));
    BY_HANDLE_FILE_INFORMATION facts;
    if (!handle || !GetFileInformationByHandle(handle.Get(), &facts) ||
        (facts.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ||
        (facts.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 || !OwnedByUs(handle.Get()))
        return Str();
    return folder;
}

void InstallCrashReporting() {
    SetUnhandledExceptionFilter(OnUnhandledException);
}
