// Locks: the wait events of contended entries as a tracing session would
// receive them, owner reentry, and the long-hold report against its threshold
// in fresh processes ("--hold-child") where the thresholds are read once.
#include <gtest/gtest.h>

#include <windows.h>

#include <evntprov.h>

#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "locks.h"
#include "private/seams.h"
#include "private/system.h"
#include "report.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

// What the provider wrote: "<id>.<phase>/<task> <field>=<value> ...", the field
// names read from the event's own metadata, as a tracing tool would.
std::vector<std::string> s_events;
std::vector<std::string> s_names; // "<name> level <n>", one per event
PENABLECALLBACK s_enable;
void* s_libraryContext;

ULONG WINAPI CaptureRegister(LPCGUID, PENABLECALLBACK callback, PVOID context, PREGHANDLE handle) {
    if (s_libraryContext == nullptr) // the library's provider registers first
        s_enable = callback, s_libraryContext = context;
    *handle = 1;
    return ERROR_SUCCESS;
}

ULONG WINAPI CaptureWrite(REGHANDLE, PCEVENT_DESCRIPTOR descriptor, LPCGUID, LPCGUID, ULONG count,
                          PEVENT_DATA_DESCRIPTOR data) {
    std::string event = std::to_string(descriptor->Id) + "." + std::to_string(descriptor->Opcode) +
                        "/" + std::to_string(descriptor->Task);
    // Event metadata: size, tags, name, then per field its name and type (and out type).
    const char* meta = reinterpret_cast<const char*>(data[1].Ptr) + 3;
    s_names.push_back(std::string(meta) + " level " + std::to_string(descriptor->Level));
    meta += strlen(meta) + 1;
    for (ULONG f = 2; f < count; ++f) {
        const std::string name = meta;
        meta += name.size() + 1;
        const auto type = static_cast<uint8_t>(*meta++);
        meta += (type & 0x80) != 0;
        const void* value = reinterpret_cast<const void*>(data[f].Ptr);
        event += " " + name + "=" +
                 ((type & 0x7F) == 10 ? std::to_string(*static_cast<const uint64_t*>(value))
                                      : std::string(static_cast<const char*>(value)));
    }
    s_events.push_back(event);
    return ERROR_SUCCESS;
}

std::string TakeEvents() {
    std::string joined;
    for (const std::string& e : std::exchange(s_events, {}))
        joined += (joined.empty() ? "" : "\n") + e;
    return joined;
}

// Holds a section on a thread of its own for `ms` from the moment it returns.
struct Holder {
    std::function<void()> enter, leave;
    DWORD ms;
    HANDLE entered = CreateEventW(nullptr, TRUE, FALSE, nullptr), thread = nullptr;
    void Start() {
        thread = CreateThread(
            nullptr, 0,
            [](void* self) -> DWORD {
                auto* h = static_cast<Holder*>(self);
                h->enter();
                SetEvent(h->entered);
                Sleep(h->ms);
                h->leave();
                return 0;
            },
            this, 0, nullptr);
        WaitForSingleObject(entered, INFINITE);
    }
    ~Holder() {
        WaitForSingleObject(thread, INFINITE);
        CloseHandle(thread), CloseHandle(entered);
    }
};

} // namespace

TEST(MonitoredSection, WaitEventsOnlyOnContentionAndNoneForTheOwner) {
    MonitoredSection section;
    InitMonitoredSection(&section, "KvtSection");
    TakeEvents();
    EnterMonitored(&section, "outer");
    EnterMonitored(&section, "nested"); // the owner: no wait, no second measurement
    LeaveMonitored(&section);
    EXPECT_EQ(section.recursion, 1u);
    LeaveMonitored(&section);
    EXPECT_EQ(TakeEvents(), "") << "uncontended or nested entries fire nothing";
    EXPECT_EQ(section.holdCount, 1u);
    EXPECT_EQ(FindLockSite(&section, "nested"), nullptr);
    EXPECT_EQ(FindLockSite(&section, "outer")->holdCount, 1u);

    Holder holder{[&] { EnterMonitored(&section, "holding"); }, [&] { LeaveMonitored(&section); },
                  150};
    holder.Start();
    EnterMonitored(&section, "waiting");
    LeaveMonitored(&section);
    const std::string events = TakeEvents();
    EXPECT_TRUE(std::regex_match(
        events, std::regex("100\\.1/60 lock=KvtSection locksite=waiting lastlocksite= "
                           "lastduration_ms=0\n"
                           "100\\.2/60 lock=KvtSection locksite=waiting lastlocksite=holding "
                           "lastduration_ms=(1[4-9]\\d|[2-9]\\d\\d)")))
        << events;
    EXPECT_EQ(section.waitCount, 1u);
    EXPECT_EQ(FindLockSite(&section, "waiting")->waitCount, 1u);
    DeleteMonitoredSection(&section);

    NamedSection named;
    InitNamedSection(&named, "KvtNamed");
    {
        Holder holder{[&] { EnterNamed(&named, "holding"); }, [&] { LeaveNamed(&named); }, 100};
        holder.Start();
        EnterNamed(&named, "waiting");
        LeaveNamed(&named);
    }
    EXPECT_EQ(TakeEvents(), "100.1/60 lock=KvtNamed locksite=waiting lastlocksite= "
                            "lastduration_ms=0\n"
                            "100.2/60 lock=KvtNamed locksite=waiting lastlocksite= "
                            "lastduration_ms=0");
    DeleteNamedSection(&named);
}

