// The service host: control handler and wait loop in-process, and the real loop
// under the service manager through a copy of the host with a counting pass.
#include <gtest/gtest.h>

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <functional>
#include <memory>
#include <string>

#include "handles.h"
#include "host.h"
#include "servicectl.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

const wchar_t kPushEventName[] = L"Global\\com.korvanta.updateservice.msipush";

int s_steps = 0;
void CountStep() {
    ++s_steps;
}

// A context whose events exist but that never talks to the service manager.
struct LocalContext {
    ServiceContext context;
    LocalContext() {
        InitServiceContext(&context);
        for (HANDLE& event : context.events)
            event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        context.step = CountStep;
        context.waitMs = 50;
        s_steps = 0;
    }
    ~LocalContext() { CloseServiceContext(&context); }
};

} // namespace

TEST(ServiceControlHandler, AnswersEveryControl) {
    LocalContext local;
    local.context.lastError = 1234; // not ready: state requests answer the stored error
    const struct {
        DWORD control;
        DWORD expected;
    } cases[] = {
        {SERVICE_CONTROL_STOP, 1234},      {SERVICE_CONTROL_PAUSE, 1234},
        {SERVICE_CONTROL_CONTINUE, 1234},  {SERVICE_CONTROL_INTERROGATE, 0},
        {SERVICE_CONTROL_SHUTDOWN, 0},     {127, 0},
        {128, ERROR_CALL_NOT_IMPLEMENTED}, {200, ERROR_CALL_NOT_IMPLEMENTED},
        {255, ERROR_CALL_NOT_IMPLEMENTED}, {256, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ServiceControlHandler(c.control, 0, nullptr, &local.context), c.expected)
            << "control " << c.control;
    }
    EXPECT_EQ(ServiceControlHandler(SERVICE_CONTROL_STOP, 0, nullptr, nullptr),
              static_cast<DWORD>(ERROR_BAD_ENVIRONMENT));
    // Nothing was signalled and nothing was reported while not ready.
    EXPECT_EQ(WaitForMultipleObjects(5, local.context.events, FALSE, 0), WAIT_TIMEOUT);
    EXPECT_EQ(local.context.status.dwCheckPoint, 0u);
}

TEST(WaitServiceEvent, ActsOnEachWaitResult) {
    struct Case {
        const char* name;
        std::function<void(ServiceContext&)> arrange;
        bool expectedResult;
        int expectedSteps;
    };
    const Case cases[] = {
        {"push runs a pass", [](ServiceContext& c) { SetEvent(c.events[4]); }, true, 1},
        {"time-out runs a pass", [](ServiceContext&) {}, true, 1},
        {"push while paused is dropped",
         [](ServiceContext& c) {
             c.paused = true;
             SetEvent(c.events[4]);
         },
         true, 0},
        {"time-out while paused is dropped", [](ServiceContext& c) { c.paused = true; }, true, 0},
        {"started while not ready ends", [](ServiceContext& c) { SetEvent(c.events[0]); }, false,
         0},
        {"pause while not ready ends", [](ServiceContext& c) { SetEvent(c.events[1]); }, false, 0},
        {"stop ends", [](ServiceContext& c) { SetEvent(c.events[3]); }, false, 0},
    };
    for (const Case& c : cases) {
        LocalContext local;
        c.arrange(local.context);
        EXPECT_EQ(WaitServiceEvent(&local.context), c.expectedResult) << c.name;
        EXPECT_EQ(s_steps, c.expectedSteps) << c.name;
    }
}

TEST(WaitServiceEvent, PauseAndContinueSetTheFlagEvenWhenNotReady) {
    LocalContext local;
    SetEvent(local.context.events[1]);
    WaitServiceEvent(&local.context);
    EXPECT_TRUE(local.context.paused);
    SetEvent(local.context.events[2]);
    WaitServiceEvent(&local.context);
    EXPECT_FALSE(local.context.paused);
}

TEST(WaitServiceEvent, FailedWaitEndsTheLoopWithItsError) {
    LocalContext local;
    CloseHandle(local.context.events[2]);
    local.context.events[2] = reinterpret_cast<HANDLE>(0x1234);
    EXPECT_FALSE(WaitServiceEvent(&local.context));
    EXPECT_EQ(local.context.lastError, static_cast<DWORD>(ERROR_INVALID_HANDLE));
    local.context.events[2] = nullptr;
}

TEST(WaitServiceEvent, AbandonedWaitIsIgnored) {
    LocalContext local;
    CloseHandle(local.context.events[4]);
    HANDLE mutex = CreateMutexW(nullptr, FALSE, nullptr);
    local.context.events[4] = mutex;
    // A mutex whose owner thread ended without releasing it is abandoned.
    HANDLE owner = CreateThread(
        nullptr, 0, [](void* m) -> DWORD { return WaitForSingleObject(static_cast<HANDLE>(m), 0); },
        mutex, 0, nullptr);
    WaitForSingleObject(owner, INFINITE);
    CloseHandle(owner);
    EXPECT_TRUE(WaitServiceEvent(&local.context));
    EXPECT_EQ(s_steps, 0);
}

