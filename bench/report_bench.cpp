// Cost of one report line (short text, default header columns 7) in the ways a
// process meets it: no trace viewer and the default destinations (the line ends
// at the debugger output), a hook that swallows every line (the formatting
// alone), the debugger output without the pipe step, and a report that the
// severity mask turns away.
// Run by hand: <builddir>/wine-run <builddir>/bench/report_bench.exe
#include <windows.h>

#include "benchclock.h"

#include <cstdint>
#include <cstdio>

#include "private/reportstate.h"
#include "report.h"
#include "trace.h"

namespace {

constexpr double kSecondsPerCase = 1.5;

bool Swallow(const char*, uint32_t) {
    return true;
}

void Measure(const char* name, int32_t severity) {
    LARGE_INTEGER rate, start, now;
    QueryPerformanceFrequency(&rate);
    WriteReport(kCategoryBase, severity, __FILE__, __LINE__, "warm-up"); // builds the channel
    uint64_t lines = 0;
    const double cpuStart = CpuSeconds();
    QueryPerformanceCounter(&start);
    do {
        for (int i = 0; i < 64; ++i)
            WriteReport(kCategoryBase, severity, __FILE__, __LINE__, "Result code 0");
        lines += 64;
        QueryPerformanceCounter(&now);
    } while (Seconds(start, now, rate) < kSecondsPerCase);
    const double wall = Seconds(start, now, rate);
    const double cpu = CpuSeconds() - cpuStart;
    printf("%-44s %10.0f ns/line wall %10.0f ns/line cpu  (%llu lines)\n", name,
           wall * 1e9 / static_cast<double>(lines), cpu * 1e9 / static_cast<double>(lines),
           static_cast<unsigned long long>(lines));
    fflush(stdout);
}

} // namespace

int main() {
    printf("header flags %u, destinations %u\n", GetSharedHeaderFlags(), GetTraceDestinations());
    // Without a viewer the pipe is tried once a second and the line goes to the debugger.
    Measure("default destinations, no viewer", kSeverityWarning);
    SetTraceDestinations(kTraceToDebugger);
    Measure("debugger output only (no pipe step)", kSeverityWarning);
    SetTraceDestinations(kTraceToPipe | kTraceToDebugger);
    SetTraceHook(Swallow);
    Measure("hook swallows the line (formatting only)", kSeverityWarning);
    // The header's share: the letters alone.
    GetThreadReportState()->headerFlagsOverride = true;
    GetThreadReportState()->headerFlags = 0;
    Measure("hook, header letters only (flags 0)", kSeverityWarning);
    GetThreadReportState()->headerFlagsOverride = false;
    SetTraceHook(nullptr);
    GetThreadReportState()->severityMask = 4095 & ~static_cast<uint32_t>(kSeverityWarning);
    Measure("severity masked (turned away)", kSeverityWarning);
    return 0;
}
