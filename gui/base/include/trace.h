// The trace sink: finished report lines go to a listening trace viewer (named
// pipe), the debugger output, a trace file or standard error.
#pragma once

#include <cstdint>

#include "report.h"
#include "str.h"

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

// The header flags of the shared trace map "ZemTraceMap", or 7 when there is
// none. The map's name has no "Global\\" prefix: each session has its own.
uint32_t GetSharedHeaderFlags();
// Sets the shared word for every process of this session (a trace viewer's
// job); false when the map could not be made.
bool SetSharedHeaderFlags(uint32_t flags);

// Opens (appending, creating when missing) a trace file for tests and tools
// and makes it a destination: adds bit 8 and clears bit 2, which would keep
// lines from the file. False, destinations unchanged, when it cannot be
// opened. The file is closed at exit.
bool OpenTraceFile(const Str& path);
void CloseTraceFile();

// The process-wide user-name test that the header's user-name column follows:
// processes of the service accounts (LocalSystem, LocalService,
// NetworkService) leave the column out, as no person stands behind them and
// "SYSTEM" on every line of the service says nothing the module name does not.
bool TraceShowsUserName();
