// Service installation, the control handler and the service's wait loop.
#include <windows.h>

#include <aclapi.h>

#include "constants.h"
#include "handles.h"
#include "host.h"
#include "report.h"
#include "seams.h"

namespace {
SeamSlot<ServiceSeams> s_seams;
}

void SetServiceSeamsForTesting(const ServiceSeams* seams) {
    s_seams.Set(seams);
}

// ---------------------------------------------------------------------------
// Installation

int InstallService() {
    const auto openManager = s_seams.Pick(&ServiceSeams::openSCManager, &OpenSCManagerA);
    UniqueServiceHandle manager(openManager(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager) {
        ReportFunctionFailure("OpenSCManager");
        return 1;
    }
    const WStr modulePath = GetModulePath();
    const WStr displayName = GetServiceDisplayName(false);
    const WStr serviceName = GetServiceName();
    // The binary path stays exactly as the module path: no quotes, no arguments.
    UniqueServiceHandle service(
        CreateServiceW(manager.Get(), serviceName.Text(), displayName.Text(), SERVICE_ALL_ACCESS,
                       SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                       modulePath.Text(), nullptr, nullptr, nullptr, nullptr, nullptr));
    if (!service) {
        // The owner's release keeps the error code for the report.
        manager.Reset();
        ReportFunctionFailure("CreateService");
        return 1;
    }
    service.Reset();
    manager.Reset();
    ReportServiceMessage("installed");
    return 0;
}

// ---------------------------------------------------------------------------
// Push event

HANDLE CreateMSIPushEvent() {
    SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
    UniqueSid everyone;
    if (!AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0,
                                  everyone.Put()))
        return nullptr;

    EXPLICIT_ACCESS_A entry = {};
    entry.grfAccessPermissions = STANDARD_RIGHTS_ALL | SPECIFIC_RIGHTS_ALL;
    entry.grfAccessMode = SET_ACCESS;
    entry.grfInheritance = NO_INHERITANCE;
    entry.Trustee.pMultipleTrustee = nullptr;
    entry.Trustee.MultipleTrusteeOperation = NO_MULTIPLE_TRUSTEE;
    entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entry.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    entry.Trustee.ptstrName = static_cast<LPSTR>(everyone.Get());

    PACL acl = nullptr;
    const DWORD result = SetEntriesInAclA(1, &entry, nullptr, &acl);
    if (result != ERROR_SUCCESS) {
        SetLastError(result);
        return nullptr;
    }
    UniqueLocal aclOwner(acl);

    SECURITY_DESCRIPTOR descriptor;
    if (!InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(&descriptor, TRUE, acl, FALSE))
        return nullptr;
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, &descriptor, FALSE};

    UniqueHandle event(CreateEventA(&attributes, FALSE, FALSE, ProductConstants.pushEventName));
    // An object of this name made by somebody else first, with their DACL, is never used.
    if (event && GetLastError() == ERROR_ALREADY_EXISTS) {
        event.Reset();
        SetLastError(ERROR_ALREADY_EXISTS);
        return nullptr;
    }
    return event.Detach();
}

// ---------------------------------------------------------------------------
// Control

void InitServiceContext(ServiceContext* context) {
    *context = ServiceContext();
    const ServiceSeams* seams = s_seams.Get();
    context->step = seams != nullptr && seams->step != nullptr ? seams->step : ExecuteServiceStep;
    if (seams != nullptr && seams->waitMs != 0)
        context->waitMs = seams->waitMs;
}

bool CreateServiceContext(ServiceContext* context, const WStr& serviceName) {
    InitServiceContext(context);
    context->statusHandle =
        RegisterServiceCtrlHandlerExW(serviceName.Text(), ServiceControlHandler, context);
    if (context->statusHandle == nullptr) {
        context->lastError = GetLastError();
        ReportFunctionFailure("RegisterServiceCtrlHandler");
        return false;
    }
    for (int i = 0; i < 4; ++i) {
        context->events[i].Reset(CreateEventA(nullptr, FALSE, FALSE, nullptr));
        if (!context->events[i]) {
            context->lastError = GetLastError();
            ReportFunctionFailure("CreateEvent");
            return false;
        }
    }
    context->events[4].Reset(CreateMSIPushEvent());
    if (!context->events[4]) {
        context->lastError = GetLastError();
        ReportFunctionFailure("CreateMSIPushEvent");
        return false;
    }
    context->ready = true;
    return true;
}

