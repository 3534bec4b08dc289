// The trace sink: finished report lines go to a listening trace viewer (named
// pipe), the debugger output, a trace file or standard error.
#pragma once

#include <cstdint>

#include "report.h"

struct ThreadReportState;

inline constexpr uint32_t kTraceToPipe = 1;
inline constexpr uint32_t kTraceToDebugger = 2;
inline constexpr uint32_t kTraceToStderr = 4;
inline constexpr uint32_t kTraceToFile = 8;

// Receives every line before anything else; true means the line was delivered.
using TraceHook = bool (*)(const char* line, uint32_t destinations);
void SetTraceHook(TraceHook hook);

// The process-wide destination word handed to the sink with each line (initially 3).
uint32_t GetTraceDestinations();
void SetTraceDestinations(uint32_t destinations);

// Writes one finished line (header included, at most 1,024 bytes).
void TraceWrite(ThreadReportState* state, const char* line, uint32_t destinations);

// The header flags of the shared trace map, or 7 when there is none.
uint32_t GetSharedHeaderFlags();
