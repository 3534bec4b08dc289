// Interactive reports: the report line, then a message box on a thread of its
// own that a developer can answer, and that closes itself when nobody does.
#include <windows.h>

#include "handles.h"
#include "private/reportstate.h"
#include "private/seams.h"
#include "private/system.h"
#include "report.h"

namespace {

bool s_processAllowsBoxes = true;
bool s_userAllowsBoxes = true;

struct BoxRequest {
    const char* text;
    uint32_t type;
    int answer;
    bool shift;
    bool control;
};

SeamSlot<ReportSeams> s_seams;

void ShowBox(void* parameter) {
    auto* request = static_cast<BoxRequest*>(parameter);
    const char caption[] = "Korvanta Tracer";
    const uint32_t style = request->type | MB_ICONERROR | MB_SYSTEMMODAL | MB_SETFOREGROUND;
    const ReportSeams* seams = s_seams.Get();
    if (seams != nullptr && seams->messageBox != nullptr) {
        request->answer =
            seams->messageBox(request->text, caption, style, &request->shift, &request->control);
        return;
    }
    request->answer = MessageBoxA(nullptr, request->text, caption, style);
    request->shift = GetKeyState(VK_SHIFT) < 0;
    request->control = GetKeyState(VK_CONTROL) < 0;
}

// A fault in the box (a bad text, a broken window hook) ends the box, not the
// process; the answer stays 0.
DWORD WINAPI BoxThread(void* parameter) {
    RunGuarded("MessageBoxThread", ExceptionFilter, ShowBox, parameter);
    return 0;
}

BOOL CALLBACK FindThreadWindow(HWND window, LPARAM found) {
    *reinterpret_cast<HWND*>(found) = window;
    return FALSE;
}

// A window station that is not visible (a service's) has no one to answer a box.
bool HasInteractiveDesktop() {
    USEROBJECTFLAGS flags{};
    HWINSTA station = GetProcessWindowStation();
    if (station == nullptr ||
        !GetUserObjectInformationW(station, UOI_FLAGS, &flags, sizeof flags, nullptr))
        return false;
    return (flags.dwFlags & WSF_VISIBLE) != 0;
}

} // namespace

void SetReportSeamsForTesting(const ReportSeams* seams) {
    s_seams.Set(seams);
}

int MessageBoxThread(const char* text, uint32_t type, bool* outShift, bool* outControl) {
    LastErrorKeeper keep;
    BoxRequest request{text, type, 0, false, false};
    if (outShift != nullptr)
        *outShift = false;
    if (outControl != nullptr)
        *outControl = false;
    DWORD threadId = 0;
    UniqueHandle thread(CreateThread(nullptr, 0, BoxThread, &request, 0, &threadId));
    if (!thread)
        return 0;
    bool closedByUs = false;
    bool lastStep = false;
    for (int step = 1; step <= 20; ++step) {
        if (WaitForSingleObject(thread.Get(), 500) != WAIT_TIMEOUT)
            break;
        HWND window = nullptr;
        EnumThreadWindows(threadId, FindThreadWindow, reinterpret_cast<LPARAM>(&window));
        if (window == nullptr) {
            if (lastStep)
                break;
            lastStep = true; // the box is gone (or not yet there): one more step
            continue;
        }
        lastStep = false;
        if (step == 20) {
            // Nobody answered within about ten seconds: the box closes itself.
            PostMessageA(window, WM_CLOSE, 0, 0);
            closedByUs = true;
        }
    }
    bool terminated = false;
    if (WaitForSingleObject(thread.Get(), 500) == WAIT_TIMEOUT) {
        TerminateThread(thread.Get(), 1);
        terminated = true;
    }
    if (terminated || closedByUs)
        return 0;
    if (outShift != nullptr)
        *outShift = request.shift;
    if (outControl != nullptr)
        *outControl = request.control;
    return request.answer;
}

void SetInteractionAllowed(bool processAllows, bool userAllows) {
    s_processAllowsBoxes = processAllows;
    s_userAllowsBoxes = userAllows;
}

void ReportAndConfirm(uint32_t category, int32_t severity, const char* sourceFile, uint32_t line,
                      const char* message) {
    LastErrorKeeper keep;
    WriteReport(category, severity, sourceFile, line, message);
    if (message == nullptr || !ReportingEnabled() || !s_processAllowsBoxes || !s_userAllowsBoxes)
        return;
    ThreadReportState* state = GetThreadReportState();
    if (!ReportPasses(state, severity) || state->inDialog != 0 || state->neverAsk)
        return;
    for (uint32_t i = 0; i < state->silencedCount; ++i)
        if (state->silenced[i].file == sourceFile && state->silenced[i].line == line)
            return;
    if (!HasInteractiveDesktop())
        return;
    ++state->inDialog;
    bool shift = false;
    bool control = false;
    const int answer = MessageBoxThread(message, MB_OKCANCEL, &shift, &control);
    if (answer != IDCANCEL) {
        if (shift)
            state->neverAsk = true;
        if (control && state->silencedCount < 128)
            state->silenced[state->silencedCount++] = {sourceFile, line};
        --state->inDialog;
        return;
    }
    using IsDebuggerPresentFunction = BOOL(WINAPI*)();
    const auto isDebuggerPresent =
        reinterpret_cast<IsDebuggerPresentFunction>(reinterpret_cast<void*>(
            GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "IsDebuggerPresent")));
    if (isDebuggerPresent != nullptr && isDebuggerPresent()) {
        DebugBreak();
    } else if (MessageBoxThread("Continue?", MB_YESNO, nullptr, nullptr) == IDNO) {
        FatalExit(1);
    }
    --state->inDialog;
}
