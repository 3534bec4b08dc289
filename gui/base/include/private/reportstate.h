// The per-thread state that report lines and the trace sink consult. Internal
// to the reporting facility; tests set its words to steer a thread's reports.
#pragma once

#include <cstdint>

// Per-thread report state, created on first use.
struct ThreadReportState {
    uint32_t suppressCount = 0;
    uint32_t severityMask = 4095;
    bool headerFlagsOverride = false;
    uint32_t headerFlags = 0;
    uint32_t indent = 0;
    uint64_t highestStack = 0;
    uint32_t inDialog = 0;
    bool neverAsk = false;
    struct Site {
        const char* file;
        uint32_t line;
    } silenced[128] = {};
    uint32_t silencedCount = 0;
};
ThreadReportState* GetThreadReportState();

// Whether a report of this severity passes the thread's suppression and mask.
bool ReportPasses(const ThreadReportState* state, int32_t severity);
// The process-wide report switch (SetReportingEnabled).
bool ReportingEnabled();
