// Driving the real service control manager from a test process.
#pragma once

#include <windows.h>

#include <string>

#include "handles.h"

namespace testsupport {

// Opens the manager with all access; null on failure.
SC_HANDLE OpenManager();
// Polls until the service reports `state` (true) or the time runs out (false).
bool WaitForServiceState(SC_HANDLE service, DWORD state, DWORD timeoutMs,
                         SERVICE_STATUS_PROCESS* last = nullptr);
// Stops (best effort), kills a leftover process and deletes the service.
void RemoveService(const std::wstring& name);
// The process id the manager reports for a running service (0 when none).
DWORD ServiceProcessId(SC_HANDLE service);
// True when the running program is Wine.
bool RunningUnderWine();

} // namespace testsupport