TEST(PushEvent, GrantsEveryoneAllRightsAndRefusesAnExistingObject) {
    UniqueHandle event(CreateMSIPushEvent());
    ASSERT_TRUE(event) << GetLastError();

    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(GetSecurityInfo(event.Get(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                              nullptr, &dacl, nullptr, &descriptor),
              static_cast<DWORD>(ERROR_SUCCESS));
    UniqueLocal owner(descriptor);
    ASSERT_NE(dacl, nullptr);
    ASSERT_EQ(dacl->AceCount, 1);
    void* ace = nullptr;
    ASSERT_TRUE(GetAce(dacl, 0, &ace));
    auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
    EXPECT_EQ(allowed->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
    EXPECT_EQ(allowed->Header.AceFlags, 0);
    EXPECT_EQ(allowed->Mask, 0x1FFFFFu);
    wchar_t* sid = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidW(&allowed->SidStart, &sid));
    EXPECT_STREQ(sid, L"S-1-1-0");
    LocalFree(sid);

    // An auto-reset event: two signals before a wait count as one.
    UniqueHandle client(OpenEventW(EVENT_MODIFY_STATE, FALSE, kPushEventName));
    ASSERT_TRUE(client);
    SetEvent(client.Get());
    SetEvent(client.Get());
    EXPECT_EQ(WaitForSingleObject(event.Get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event.Get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));

    SetLastError(0);
    EXPECT_EQ(CreateMSIPushEvent(), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
}

// ---------------------------------------------------------------------------
// The real loop under the service manager.

namespace {

const wchar_t kCountingName[] = L"KVT_COUNTING_SERVICE";

class CountingService : public ::testing::Test {
  protected:
    void SetUp() override {
        RemoveService(kCountingName);
        m_dir = std::make_unique<ScratchDir>(L"service");
        m_log = m_dir->Join(L"service.log");
        m_started.Reset(CreateEventW(nullptr, FALSE, FALSE, L"Global\\KvtPassStarted"));
        m_gate.Reset(CreateEventW(nullptr, TRUE, TRUE, L"Global\\KvtPassGate"));
        m_manager.Reset(OpenManager());
        ASSERT_TRUE(m_manager);
    }
    void TearDown() override {
        m_service.Reset();
        RemoveService(kCountingName);
    }

    void Create(DWORD waitMs) {
        const std::wstring exe = Env(L"KVT_BUILD_DIR") + L"\\tests\\kvt_counting_service.exe";
        const std::wstring command =
            L"\"" + exe + L"\" --log \"" + m_log + L"\" --wait " + std::to_wstring(waitMs);
        m_service.Reset(CreateServiceW(m_manager.Get(), kCountingName, L"Kvt Counting Service",
                                       SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                                       SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, command.c_str(),
                                       nullptr, nullptr, nullptr, nullptr, nullptr));
        ASSERT_TRUE(m_service) << GetLastError();
    }

    void StartAndWaitRunning() {
        ASSERT_TRUE(StartServiceW(m_service.Get(), 0, nullptr)) << GetLastError();
        ASSERT_TRUE(WaitForServiceState(m_service.Get(), SERVICE_RUNNING, 20000));
    }

    bool Control(DWORD control, DWORD state) {
        SERVICE_STATUS status{};
        return ControlService(m_service.Get(), control, &status) &&
               WaitForServiceState(m_service.Get(), state, 10000);
    }

    std::string Log() const {
        std::string text;
        ReadFileBytes(m_log, text);
        return text;
    }

    int Passes() const {
        const std::string text = Log();
        int count = 0;
        for (size_t at = text.find("pass "); at != std::string::npos;
             at = text.find("pass ", at + 1))
            if (text.compare(at, 5, "pass ") == 0 && text.find(" state ", at) != std::string::npos)
                ++count;
        return count;
    }

    bool WaitPasses(int expected, DWORD timeoutMs = 10000) const {
        const ULONGLONG deadline = GetTickCount64() + timeoutMs;
        while (Passes() < expected && GetTickCount64() < deadline)
            Sleep(20);
        return Passes() >= expected;
    }

    void Push() const {
        UniqueHandle push(OpenEventW(EVENT_MODIFY_STATE, FALSE, kPushEventName));
        ASSERT_TRUE(push) << GetLastError();
        SetEvent(push.Get());
    }

    // Holds the next pass open at its gate until Release().
    void Hold() { ResetEvent(m_gate.Get()); }
    void Release() { SetEvent(m_gate.Get()); }
    bool WaitPassStarted() { return WaitForSingleObject(m_started.Get(), 10000) == WAIT_OBJECT_0; }

    std::unique_ptr<ScratchDir> m_dir;
    std::wstring m_log;
    UniqueHandle m_started;
    UniqueHandle m_gate;
    UniqueServiceHandle m_manager;
    UniqueServiceHandle m_service;
};

} // namespace

TEST_F(CountingService, ReportsEveryStateAndTheFirstPassComesBeforeRunning) {
    Create(600000);
    StartAndWaitRunning();
    ASSERT_TRUE(WaitPasses(1));
    ASSERT_TRUE(Control(SERVICE_CONTROL_PAUSE, SERVICE_PAUSED));
    ASSERT_TRUE(Control(SERVICE_CONTROL_CONTINUE, SERVICE_RUNNING));
    ASSERT_TRUE(Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED));
    SERVICE_STATUS_PROCESS status{};
    WaitForServiceState(m_service.Get(), SERVICE_STOPPED, 1000, &status);
    EXPECT_EQ(status.dwWin32ExitCode, 0u);

    const std::string log = Log();
    const std::string name = "Korvanta Cloud Client Update Service (24.7.0.57)";
    const size_t pass = log.find("pass 1 state 2"); // START_PENDING while the first pass ran
    const size_t started = log.find(name + " started.");
    const size_t pausing = log.find(name + " is pausing.");
    const size_t continuing = log.find(name + " is continuing.");
    const size_t stopped = log.find(name + " stopped.");
    ASSERT_NE(pass, std::string::npos) << log;
    ASSERT_NE(started, std::string::npos) << log;
    ASSERT_NE(pausing, std::string::npos) << log;
    ASSERT_NE(continuing, std::string::npos) << log;
    ASSERT_NE(stopped, std::string::npos) << log;
    EXPECT_LT(pass, started);
    EXPECT_LT(started, pausing);
    EXPECT_LT(pausing, continuing);
    EXPECT_LT(continuing, stopped);
    EXPECT_EQ(Passes(), 1);
}

TEST_F(CountingService, PushesCoalesceAndPausedPushesAreDropped) {
    Create(600000);
    Hold();
    ASSERT_TRUE(StartServiceW(m_service.Get(), 0, nullptr)) << GetLastError();
    ASSERT_TRUE(WaitPassStarted());
    // Two pushes before the service waits: one more pass.
    Push();
    Push();
    Release();
    ASSERT_TRUE(WaitForServiceState(m_service.Get(), SERVICE_RUNNING, 20000));
    ASSERT_TRUE(WaitPasses(2));
    Sleep(500);
    EXPECT_EQ(Passes(), 2);

    // A push during a pass: exactly one more.
    Hold();
    Push();
    ASSERT_TRUE(WaitPassStarted());
    Push();
    Release();
    ASSERT_TRUE(WaitPasses(4));
    Sleep(500);
    EXPECT_EQ(Passes(), 4);

    // Paused: pushes are consumed and dropped; continue runs nothing by itself.
    ASSERT_TRUE(Control(SERVICE_CONTROL_PAUSE, SERVICE_PAUSED));
    Push();
    Sleep(300);
    Push();
    Sleep(300);
    ASSERT_TRUE(Control(SERVICE_CONTROL_CONTINUE, SERVICE_RUNNING));
    Sleep(500);
    EXPECT_EQ(Passes(), 4);
    Push();
    ASSERT_TRUE(WaitPasses(5));

    // A stop while paused stops at once, without a pass.
    ASSERT_TRUE(Control(SERVICE_CONTROL_PAUSE, SERVICE_PAUSED));
    ASSERT_TRUE(Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED));
    EXPECT_EQ(Passes(), 5);
}

