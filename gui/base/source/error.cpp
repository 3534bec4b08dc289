// Reporting, event log and log type. (Being completed.)
#include "report.h"

#include <cstdio>
#include <cstdlib>

namespace {
Str s_modulePath, s_applicationName, s_moduleVersion("24.7.0.15");
}

[[noreturn]] void FatalError(const char* format, ...) {
    char message[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    fprintf(stderr, "%s\n", message);
    fflush(stderr);
    abort();
}

void WriteReport(uint32_t, int32_t, const char*, uint32_t, const char* message) {
    if (message != nullptr)
        OutputDebugStringA(message);
}
void WriteReportF(uint32_t category, int32_t severity, const char* sourceFile, uint32_t line,
                  const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Str text = StrFormatV(format, arguments);
    va_end(arguments);
    WriteReport(category, severity, sourceFile, line, text.Text());
}
void ReportAndConfirm(uint32_t category, int32_t severity, const char* sourceFile, uint32_t line,
                      const char* message) {
    WriteReport(category, severity, sourceFile, line, message);
}
void ReportWithSystemError(uint32_t category, int32_t severity, const char* sourceFile,
                           uint32_t line, const char* message) {
    WriteReport(category, severity, sourceFile, line, message);
}
bool ReportEvent(const Str&, uint32_t, const EventDescriptor& descriptor, bool, uint32_t, uint32_t,
                 bool) {
    WriteReport(kCategoryBase, kSeverityInfo, nullptr, 0, descriptor.message);
    return true;
}
void ReportLibraryError(const char* sourceFile, uint32_t line, uint32_t, const char* message,
                        const EventValue*, uint32_t) {
    LastErrorKeeper keep;
    WriteReport(kCategoryBase, kSeverityError, sourceFile, line, message);
}
Str SystemErrorText(uint32_t) { return Str(); }
Str FormatSystemError(uint32_t code, HMODULE, uint32_t, uint32_t, va_list*) {
    return StrFormat("Unknown error (0x%08lX/%lu)", (unsigned long)code, (unsigned long)code);
}
void SetModulePath(const Str& path) { s_modulePath = path; }
void SetApplicationName(const Str& name) { s_applicationName = name; }
void SetModuleVersion(const Str& version) { s_moduleVersion = version; }
Str GetModulePathText() { return s_modulePath; }
Str GetApplicationName() { return s_applicationName; }
Str GetModuleVersion() { return s_moduleVersion; }
void InstallEventSource(const Str&) {}
Str GetModuleBaseName() { return Str("KorvantaCloudUS"); }
