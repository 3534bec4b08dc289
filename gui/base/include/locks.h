// Named critical sections that report on themselves.
//
// NamedSection: a critical section with a name. Entering it first tries
// without blocking; only on contention does it fire the diagnostic event
// "Critical Section Wait" (100) before and after it blocks.
//
// MonitoredSection: a named section that also measures. It is reentrant for
// its owner, times every holding with the performance counter, keeps counts
// per site (the short text a caller passes at each entry, naming what it is
// about to do) and, after a holding longer than its threshold, writes the
// operational event "Lock duration exceeded threshold" (500) once the section
// has been left.
//
// Allocation. A site text is a constant that outlives the section (a string
// literal): the section keeps the pointer, never a copy. The first entry from
// a site inserts its record into the section's site table; records come from
// the process heap, never from the particle allocator. Entering from a site
// that has a record (pre-registered through InitMonitoredSection or
// RegisterLockSite) allocates nothing at all, and neither do the wait events:
// so the particle allocator's own class locks can be monitored sections whose
// sites are registered when the pool is built, and entering them never
// allocates from the pool they guard. Only the long-hold report allocates,
// and it runs after the section is left.
#pragma once

#include <windows.h>

#include <cstdint>

struct NamedSection {
    CRITICAL_SECTION section;
    const char* name;
};

// Initialises the section (spin count 4000 on two or more processors).
void InitNamedSection(NamedSection* section, const char* name);
void DeleteNamedSection(NamedSection* section);
// TryEnter first; only on contention fire event 100 around the blocking entry.
void EnterNamed(NamedSection* section, const char* site);
void LeaveNamed(NamedSection* section);

// The section "NonReentrantSection", created on first call, deleted at exit.
NamedSection* GetNonReentrantSection();

// Hold thresholds, in milliseconds, each from its environment variable:
// "THRESHOLD_SHORTCRITICALSECTION" (default 300), "..._MEDIUM..." (3000),
// "..._LONG..." (30000), "..._UNKNOWN..." (30000). 0 switches the report off.
enum class LockThreshold : uint32_t { Short = 0, Medium = 1, Long = 2, Unknown = 3 };
// Reads the four variables once (the library's process initialisation calls
// it); a value that is not a decimal number of at most 20 digits keeps the default.
void LoadLockThresholds();
uint64_t GetLockThresholdMs(LockThreshold which);

// Counts of one site of one section; changed only by the section's holder.
inline constexpr uint32_t kLockSiteLevels = 4;
struct LockSiteStats {
    const char* site;
    uint64_t waitCount;
    uint64_t waitTicks; // performance-counter ticks
    uint64_t holdCount;
    uint64_t holdTicks;
    LockSiteStats* next[kLockSiteLevels]; // the site table's skip-list links
};

// An ordered map from site text to record: a skip list whose readers take no
// lock (records are inserted, never removed, and published whole), whose
// writers insert under a lock of the table's own.
struct LockSiteTable {
    LockSiteStats* head[kLockSiteLevels];
    SRWLOCK insertLock;
};

struct MonitoredSection {
    CRITICAL_SECTION section;
    const char* name; // "lockname"; reported as "Unknown" when null
    LockThreshold thresholdKind;
    bool statistics;      // on by default; off: only the entry time is kept
    volatile DWORD owner; // written only while held
    uint32_t recursion;
    int64_t entryTime;  // counter at the outermost entry; 0: not measured
    uint64_t threshold; // ms for the current holding; 0: none
    const char* lastSite;
    uint64_t lastDurationTicks; // of the previous holding
    LockSiteStats* current;
    uint64_t waitCount;
    uint64_t totalWait; // ticks
    uint64_t holdCount;
    uint64_t totalHold; // ticks
    LockSiteTable sites;
};

// Initialises the section and registers `siteCount` sites up front.
void InitMonitoredSection(MonitoredSection* section, const char* name,
                          LockThreshold threshold = LockThreshold::Short,
                          const char* const* sites = nullptr, uint32_t siteCount = 0);
// Deletes the critical section and frees the site records.
void DeleteMonitoredSection(MonitoredSection* section);
// The site's record, inserted when missing; null when the heap is exhausted.
LockSiteStats* RegisterLockSite(MonitoredSection* section, const char* site);
// The site's record, or null; takes no lock.
LockSiteStats* FindLockSite(const MonitoredSection* section, const char* site);
void SetLockStatistics(MonitoredSection* section, bool enabled);
// The previous holding's duration in milliseconds ("lastduration_ms").
uint64_t GetLastDurationMs(const MonitoredSection* section);

void EnterMonitored(MonitoredSection* section, const char* site);
void LeaveMonitored(MonitoredSection* section);

// The one section of the library's lazily built statics ("LazyStaticInternal"),
// monitored with the short threshold.
MonitoredSection* GetStaticsSection();

class NamedSectionLock {
  public:
    NamedSectionLock(NamedSection* section, const char* site) : m_section(section) {
        EnterNamed(section, site);
    }
    ~NamedSectionLock() { LeaveNamed(m_section); }
    NamedSectionLock(const NamedSectionLock&) = delete;
    NamedSectionLock& operator=(const NamedSectionLock&) = delete;

  private:
    NamedSection* m_section;
};

class MonitoredSectionLock {
  public:
    MonitoredSectionLock(MonitoredSection* section, const char* site) : m_section(section) {
        EnterMonitored(section, site);
    }
    ~MonitoredSectionLock() { LeaveMonitored(m_section); }
    MonitoredSectionLock(const MonitoredSectionLock&) = delete;
    MonitoredSectionLock& operator=(const MonitoredSectionLock&) = delete;

  private:
    MonitoredSection* m_section;
};

// A process-wide word taken by atomic exchange, sleeping 1 ms between tries.
// For the shortest regions only (the diagnostic event writes); takes no
// section and writes no report.
void SpinLock();
void SpinUnlock();