// Every catalogue event as a session decodes it: its name, level and fields.
TEST(DiagnosticCatalogue, EveryEventWithItsNameLevelAndFields) {
    const DiagnosticValue values[] = {{"a", 0}, {"b", 7}, {"c", 0}, {nullptr, 9}};
    const struct {
        uint32_t id;
        const char* name;   // and its level
        const char* fields; // as written with the values above
    } rows[] = {
        {100, "Critical Section Wait level 5",
         "100.1/60 lock=a locksite=b lastlocksite=c lastduration_ms=9"},
        {101, "Thread::Start level 4", "101.1/60 name=a"},
        {102, "Error level 2", "102.1/60 msg=a"},
        {103, "ReportEvent level 4", "103.1/60 source=a eventid=7 event=c"},
        {104, "ReportError level 2", "104.1/60 source=a eventid=7 event=c"},
        {105, "ReportWarning level 3", "105.1/60 source=a eventid=7 event=c"},
        {106, "Read Lock Wait level 5", "106.1/60 lock=a locksite=b"},
        {107, "Write Lock Wait level 5", "107.1/60 lock=a locksite=b"},
    };
    TakeEvents(), s_names.clear();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.id);
        FireDiagnosticEvent(row.id, 1, 60, values, 4);
        EXPECT_EQ(TakeEvents(), row.fields);
        ASSERT_EQ(s_names.size(), 1u);
        EXPECT_EQ(std::exchange(s_names, {})[0], row.name);
    }
    FireDiagnosticEvent(103, 2, 0, values, 1);
    EXPECT_EQ(TakeEvents(), "103.2/0 source=a eventid=0 event=") << "missing fields are empty";
    FireDiagnosticEvent(108, 1, 0, values, 4);
    EXPECT_EQ(TakeEvents(), "") << "no event outside the catalogue";
    s_enable(nullptr, 0, 0, 0, 0, nullptr, s_libraryContext); // the session ends
    FireDiagnosticEvent(102, 1, 0, values, 1);
    EXPECT_FALSE(GetDiagnosticCatalogue()->enabled);
    s_enable(nullptr, 1, 5, 0, 0, nullptr, s_libraryContext);
    EXPECT_EQ(TakeEvents(), "") << "nothing while no session listens";
    s_names.clear();
}

// The child holds a section for a scripted number of counter ticks (1 ms each).
TEST(MonitoredSection, LongHoldReportAgainstTheThreshold) {
    const struct {
        const char* name;
        const wchar_t* variable; // THRESHOLD_SHORTCRITICALSECTION; null: unset
        const wchar_t* hold;     // ms; "unnamed" sections take a prefix "u"
        const char* record;      // the event record's fields; null: none
    } rows[] = {
        {"held exactly its threshold: no report", nullptr, L"300", nullptr},
        {"one millisecond more: a report", nullptr, L"301",
         R"("lockname":"KvtHeld","locksite":"KvtSite","calltime_ms":301,"threshold_ms":300)"},
        {"a section without a name is Unknown", nullptr, L"u301",
         R"("lockname":"Unknown","locksite":"KvtSite","calltime_ms":301,"threshold_ms":300)"},
        {"a non-numeric threshold keeps 300", L"fast", L"301", R"("threshold_ms":300)"},
        {"a number with a unit keeps 300", L"50ms", L"301", R"("threshold_ms":300)"},
        {"21 digits keep 300", L"000000000000000000050", L"301", R"("threshold_ms":300)"},
        {"a numeric threshold is taken", L"50", L"51", R"("calltime_ms":51,"threshold_ms":50)"},
        {"0 switches the report off", L"0", L"100000", nullptr},
    };
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::wstring environment = L"LOGTYPE=stdout";
        if (row.variable != nullptr)
            environment += L"\nTHRESHOLD_SHORTCRITICALSECTION=" + std::wstring(row.variable);
        const ProcessResult run =
            RunProcess(L"\"" + std::wstring(self) + L"\" --hold-child " + row.hold, environment);
        ASSERT_EQ(run.exitCode, 0u) << run.err;
        const size_t at = run.out.find("Lock duration exceeded threshold");
        EXPECT_EQ(at != std::string::npos, row.record != nullptr) << run.out;
        if (row.record != nullptr && at != std::string::npos) {
            EXPECT_NE(run.out.find(row.record, at), std::string::npos) << run.out;
            EXPECT_NE(run.out.find(R"("level":"info","message":"QELGUI-00500: Lock duration)"),
                      std::string::npos)
                << run.out;
        }
    }
}

namespace {

LONGLONG s_now = 1000;

int RunHoldChild(const char* hold) {
    static const LockSeams clock = {
        [](LARGE_INTEGER* counter) { return counter->QuadPart = s_now, TRUE; },
        [](LARGE_INTEGER* frequency) { return frequency->QuadPart = 1000, TRUE; }};
    SetLockSeamsForTesting(&clock);
    InitBaseLibrary();
    const bool unnamed = *hold == 'u';
    MonitoredSection section;
    InitMonitoredSection(&section, unnamed ? nullptr : "KvtHeld");
    EnterMonitored(&section, "KvtSite");
    s_now += atoi(hold + unnamed);
    LeaveMonitored(&section);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "--hold-child") == 0)
        return RunHoldChild(argv[2]);
    static const DiagnosticSeams capture = {CaptureRegister, CaptureWrite};
    SetDiagnosticSeamsForTesting(&capture);
    GetDiagnosticCatalogue();
    // A session switches the library's provider on.
    s_enable(nullptr, 1, 5, 0, 0, nullptr, s_libraryContext);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
