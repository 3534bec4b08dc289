// Reporting: report lines for the trace sink, interactive reports, operational
// events (event log, or one JSON record per line on stdout/stderr by "LOGTYPE").
// Every entry point keeps the caller's last Windows error.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <cstdint>

#include "handles.h"
#include "str.h"

// Report categories; the base library and the service always pass kCategoryBase.
inline constexpr uint32_t kCategoryBase = 4096;

// Report severities: exactly one bit.
inline constexpr int32_t kSeverityInfo = 2;
inline constexpr int32_t kSeverityError = 4;
inline constexpr int32_t kSeverityWarning = 32;

// Event levels.
inline constexpr uint32_t kLevelErr = 0;
inline constexpr uint32_t kLevelWarning = 1;
inline constexpr uint32_t kLevelInfo = 2;
inline constexpr uint32_t kLevelNotice = 3;

// Header columns of a report line.
inline constexpr uint32_t kHeaderProcessId = 0x0001;
inline constexpr uint32_t kHeaderThreadId = 0x0002;
inline constexpr uint32_t kHeaderModule = 0x0004;
inline constexpr uint32_t kHeaderSourceFile = 0x0020;
inline constexpr uint32_t kHeaderLine = 0x0040;
inline constexpr uint32_t kHeaderStackDepth = 0x0080;
inline constexpr uint32_t kHeaderUserName = 0x0100;
inline constexpr uint32_t kHeaderNoLetters = 0x1000;
inline constexpr uint32_t kHeaderDefault = 7;
inline constexpr size_t kReportLineLimit = 1024;

enum class LogType : uint32_t { System = 0, Stdout = 1, Stderr = 2 };

void WriteReport(uint32_t category, int32_t severity, const char* sourceFile, uint32_t line,
                 const char* message);
void WriteReportF(uint32_t category, int32_t severity, const char* sourceFile, uint32_t line,
                  const char* format, ...) __attribute__((format(gnu_printf, 5, 6)));
void ReportWithSystemError(uint32_t category, int32_t severity, const char* sourceFile,
                           uint32_t line, const char* message);
void ReportAndConfirm(uint32_t category, int32_t severity, const char* sourceFile, uint32_t line,
                      const char* message);

// Process-wide switches: reporting at all, and message boxes (two switches).
void SetReportingEnabled(bool enabled);
void SetInteractionAllowed(bool processAllows, bool userAllows);

// Shows a message box on a thread of its own; closes it after about ten seconds.
// Returns the button (0 when it had to be closed) and the Shift/Control state.
int MessageBoxThread(const char* text, uint32_t type, bool* outShift, bool* outControl);

// One named value of an event record.
struct EventValue {
    const char* name;
    Str text;
    bool number; // written without quotes in records
};

struct EventDescriptor {
    const char* message = nullptr;      // UTF-8, may hold %1 to %4
    const char* inserts[4] = {};        // "<unknown>" is written for a null one
    const EventValue* values = nullptr; // named values of the record
    uint32_t valueCount = 0;
};

bool ReportEvent(const Str& source, uint32_t eventNumber, const EventDescriptor& descriptor,
                 bool processInfo, uint32_t level, uint32_t category, bool installSource);

// The base library's error report: source "QELGUI", event number = code,
// level "err", with the named values (at most 8) and the source location.
void ReportLibraryError(const char* sourceFile, uint32_t line, uint32_t code, const char* message,
                        const EventValue* values, uint32_t valueCount, uint32_t category = 0);

LogType GetLogType();
void InstallEventSource(const Str& sourceName);
HANDLE GetEventSourceHandle(const Str& sourceName, bool install);

// "%s (0x%08lX/%lu)" with the system's text for the code ("Unknown error" when none).
Str FormatSystemError(uint32_t code, HMODULE module = nullptr, uint32_t primaryLanguage = 0,
                      uint32_t subLanguage = 0, va_list* arguments = nullptr);
// FormatSystemError of a last-error code, or of the runtime's errno when the code is 0.
Str LastErrorText(uint32_t code);
// The bare system text of a code, trimmed; empty when the system has none.
Str SystemErrorText(uint32_t code);

// Module identity (set by the program's entry point).
void SetModulePath(const Str& path);
void SetApplicationName(const Str& name);
void SetModuleVersion(const Str& version);
Str GetModulePathText();
Str GetApplicationName();
Str GetModuleVersion();
// The program file's full path (GetModuleFileNameW into 261 characters); empty
// when the call fails or the path is longer.
WStr GetProgramPath();
// The program file's name without directory and extension, computed once.
Str GetModuleBaseName();

// The diagnostic event catalogue: the event provider "Korvanta Base Library"
// (events 100 to 107), registered on first use. `enabled` follows the
// provider's enablement by a tracing session; test it before building an event.
struct DiagnosticCatalogue {
    bool enabled;
    uint64_t provider; // the registration handle; 0 when registration failed
};
DiagnosticCatalogue* GetDiagnosticCatalogue();
// One field of an event: `text` for a text field, `number` for a numeric one.
struct DiagnosticValue {
    const char* text;
    uint64_t number;
};
// Writes catalogue event `id` while the provider is enabled, with `phase` as
// its opcode and `detail` as its task; fields beyond `count` are written empty.
// Allocates nothing, so it may run under any lock.
void FireDiagnosticEvent(uint32_t id, uint32_t phase, uint32_t detail,
                         const DiagnosticValue* values, uint32_t count);
