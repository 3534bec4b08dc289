// Named and monitored critical sections, the hold thresholds, the spin lock.
#include "locks.h"

#include <cstdlib>
#include <cstring>

#include "handles.h"
#include "private/seams.h"
#include "private/system.h"
#include "report.h"
#include "str.h"

namespace {

SeamSlot<LockSeams> s_seams;

struct ThresholdVariable {
    const char* name;
    uint64_t value;
    volatile LONG pending; // still to be read
};

ThresholdVariable s_thresholds[] = {
    {"THRESHOLD_SHORTCRITICALSECTION", 300, 1},
    {"THRESHOLD_MEDIUMCRITICALSECTION", 3000, 1},
    {"THRESHOLD_LONGCRITICALSECTION", 30000, 1},
    {"THRESHOLD_UNKNOWNCRITICALSECTION", 30000, 1},
};

volatile LONG s_spinWord = 0;

void InitSection(CRITICAL_SECTION* section) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    // Spinning only helps when another processor can release the lock meanwhile.
    if (info.dwNumberOfProcessors < 2)
        InitializeCriticalSection(section);
    else
        InitializeCriticalSectionAndSpinCount(section, 4000);
}

// The performance counter; 0 when it cannot be read (nothing is measured then).
int64_t ReadCounter() {
    LARGE_INTEGER now;
    const auto query = s_seams.Pick(&LockSeams::queryPerformanceCounter, &QueryPerformanceCounter);
    return query(&now) ? now.QuadPart : 0;
}

int64_t CounterFrequency() {
    const LockSeams* seams = s_seams.Get();
    LARGE_INTEGER frequency;
    if (seams != nullptr && seams->queryPerformanceFrequency != nullptr)
        return seams->queryPerformanceFrequency(&frequency) ? frequency.QuadPart : 0;
    static const int64_t s_frequency =
        QueryPerformanceFrequency(&frequency) ? frequency.QuadPart : 0;
    return s_frequency;
}

uint64_t TicksToMs(uint64_t ticks, int64_t frequency) {
    if (frequency <= 0)
        return 0;
    const auto f = static_cast<uint64_t>(frequency);
    return ticks / f * 1000 + ticks % f * 1000 / f; // no overflow for any real holding
}

// Event 100 around a blocking entry; phase 2 of a monitored section also
// names the previous holding.
void FireWait(uint32_t phase, const char* name, const char* site, const char* lastSite,
              uint64_t lastDuration, uint32_t count) {
    const DiagnosticValue values[] = {{name != nullptr ? name : "Unknown", 0},
                                      {site != nullptr ? site : "", 0},
                                      {lastSite != nullptr ? lastSite : "", 0},
                                      {nullptr, lastDuration}};
    FireDiagnosticEvent(100, phase, 60, values, count);
}

// ---------------------------------------------------------------------------
// The site table

int CompareSite(const char* a, const char* b) {
    return a == b ? 0 : strcmp(a, b);
}

// Levels by the name's hash: each level holds about a quarter of the one below.
uint32_t SiteHeight(const char* site) {
    uint32_t hash = 2166136261u;
    for (const char* p = site; *p != 0; ++p)
        hash = (hash ^ static_cast<unsigned char>(*p)) * 16777619u;
    uint32_t height = 1;
    for (; height < kLockSiteLevels && (hash & 3) == 0; hash >>= 2)
        ++height;
    return height;
}

LockSiteStats* const* Links(const LockSiteTable* table, const LockSiteStats* record) {
    return record != nullptr ? record->next : table->head;
}

// The site's record, or null with `before` (when given) holding, per level, the
// last record ordered before the site (null: the table's head).
LockSiteStats* SearchSites(const LockSiteTable* table, const char* site, LockSiteStats** before) {
    LockSiteStats* previous = nullptr;
    for (int level = kLockSiteLevels - 1; level >= 0; --level) {
        for (;;) {
            LockSiteStats* next = __atomic_load_n(&Links(table, previous)[level], __ATOMIC_ACQUIRE);
            if (next == nullptr)
                break;
            const int order = CompareSite(next->site, site);
            if (order == 0)
                return next;
            if (order > 0)
                break;
            previous = next;
        }
        if (before != nullptr)
            before[level] = previous;
    }
    return nullptr;
}

void FreeSites(LockSiteTable* table) {
    LockSiteStats* record = table->head[0];
    for (LockSiteStats*& head : table->head)
        __atomic_store_n(&head, nullptr, __ATOMIC_RELEASE);
    while (record != nullptr) {
        LockSiteStats* next = record->next[0];
        HeapFree(GetProcessHeap(), 0, record);
        record = next;
    }
}

// ---------------------------------------------------------------------------
// The long-hold report

struct LongHold {
    const char* name;
    const char* site;
    uint64_t durationMs;
    uint64_t thresholdMs;
};

