// The diagnostic event catalogue of the base library ("Korvanta Base Library").
#include <windows.h>

#include "handles.h"
#include "report.h"

namespace {

const char kSourceFile[] = "gui\\base\\source\\error";

} // namespace

namespace {

struct DiagnosticEventDefinition {
    uint32_t id;
    const char* name;
    const char* fields; // field names separated by ";"
};

// The events of the "Korvanta Base Library" provider.
const DiagnosticEventDefinition kDiagnosticEvents[] = {
    {100, "Critical Section Wait", "lock;locksite;lastlocksite;lastduration_ms"},
    {101, "Thread::Start", "name"},
    {102, "Error", "msg"},
    {103, "ReportEvent", "source;eventid;event"},
    {104, "ReportError", "source;eventid;event"},
    {105, "ReportWarning", "source;eventid;event"},
    {106, "Read Lock Wait", "lock;locksite"},
    {107, "Write Lock Wait", "lock;locksite"},
};

} // namespace

DiagnosticCatalogue* GetDiagnosticCatalogue() {
    // No event consumer attaches to the provider in this program, so it reports
    // itself disabled and no event is ever built.
    static DiagnosticCatalogue s_catalogue = {false, nullptr};
    return &s_catalogue;
}

void FireDiagnosticEvent(uint32_t id, uint32_t phase, const char* const* fields, uint32_t count) {
    LastErrorKeeper keep;
    if (!GetDiagnosticCatalogue()->enabled)
        return;
    const DiagnosticEventDefinition* definition = nullptr;
    for (const DiagnosticEventDefinition& event : kDiagnosticEvents)
        if (event.id == id)
            definition = &event;
    if (definition == nullptr)
        return;
    Str text = StrFormat("%s (%u) phase %u [%s]", definition->name, id, phase, definition->fields);
    for (uint32_t i = 0; i < count; ++i) {
        text.Append(i == 0 ? ": " : ";");
        text.Append(fields[i] != nullptr ? fields[i] : "");
    }
    WriteReport(kCategoryBase, kSeverityInfo, kSourceFile, __LINE__, text.Text());
}