TEST_F(CountingService, TimeOutRunsAPassAndRestartsAfterEveryWakeUp) {
    Create(1500);
    StartAndWaitRunning();
    ASSERT_TRUE(WaitPasses(1));
    // Pushes closer together than the time-out: every wake-up restarts it, so
    // only the pushes run passes.
    for (int i = 0; i < 5; ++i) {
        Sleep(800);
        Push();
        ASSERT_TRUE(WaitPasses(2 + i));
    }
    EXPECT_EQ(Passes(), 6);
    // Quiet: the time-out runs a pass by itself.
    ASSERT_TRUE(WaitPasses(7, 4000));
    ASSERT_TRUE(Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED));
}

TEST_F(CountingService, RefusesToStartWhenThePushEventExistsAlready) {
    UniqueHandle squatter(CreateEventW(nullptr, FALSE, FALSE, kPushEventName));
    ASSERT_TRUE(squatter);
    Create(600000);
    // The service never reports a state, so the start request itself may time out.
    StartServiceW(m_service.Get(), 0, nullptr);
    const ULONGLONG deadline = GetTickCount64() + 10000;
    while (Log().find("CreateMSIPushEvent") == std::string::npos && GetTickCount64() < deadline)
        Sleep(50);
    EXPECT_NE(Log().find("Function [CreateMSIPushEvent] failed with code [000000B7]"),
              std::string::npos)
        << Log();
    EXPECT_FALSE(WaitForServiceState(m_service.Get(), SERVICE_RUNNING, 2000));
    EXPECT_EQ(Log().find("started."), std::string::npos);
    EXPECT_EQ(Passes(), 0);
}