void ReportLongHold(const LongHold& hold) {
    const EventValue values[] = {
        {"lockname", Str(hold.name != nullptr ? hold.name : "Unknown"), false},
        {"locksite", Str(hold.site), false},
        {"calltime_ms", StrFormat("%llu", static_cast<unsigned long long>(hold.durationMs)), true},
        {"threshold_ms", StrFormat("%llu", static_cast<unsigned long long>(hold.thresholdMs)),
         true},
    };
    EventDescriptor descriptor;
    descriptor.message = "Lock duration exceeded threshold";
    descriptor.values = values;
    descriptor.valueCount = 4;
    ReportEvent(Str("QELGUI"), 500, descriptor, true, kLevelInfo, 7, false);
}

// Whether `ticks` is more than `thresholdMs` whole milliseconds, without a
// division on every leave: floor(ticks * 1000 / f) > t  <=>  ticks * 1000 >= (t + 1) * f.
bool LongerThan(uint64_t ticks, uint64_t thresholdMs, int64_t frequency) {
    using Wide = unsigned __int128;
    return frequency > 0 && thresholdMs != UINT64_MAX &&
           Wide(ticks) * 1000 >= Wide(thresholdMs + 1) * static_cast<uint64_t>(frequency);
}

// Measures the holding that ends now; true (with `hold` filled) when it was
// longer than its threshold. Called by the holder.
bool EndHolding(MonitoredSection* section, LongHold* hold) {
    const int64_t now = section->entryTime != 0 ? ReadCounter() : 0;
    bool exceeded = false;
    if (now != 0) {
        const uint64_t ticks =
            now > section->entryTime ? static_cast<uint64_t>(now - section->entryTime) : 0;
        if (section->threshold != 0) {
            const int64_t frequency = CounterFrequency();
            if (LongerThan(ticks, section->threshold, frequency)) {
                *hold = {section->name, section->lastSite, TicksToMs(ticks, frequency),
                         section->threshold};
                exceeded = true;
            }
        }
        if (section->statistics) {
            ++section->holdCount;
            section->totalHold += ticks;
            if (section->current != nullptr) {
                ++section->current->holdCount;
                section->current->holdTicks += ticks;
            }
        }
        section->lastDurationTicks = ticks;
    }
    section->threshold = 0;
    section->entryTime = 0;
    section->current = nullptr;
    return exceeded;
}

// The contended entry: event 100 around the blocking wait, which is counted
// (with statistics) for the section and the site. Sets the entry time.
__attribute__((noinline)) void BlockMonitored(MonitoredSection* section, const char* site,
                                              LockSiteStats* record, bool statistics) {
    const int64_t waitStart = statistics ? ReadCounter() : 0;
    const bool monitored = GetDiagnosticCatalogue()->enabled;
    if (monitored)
        FireWait(1, section->name, site, nullptr, 0, 2);
    EnterCriticalSection(&section->section);
    if (monitored)
        FireWait(2, section->name, site, section->lastSite,
                 TicksToMs(section->lastDurationTicks, CounterFrequency()), 4);
    section->entryTime = ReadCounter();
    if (!statistics)
        return;
    const uint64_t wait = waitStart != 0 && section->entryTime > waitStart
                              ? static_cast<uint64_t>(section->entryTime - waitStart)
                              : 0;
    ++section->waitCount;
    section->totalWait += wait;
    if (record != nullptr) {
        ++record->waitCount;
        record->waitTicks += wait;
    }
}

// The calling thread's id, read from its thread block as GetCurrentThreadId
// does, without the call: the owner test runs on every entry.
DWORD CurrentThreadId() {
    DWORD id;
    __asm__("movl %%gs:0x48, %0" : "=r"(id));
    return id;
}

} // namespace

void SetLockSeamsForTesting(const LockSeams* seams) {
    s_seams.Set(seams);
}

// ---------------------------------------------------------------------------
// Named sections

void InitNamedSection(NamedSection* section, const char* name) {
    InitSection(&section->section);
    section->name = name;
}

void DeleteNamedSection(NamedSection* section) {
    DeleteCriticalSection(&section->section);
}

void EnterNamed(NamedSection* section, const char* site) {
    if (TryEnterCriticalSection(&section->section))
        return;
    const bool monitored = GetDiagnosticCatalogue()->enabled;
    if (monitored)
        FireWait(1, section->name, site, nullptr, 0, 2);
    EnterCriticalSection(&section->section);
    if (monitored)
        FireWait(2, section->name, site, nullptr, 0, 2);
}

void LeaveNamed(NamedSection* section) {
    LeaveCriticalSection(&section->section);
}

NamedSection* GetNonReentrantSection() {
    static NamedSection* s_section = [] {
        static NamedSection section;
        InitNamedSection(&section, "NonReentrantSection");
        atexit([] { DeleteNamedSection(&section); });
        return &section;
    }();
    return s_section;
}

// ---------------------------------------------------------------------------
// Thresholds

