// Uncontended enter + leave: a plain critical section, an SRW lock taken
// exclusively, a named section, and a monitored section with statistics on and
// off. Every round times each contender (in a rotating order) and divides by
// the plain critical section of the same round; the median and the spread of
// those ratios are printed.
// Run by hand: <builddir>/wine-run <builddir>/bench/locks_bench.exe [rounds]
#include <windows.h>

#include "benchclock.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "locks.h"
#include "private/seams.h"

namespace {

constexpr int kIterations = 200000;

CRITICAL_SECTION s_plain;
SRWLOCK s_srw = SRWLOCK_INIT;
NamedSection s_named;
MonitoredSection s_monitoredOn, s_monitoredOff;

void Plain() {
    for (int i = 0; i < kIterations; ++i) {
        EnterCriticalSection(&s_plain);
        LeaveCriticalSection(&s_plain);
    }
}
void Srw() {
    for (int i = 0; i < kIterations; ++i) {
        AcquireSRWLockExclusive(&s_srw);
        ReleaseSRWLockExclusive(&s_srw);
    }
}
void Named() {
    for (int i = 0; i < kIterations; ++i) {
        EnterNamed(&s_named, "Bench s_named");
        LeaveNamed(&s_named);
    }
}
void MonitoredOn() {
    for (int i = 0; i < kIterations; ++i) {
        EnterMonitored(&s_monitoredOn, "Bench s_monitored");
        LeaveMonitored(&s_monitoredOn);
    }
}
// The same with the counter read replaced by a plain increment: what the
// section's own bookkeeping costs beside the platform's counter.
BOOL WINAPI StubCounter(LARGE_INTEGER* counter) {
    static int64_t s_ticks = 1;
    counter->QuadPart = ++s_ticks;
    return TRUE;
}
void MonitoredStubbed() {
    static const LockSeams seams = {StubCounter, nullptr};
    SetLockSeamsForTesting(&seams);
    MonitoredOn();
    SetLockSeamsForTesting(nullptr);
}
void MonitoredOff() {
    for (int i = 0; i < kIterations; ++i) {
        EnterMonitored(&s_monitoredOff, "Bench s_monitored");
        LeaveMonitored(&s_monitoredOff);
    }
}

struct Contender {
    const char* name;
    void (*run)();
    std::vector<double> ns;     // per round
    std::vector<double> ratios; // to the plain section of the same round
};

double TimeNs(void (*run)()) {
    LARGE_INTEGER rate, start, end;
    QueryPerformanceFrequency(&rate);
    QueryPerformanceCounter(&start);
    run();
    QueryPerformanceCounter(&end);
    return Seconds(start, end, rate) * 1e9 / kIterations;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(7, atoi(argv[1])) : 9;
    InitializeCriticalSectionAndSpinCount(&s_plain, 4000);
    InitNamedSection(&s_named, "Bench s_named");
    static const char* const sites[] = {"Bench s_monitored"};
    InitMonitoredSection(&s_monitoredOn, "Bench s_monitoredOn", LockThreshold::Short, sites, 1);
    InitMonitoredSection(&s_monitoredOff, "Bench s_monitoredOff", LockThreshold::Short, sites, 1);
    SetLockStatistics(&s_monitoredOff, false);

    Contender contenders[] = {{"critical section", Plain, {}, {}},
                              {"SRW lock, exclusive", Srw, {}, {}},
                              {"EnterNamed", Named, {}, {}},
                              {"EnterMonitored, statistics on", MonitoredOn, {}, {}},
                              {"EnterMonitored, statistics off", MonitoredOff, {}, {}},
                              {"EnterMonitored, on, counter stubbed", MonitoredStubbed, {}, {}}};
    const int count = sizeof contenders / sizeof contenders[0];
    for (Contender& c : contenders) // untimed warm-up
        c.run();
    for (int round = 0; round < rounds; ++round) {
        double measured[count];
        for (int k = 0; k < count; ++k) {
            const int which = (round + k) % count;
            measured[which] = TimeNs(contenders[which].run);
        }
        for (int k = 0; k < count; ++k) {
            contenders[k].ns.push_back(measured[k]);
            contenders[k].ratios.push_back(measured[k] / measured[0]);
        }
    }
    printf("uncontended enter + leave, %d rounds of %d\n", rounds, kIterations);
    printf("%-32s %9s %22s\n", "", "ns median", "ratio median (min..max)");
    for (const Contender& c : contenders) {
        const auto [low, high] = std::minmax_element(c.ratios.begin(), c.ratios.end());
        printf("%-32s %9.1f %8.2fx (%.2f..%.2f)\n", c.name, Median(c.ns), Median(c.ratios), *low,
               *high);
    }
    printf("holdings measured on: %llu, off: %llu (statistics off keeps no counts)\n",
           static_cast<unsigned long long>(s_monitoredOn.holdCount),
           static_cast<unsigned long long>(s_monitoredOff.holdCount));
    const double before = TimeNs([] {
        LARGE_INTEGER c;
        for (int i = 0; i < kIterations; ++i)
            QueryPerformanceCounter(&c);
    });
    printf("one QueryPerformanceCounter: %.1f ns\n", before);
    return 0;
}
