// The service host: the control handler, the wait loop and the failure reports
// in-process, and the real loop under the service manager through a copy of
// the host whose pass counts.
#include <gtest/gtest.h>

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <functional>
#include <string>

#include "constants.h"
#include "host.h"
#include "report.h"
#include "seams.h"
#include "servicectl.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

int s_steps = 0;

// A context whose events exist but that never talks to the service manager;
// the report lines written meanwhile are collected.
struct LocalContext {
    ServiceContext context;
    LocalContext() {
        InitServiceContext(&context);
        for (UniqueHandle& event : context.events)
            event.Reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
        context.step = [] { ++s_steps; };
        context.waitMs = 50;
        s_steps = 0;
        SetInteractionAllowed(false, false);
    }
    ReportLines reports;
};

} // namespace

TEST(ServiceControlHandler, AnswersEveryControl) {
    LocalContext local;
    local.context.lastError = 1234; // not ready: state requests answer the stored error
    // Stop, pause, continue, interrogate, shutdown, and a user control nothing implements.
    const DWORD cases[][2] = {{1, 1234}, {2, 1234}, {3, 1234},  {4, 0},
                              {5, 0},    {127, 0},  {128, 120}, {255, 120}};
    for (const auto& c : cases)
        EXPECT_EQ(ServiceControlHandler(c[0], 0, nullptr, &local.context), c[1]) << c[0];
    EXPECT_EQ(ServiceControlHandler(SERVICE_CONTROL_STOP, 0, nullptr, nullptr),
              DWORD(ERROR_BAD_ENVIRONMENT));
    EXPECT_EQ(local.context.status.dwCheckPoint, 0u); // nothing was reported
}

TEST(WaitServiceEvent, ActsOnEachWaitResult) {
    // Without seams the queue is polled once a minute.
    EXPECT_EQ(LocalContext().context.waitMs, 50u);
    ServiceContext product;
    InitServiceContext(&product);
    EXPECT_EQ(product.waitMs, 60000u);
    // Event index to signal (-1: none, the wait times out), paused, result, passes run.
    const int cases[][4] = {{4, 0, 1, 1}, {-1, 0, 1, 1}, {4, 1, 1, 0}, {-1, 1, 1, 0},
                            {0, 0, 0, 0}, {1, 0, 0, 0},  {3, 0, 0, 0}};
    for (const auto& c : cases) {
        LocalContext local;
        local.context.paused = c[1] != 0;
        if (c[0] >= 0)
            SetEvent(local.context.events[c[0]].Get());
        EXPECT_EQ(WaitServiceEvent(&local.context), c[2] != 0) << c[0] << c[1];
        EXPECT_EQ(s_steps, c[3]) << c[0] << c[1];
    }
    // A mutex whose owner thread ended without releasing it is abandoned: ignored.
    LocalContext local;
    local.context.events[4].Reset(CreateMutexW(nullptr, FALSE, nullptr));
    UniqueHandle owner(CreateThread(
        nullptr, 0, [](void* m) -> DWORD { return WaitForSingleObject(static_cast<HANDLE>(m), 0); },
        local.context.events[4].Get(), 0, nullptr));
    WaitForSingleObject(owner.Get(), INFINITE);
    EXPECT_TRUE(WaitServiceEvent(&local.context));
    EXPECT_EQ(s_steps, 0);
}

// Every failure of a platform call is one error event naming the call and its code.
TEST(ServiceHost, FailureReportsNameTheCall) {
    static const ServiceSeams denied = {nullptr, 0, [](LPCSTR, LPCSTR, DWORD) -> SC_HANDLE {
                                            SetLastError(ERROR_ACCESS_DENIED);
                                            return nullptr;
                                        }};
    const std::pair<std::function<bool(ServiceContext&)>, std::string> cases[] = {
        {[](ServiceContext&) {
             SetServiceSeamsForTesting(&denied);
             const int result = InstallService();
             SetServiceSeamsForTesting(nullptr);
             return result == 1;
         },
         "[OpenSCManager] failed with code [00000005]"},
        // Outside the service dispatcher there is no service to register a handler for.
        {[](ServiceContext& c) { return !CreateServiceContext(&c, WStr(L"KVT_NOT_DISPATCHED")); },
         "[RegisterServiceCtrlHandler] failed with code ["},
        {[](ServiceContext& c) {
             c.ready = true; // with no status handle: the manager never registered us
             return SetServiceState(&c, kRequestPause) == c.lastError && c.lastError != 0;
         },
         "[SetServiceStatus] failed with code ["},
        {[](ServiceContext& c) {
             c.events[2].Reset(reinterpret_cast<HANDLE>(0x1234)); // not a handle
             const bool ended = !WaitServiceEvent(&c);
             c.events[2].Detach();
             return ended && c.lastError == ERROR_INVALID_HANDLE;
         },
         "[WaitForMultipleObjects] failed with code [00000006]"},
    };
    for (const auto& [action, report] : cases) {
        LocalContext local;
        EXPECT_TRUE(action(local.context)) << report;
        EXPECT_TRUE(local.reports.Contains("ReportEvent: Function " + report))
            << report << "\n"
            << local.reports.Take();
    }
}