void LoadLockThresholds() {
    for (ThresholdVariable& variable : s_thresholds) {
        if (InterlockedExchange(&variable.pending, 0) == 0)
            continue;
        const Str text = GetProcessEnvironment(variable.name);
        uint64_t value = 0;
        const char* end = !text.IsEmpty() && text.Length() <= 20
                              ? ParseDecimal(text.Text(), UINT64_MAX, value)
                              : nullptr;
        if (end != nullptr && *end == 0)
            variable.value = value;
    }
}

uint64_t GetLockThresholdMs(LockThreshold which) {
    const auto index = static_cast<uint32_t>(which);
    return index < 4 ? s_thresholds[index].value : s_thresholds[3].value;
}

// ---------------------------------------------------------------------------
// Monitored sections

void InitMonitoredSection(MonitoredSection* section, const char* name, LockThreshold threshold,
                          const char* const* sites, uint32_t siteCount) {
    memset(static_cast<void*>(section), 0, sizeof *section);
    InitSection(&section->section);
    InitializeSRWLock(&section->sites.insertLock);
    section->name = name;
    section->thresholdKind = threshold;
    section->statistics = true;
    for (uint32_t i = 0; i < siteCount; ++i)
        RegisterLockSite(section, sites[i]);
}

void DeleteMonitoredSection(MonitoredSection* section) {
    DeleteCriticalSection(&section->section);
    FreeSites(&section->sites);
}

LockSiteStats* FindLockSite(const MonitoredSection* section, const char* site) {
    return site != nullptr ? SearchSites(&section->sites, site, nullptr) : nullptr;
}

LockSiteStats* RegisterLockSite(MonitoredSection* section, const char* site) {
    if (site == nullptr)
        return nullptr;
    LastErrorKeeper keep;
    LockSiteTable* table = &section->sites;
    AcquireSRWLockExclusive(&table->insertLock);
    LockSiteStats* before[kLockSiteLevels];
    LockSiteStats* record = SearchSites(table, site, before);
    if (record == nullptr) {
        record = static_cast<LockSiteStats*>(
            HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(LockSiteStats)));
        if (record != nullptr) {
            record->site = site;
            // Bottom up, each link published whole: readers never wait.
            const uint32_t height = SiteHeight(site);
            for (uint32_t level = 0; level < height; ++level) {
                LockSiteStats** link = const_cast<LockSiteStats**>(Links(table, before[level]));
                record->next[level] = link[level];
                __atomic_store_n(&link[level], record, __ATOMIC_RELEASE);
            }
        }
    }
    ReleaseSRWLockExclusive(&table->insertLock);
    return record;
}

void SetLockStatistics(MonitoredSection* section, bool enabled) {
    section->statistics = enabled;
}

void EnterMonitored(MonitoredSection* section, const char* site) {
    const DWORD self = CurrentThreadId();
    if (section->owner == self) {
        ++section->recursion;
        return;
    }
    const bool statistics = section->statistics;
    // Looked up, and inserted, before the section is held.
    LockSiteStats* record = nullptr;
    if (statistics && site != nullptr && *site != 0) {
        record = FindLockSite(section, site);
        if (record == nullptr)
            record = RegisterLockSite(section, site);
    }
    if (TryEnterCriticalSection(&section->section)) {
        section->entryTime = ReadCounter();
    } else {
        BlockMonitored(section, site, record, statistics);
    }
    if (statistics) {
        section->threshold = GetLockThresholdMs(section->thresholdKind);
        section->current = record;
    }
    section->owner = self;
    section->recursion = 1;
    section->lastSite = site;
    section->lastDurationTicks = 0;
}

uint64_t GetLastDurationMs(const MonitoredSection* section) {
    return TicksToMs(section->lastDurationTicks, CounterFrequency());
}

void LeaveMonitored(MonitoredSection* section) {
    if (section->recursion == 0 || --section->recursion > 0)
        return;
    LongHold hold{};
    const bool exceeded = EndHolding(section, &hold);
    section->owner = 0;
    LeaveCriticalSection(&section->section);
    // Only now: the report may itself need a section, even this one.
    if (exceeded)
        ReportLongHold(hold);
}

MonitoredSection* GetStaticsSection() {
    // Built under the runtime's thread-safe initialisation of local statics.
    static MonitoredSection* s_section = [] {
        static MonitoredSection section;
        InitMonitoredSection(&section, "LazyStaticInternal", LockThreshold::Short);
        atexit([] { DeleteMonitoredSection(&section); });
        return &section;
    }();
    return s_section;
}

// ---------------------------------------------------------------------------
// Spin lock

void SpinLock() {
    while (__atomic_exchange_n(&s_spinWord, static_cast<LONG>(~0), __ATOMIC_SEQ_CST) != 0)
        Sleep(1);
}

void SpinUnlock() {
    __atomic_store_n(&s_spinWord, 0, __ATOMIC_SEQ_CST);
}
