// Service installation and control. (Being completed.)
#include "host.h"

int InstallService() {
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    ReportFunctionFailure("CreateService");
    return 1;
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {}