TEST(PushEvent, GrantsEveryoneAllRightsAndRefusesAnExistingObject) {
    UniqueHandle event(CreateMSIPushEvent());
    ASSERT_TRUE(event) << GetLastError();
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(GetSecurityInfo(event.Get(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                              nullptr, nullptr, nullptr, &descriptor),
              DWORD(ERROR_SUCCESS));
    UniqueLocal owner(descriptor);
    wchar_t* sddl = nullptr;
    ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(
        descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &sddl, nullptr));
    UniqueLocal sddlOwner(sddl);
    EXPECT_STREQ(sddl, L"D:(A;;0x1fffff;;;WD)"); // one entry: Everyone, all rights
    SetLastError(0);
    EXPECT_EQ(CreateMSIPushEvent(), nullptr);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ALREADY_EXISTS));
}

namespace {

const wchar_t kCountingName[] = L"KVT_COUNTING_SERVICE";

class CountingService : public ::testing::Test {
  protected:
    void SetUp() override {
        RemoveService(kCountingName);
        ASSERT_TRUE(m_manager && m_started && m_gate);
    }
    void TearDown() override { m_service.Reset(), RemoveService(kCountingName); }
    // Registers the counting host with the given time-out and starts it.
    bool Start(DWORD waitMs) {
        const std::wstring command = L"\"" + Env(L"KVT_BUILD_DIR") +
                                     L"\\tests\\kvt_counting_service.exe\" --log \"" + m_log +
                                     L"\" --wait " + std::to_wstring(waitMs);
        m_service.Reset(CreateServiceW(m_manager.Get(), kCountingName, L"Kvt Counting Service",
                                       SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                                       SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, command.c_str(),
                                       nullptr, nullptr, nullptr, nullptr, nullptr));
        return m_service && StartServiceW(m_service.Get(), 0, nullptr);
    }
    bool Control(DWORD control, DWORD state) {
        SERVICE_STATUS status{};
        return ControlService(m_service.Get(), control, &status) &&
               WaitForServiceState(m_service.Get(), state, 10000);
    }
    std::string Log() const {
        std::string text;
        return ReadFileBytes(m_log, text), text;
    }
    int Passes() const {
        const std::string text = Log();
        int count = 0;
        for (size_t at = text.find("pass "); at != std::string::npos;
             at = text.find("pass ", at + 1))
            count += isdigit(static_cast<unsigned char>(text[at + 5])) != 0;
        return count;
    }
    template <class Done> static bool Within(DWORD timeoutMs, Done done) {
        const ULONGLONG deadline = GetTickCount64() + timeoutMs;
        while (!done() && GetTickCount64() < deadline)
            Sleep(20);
        return done();
    }
    // All passes up to count ran, and no more within half a second.
    bool Settled(int count) const {
        return Within(10000, [&] { return Passes() >= count; }) && (Sleep(500), Passes() == count);
    }
    void Push(int times = 1, DWORD gapMs = 0) const {
        UniqueHandle push(OpenEventA(EVENT_MODIFY_STATE, FALSE, ProductConstants.pushEventName));
        for (int i = 0; push && i < times; ++i)
            SetEvent(push.Get()), Sleep(gapMs);
        EXPECT_TRUE(push) << GetLastError();
    }
    // A closed gate holds the next pass open until it opens again.
    void Gate(bool open) { open ? SetEvent(m_gate.Get()) : ResetEvent(m_gate.Get()); }
    bool WaitPassStarted() { return WaitForSingleObject(m_started.Get(), 10000) == WAIT_OBJECT_0; }
    SERVICE_STATUS Status() const {
        SERVICE_STATUS status{};
        QueryServiceStatus(m_service.Get(), &status);
        return status;
    }

