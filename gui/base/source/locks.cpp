// Named critical sections with contention reports.
#include "locks.h"

#include "report.h"

void InitNamedSection(NamedSection* section, const char* name) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    // Spinning only helps when another processor can release the lock meanwhile.
    if (info.dwNumberOfProcessors < 2)
        InitializeCriticalSection(&section->section);
    else
        InitializeCriticalSectionAndSpinCount(&section->section, 4000);
    section->name = name;
}

void EnterNamed(NamedSection* section, const char* site) {
    if (TryEnterCriticalSection(&section->section))
        return;
    const char* fields[2] = {section->name, site};
    const bool monitored = GetDiagnosticCatalogue()->enabled;
    if (monitored)
        FireDiagnosticEvent(100, 1, fields, 2);
    EnterCriticalSection(&section->section);
    if (monitored)
        FireDiagnosticEvent(100, 2, fields, 2);
}

void LeaveNamed(NamedSection* section) {
    LeaveCriticalSection(&section->section);
}

NamedSection* GetStaticsSection() {
    // Built under the runtime's thread-safe initialisation of local statics.
    static NamedSection* s_section = [] {
        static NamedSection section;
        InitNamedSection(&section, "LazyStaticInternal");
        return &section;
    }();
    return s_section;
}