void CloseServiceContext(ServiceContext* context) {
    for (UniqueHandle& event : context->events)
        event.Reset();
}

namespace {

// Reports a state to the manager; false (after the failure report) when that fails.
bool SendStatus(ServiceContext* context, DWORD state) {
    context->status.dwCurrentState = state;
    context->status.dwCheckPoint += 1;
    context->status.dwWaitHint = 100;
    if (!SetServiceStatus(context->statusHandle, &context->status)) {
        context->lastError = GetLastError();
        ReportFunctionFailure("SetServiceStatus");
        return false;
    }
    return true;
}

} // namespace

DWORD SetServiceState(ServiceContext* context, DWORD request) {
    if (!context->ready)
        return context->lastError;
    if (!SendStatus(context, context->pendingState[request]))
        return context->lastError;
    if (!SetEvent(context->events[request].Get())) {
        context->lastError = GetLastError();
        ReportFunctionFailure("SetEvent");
        return context->lastError;
    }
    return 0;
}

DWORD WINAPI ServiceControlHandler(DWORD control, DWORD, LPVOID, LPVOID contextPointer) {
    auto* context = static_cast<ServiceContext*>(contextPointer);
    if (context == nullptr)
        return ERROR_BAD_ENVIRONMENT;
    switch (control) {
    case SERVICE_CONTROL_STOP:
        return SetServiceState(context, kRequestStop);
    case SERVICE_CONTROL_PAUSE:
        return SetServiceState(context, kRequestPause);
    case SERVICE_CONTROL_CONTINUE:
        return SetServiceState(context, kRequestContinue);
    default:
        // User-defined controls are not served; interrogate and the rest need no action.
        return control >= 128 && control <= 255 ? ERROR_CALL_NOT_IMPLEMENTED : NO_ERROR;
    }
}

bool WaitServiceEvent(ServiceContext* context) {
    HANDLE events[5];
    for (int i = 0; i < 5; ++i)
        events[i] = context->events[i].Get();
    const DWORD result = WaitForMultipleObjects(5, events, FALSE, context->waitMs);
    switch (result) {
    case WAIT_OBJECT_0 + kRequestStarted:
        ReportServiceMessage("started");
        return context->ready && SendStatus(context, SERVICE_RUNNING);
    case WAIT_OBJECT_0 + kRequestPause:
        context->paused = true;
        ReportServiceMessage("is pausing");
        return context->ready && SendStatus(context, SERVICE_PAUSED);
    case WAIT_OBJECT_0 + kRequestContinue:
        context->paused = false;
        ReportServiceMessage("is continuing");
        return context->ready && SendStatus(context, SERVICE_RUNNING);
    case WAIT_OBJECT_0 + kRequestStop:
        ReportServiceMessage("stopped");
        if (context->ready)
            SendStatus(context, SERVICE_STOPPED);
        return false;
    case WAIT_OBJECT_0 + 4:
    case WAIT_TIMEOUT:
        // Pushes and time-outs while paused are consumed and dropped.
        if (!context->paused && context->step != nullptr)
            context->step();
        return true;
    case WAIT_FAILED:
        context->lastError = GetLastError();
        ReportFunctionFailure("WaitForMultipleObjects");
        return false;
    default:
        return true;
    }
}

namespace {
// Closes the five events on every way out of ServiceMain.
struct ServiceContextCloser {
    ServiceContext* context;
    ~ServiceContextCloser() { CloseServiceContext(context); }
};
} // namespace

void WINAPI ServiceMain(DWORD, LPWSTR*) {
    // Process lifetime rather than this frame's: after a failed start the handler
    // stays registered with this address, and a later control must not find it gone.
    static ServiceContext context;
    ServiceContextCloser closer{&context};
    // Without a context or a first status report the manager notices by its own time-out.
    if (CreateServiceContext(&context, GetServiceName()) &&
        SetServiceState(&context, kRequestStarted) == 0) {
        // The first pass runs before the running state is reported.
        if (context.step != nullptr)
            context.step();
        while (WaitServiceEvent(&context)) {
        }
    }
}