    ScratchDir m_dir{L"service"};
    std::wstring m_log = m_dir.Join(L"service.log");
    UniqueHandle m_started{CreateEventW(nullptr, FALSE, FALSE, L"Global\\KvtPassStarted")};
    UniqueHandle m_gate{CreateEventW(nullptr, TRUE, TRUE, L"Global\\KvtPassGate")};
    UniqueServiceHandle m_manager{OpenManager()}, m_service;
};

std::string StatusText(const SERVICE_STATUS& s) {
    return StrFormat("state %lu checkpoint %lu hint %lu controls %lu", s.dwCurrentState,
                     s.dwCheckPoint, s.dwWaitHint, s.dwControlsAccepted)
        .Text();
}

} // namespace

TEST_F(CountingService, ReportsEveryStateCoalescesPushesAndDropsThemWhilePaused) {
    Gate(false);
    ASSERT_TRUE(Start(600000)) << GetLastError();
    ASSERT_TRUE(WaitPassStarted());
    // The first pass runs while the start is pending; pause and continue accepted already.
    EXPECT_EQ(StatusText(Status()), "state 2 checkpoint 1 hint 100 controls 3");
    // Two pushes before the service waits: one more pass.
    Push(2, 0);
    Gate(true);
    ASSERT_TRUE(WaitForServiceState(m_service.Get(), SERVICE_RUNNING, 20000));
    EXPECT_EQ(StatusText(Status()), "state 4 checkpoint 2 hint 100 controls 3");
    EXPECT_TRUE(Settled(2));
    // A push during a pass: exactly one more. A pause during a pass is pending until it ends.
    Gate(false);
    Push();
    ASSERT_TRUE(WaitPassStarted());
    Push();
    SERVICE_STATUS status{};
    ASSERT_TRUE(ControlService(m_service.Get(), SERVICE_CONTROL_PAUSE, &status));
    EXPECT_EQ(StatusText(Status()), "state 6 checkpoint 3 hint 100 controls 3");
    Gate(true);
    ASSERT_TRUE(WaitForServiceState(m_service.Get(), SERVICE_PAUSED, 10000));
    EXPECT_EQ(StatusText(Status()), "state 7 checkpoint 4 hint 100 controls 3");
    EXPECT_TRUE(Settled(3)); // the pending push came in after the pause: dropped
    // Paused: pushes are consumed and dropped; continue runs nothing by itself.
    Push(2, 300);
    ASSERT_TRUE(Control(SERVICE_CONTROL_CONTINUE, SERVICE_RUNNING));
    EXPECT_TRUE(Settled(3));
    Push();
    ASSERT_TRUE(Within(10000, [&] { return Passes() >= 4; }));
    // A stop while paused stops at once, without a pass.
    ASSERT_TRUE(Control(SERVICE_CONTROL_PAUSE, SERVICE_PAUSED));
    ASSERT_TRUE(Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED));
    EXPECT_EQ(Passes(), 4);

    // The events in order, each after the first pass.
    const std::string log = Log();
    size_t last = log.find("pass 1"); // npos fails the first comparison
    for (const char* event : {" started.", " is pausing.", " is continuing.", " stopped."}) {
        const size_t at =
            log.find("Korvanta Cloud Client Update Service (24.7.0.57)" + std::string(event));
        ASSERT_NE(at, std::string::npos) << event << log;
        EXPECT_LT(last, at) << event;
        last = at;
    }
}

TEST_F(CountingService, TimeOutRunsAPassAndRestartsAfterEveryWakeUp) {
    ASSERT_TRUE(Start(1500)) << GetLastError();
    ASSERT_TRUE(Within(20000, [&] { return Passes() >= 1; }));
    // Pushes closer together than the time-out: only the pushes run passes.
    for (int i = 0; i < 5; ++i) {
        Sleep(800);
        Push();
        ASSERT_TRUE(Within(10000, [&] { return Passes() >= 2 + i; }));
    }
    EXPECT_EQ(Passes(), 6);
    // Quiet: the time-out runs a pass by itself.
    ASSERT_TRUE(Within(4000, [&] { return Passes() >= 7; }));
    ASSERT_TRUE(Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED));
}

TEST_F(CountingService, RefusesToStartWhenThePushEventExistsAlready) {
    UniqueHandle squatter(CreateEventA(nullptr, FALSE, FALSE, ProductConstants.pushEventName));
    // The service never reports a state, so the start request itself may time out.
    Start(600000);
    ASSERT_TRUE(m_service) << GetLastError();
    EXPECT_TRUE(Within(10000, [&] {
        return Log().find("Function [CreateMSIPushEvent] failed with code [000000B7]") !=
               std::string::npos;
    })) << Log();
    EXPECT_FALSE(WaitForServiceState(m_service.Get(), SERVICE_RUNNING, 2000));
    EXPECT_EQ(Passes(), 0);
}
