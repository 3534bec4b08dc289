// The service host: names, identity, installation, control loop, push event.
#pragma once

#include <windows.h>

#include <cstdint>

#include "handles.h"
#include "str.h"

inline constexpr size_t kServiceTextLimit = 255;
// Without pushes the queue is polled once a minute.
inline constexpr DWORD kPollIntervalMs = 60000;

// Names derived from the running executable and the product constants.
WStr GetModulePath();
WStr GetServiceName();
WStr GetServiceDisplayName(bool withVersion);
// base + suffix when the suffix is non-empty and the sum stays below 255;
// otherwise base alone, cut to 255 characters. Never a partial suffix.
WStr LimitServiceText(const WStr& base, const WStr& suffix);
// The service name's rule applied to a module path (for tests of the rule).
WStr ServiceNameFromPath(const WStr& modulePath);

// "Function [name] failed with code [%08lX]: <system text>." as an error event.
void ReportFunctionFailure(const char* functionName);
// "<display name with version> <word>." as an information event.
void ReportServiceMessage(const char* word);

// The process's entry point with its two roles (install or service start).
int ServiceEntryPoint();

// Registers the running executable with the service control manager: 0 or 1.
int InstallService();

void WINAPI ServiceMain(DWORD argc, LPWSTR* argv);

// The service's state for one run of ServiceMain; the control handler gets its address.
struct ServiceContext {
    bool ready = false;
    bool paused = false;
    DWORD lastError = 0;
    SERVICE_STATUS status = {SERVICE_WIN32_OWN_PROCESS,
                             SERVICE_STOPPED,
                             SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PAUSE_CONTINUE,
                             0,
                             0,
                             0,
                             0};
    SERVICE_STATUS_HANDLE statusHandle = nullptr;
    UniqueHandle events[5];
    DWORD pendingState[5] = {SERVICE_START_PENDING, SERVICE_PAUSE_PENDING, SERVICE_CONTINUE_PENDING,
                             SERVICE_STOP_PENDING, 0};
    void (*step)() = nullptr;       // the processing pass
    DWORD waitMs = kPollIntervalMs; // the time-out of the wait
};

enum ServiceRequest : DWORD { kRequestStarted = 0, kRequestPause, kRequestContinue, kRequestStop };

void InitServiceContext(ServiceContext* context);
bool CreateServiceContext(ServiceContext* context, const WStr& serviceName);
void CloseServiceContext(ServiceContext* context);
DWORD SetServiceState(ServiceContext* context, DWORD request);
bool WaitServiceEvent(ServiceContext* context);
DWORD WINAPI ServiceControlHandler(DWORD control, DWORD eventType, LPVOID eventData,
                                   LPVOID context);

// The global, auto-reset push event that every user may signal; null when it
// could not be created or an object of that name already existed.
HANDLE CreateMSIPushEvent();

// One pass over the installer queue.
void ExecuteServiceStep();
