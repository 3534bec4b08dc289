// The diagnostic event catalogue: the event providers "Korvanta Base Library"
// (events 100 to 107) and "Operating System" (no events of its own).
//
// The events describe themselves (the TraceLogging form): each carries the
// provider's name, its own name and its fields' names and types, so Windows'
// tracing tools decode them without a manifest. A provider's id is the usual
// hash of its name, so a session switches it on by name ("*Korvanta Base
// Library" to the tools that take names). Its enablement sets the catalogue's
// flag; nothing is built while no session listens.
#include <windows.h>

#include <evntprov.h>

#include <cstdlib>
#include <cstring>

#include "handles.h"
#include "locks.h"
#include "private/seams.h"
#include "report.h"

namespace {

// Names the platform headers here do not have yet.
constexpr ULONG kDescriptorEventMetadata = 1;
constexpr ULONG kDescriptorProviderMetadata = 2;
constexpr UCHAR kChannelTraceLogging = 11;
constexpr int kEventProviderSetTraits = 2;
// Field types of the self-describing metadata.
constexpr uint8_t kInText = 2, kInUInt64 = 10, kHasOutType = 0x80, kOutUtf8 = 35;

// The name hashes of "Korvanta Base Library" and "Operating System".
const GUID kLibraryProviderId = {
    0x6930b21b, 0x1908, 0x5db7, {0xf6, 0xbf, 0xe5, 0x27, 0x43, 0xdc, 0xd1, 0x84}};
const GUID kSystemProviderId = {
    0x5597501d, 0x9728, 0x5d27, {0x3c, 0x0b, 0xfc, 0x7e, 0x48, 0x46, 0xa1, 0x8b}};

struct DiagnosticEventDefinition {
    uint32_t id;
    const char* name;
    const char* fields;  // field names separated by ";"
    uint32_t numberMask; // bit n: field n is a number, else text
    uint8_t level;       // 2 error, 3 warning, 4 information, 5 verbose
};

const DiagnosticEventDefinition kDiagnosticEvents[] = {
    {100, "Critical Section Wait", "lock;locksite;lastlocksite;lastduration_ms", 0x8, 5},
    {101, "Thread::Start", "name", 0, 4},
    {102, "Error", "msg", 0, 2},
    {103, "ReportEvent", "source;eventid;event", 0x2, 4},
    {104, "ReportError", "source;eventid;event", 0x2, 2},
    {105, "ReportWarning", "source;eventid;event", 0x2, 3},
    {106, "Read Lock Wait", "lock;locksite", 0, 5},
    {107, "Write Lock Wait", "lock;locksite", 0, 5},
};
constexpr uint32_t kEventCount = sizeof kDiagnosticEvents / sizeof kDiagnosticEvents[0];
constexpr uint32_t kMaxFields = 4;

// A metadata block: a 16-bit size (itself included), then its content. Built
// once into static storage when the providers are created.
struct Metadata {
    uint8_t bytes[128];
    uint16_t size;
    uint32_t fieldCount;
    void Put(const void* data, size_t length) {
        if (size + length <= sizeof bytes)
            memcpy(bytes + size, data, length);
        size = static_cast<uint16_t>(size + length);
    }
    void PutByte(uint8_t value) { Put(&value, 1); }
    void Finish() { memcpy(bytes, &size, 2); }
};

struct Provider {
    const char* name;
    const GUID* id;
    DiagnosticCatalogue catalogue;
    Metadata traits; // the name, as EventSetInformation and every event carry it
};

Provider s_library = {"Korvanta Base Library", &kLibraryProviderId, {false, 0}, {}};
Provider s_system = {"Operating System", &kSystemProviderId, {false, 0}, {}};
Metadata s_events[kEventCount];

SeamSlot<DiagnosticSeams> s_seams;

void BuildTraits(Metadata& m, const char* name) {
    m.size = 2;
    m.Put(name, strlen(name) + 1);
    m.Finish();
}

void BuildEvent(Metadata& m, const DiagnosticEventDefinition& event) {
    m.size = 2;
    m.PutByte(0); // no tags
    m.Put(event.name, strlen(event.name) + 1);
    m.fieldCount = 0;
    for (const char* p = event.fields; *p != 0 && m.fieldCount < kMaxFields;) {
        const size_t length = strcspn(p, ";");
        m.Put(p, length);
        m.PutByte(0);
        if (event.numberMask & (1u << m.fieldCount)) {
            m.PutByte(kInUInt64);
        } else {
            m.PutByte(kInText | kHasOutType);
            m.PutByte(kOutUtf8);
        }
        ++m.fieldCount;
        p += length + (p[length] == ';' ? 1 : 0);
    }
    m.Finish();
}

// Called by the platform (and by tests, as a session would) when a session
// switches the provider on (1) or off (0); 2 asks for state and changes nothing.
void NTAPI EnableCallback(LPCGUID, ULONG isEnabled, UCHAR, ULONGLONG, ULONGLONG,
                          PEVENT_FILTER_DESCRIPTOR, PVOID context) {
    auto* catalogue = static_cast<DiagnosticCatalogue*>(context);
    if (isEnabled <= 1)
        __atomic_store_n(&catalogue->enabled, isEnabled == 1, __ATOMIC_RELEASE);
}

void RegisterProvider(Provider& provider) {
    BuildTraits(provider.traits, provider.name);
    const auto registerProvider = s_seams.Pick(&DiagnosticSeams::eventRegister, &EventRegister);
    REGHANDLE handle = 0;
    if (registerProvider(provider.id, EnableCallback, &provider.catalogue, &handle) !=
        ERROR_SUCCESS)
        return;
    provider.catalogue.provider = handle;
    // Tells the platform to read the descriptors' types: the metadata blocks.
    EventSetInformation(handle, static_cast<EVENT_INFO_CLASS>(kEventProviderSetTraits),
                        provider.traits.bytes, provider.traits.size);
}

void UnregisterProviders() {
    for (Provider* provider : {&s_library, &s_system}) {
        __atomic_store_n(&provider->catalogue.enabled, false, __ATOMIC_RELEASE);
        if (provider->catalogue.provider != 0 && s_seams.Get() == nullptr)
            EventUnregister(provider->catalogue.provider);
        provider->catalogue.provider = 0;
    }
}

bool CreateProviders() {
    LastErrorKeeper keep;
    for (uint32_t i = 0; i < kEventCount; ++i)
        BuildEvent(s_events[i], kDiagnosticEvents[i]);
    RegisterProvider(s_library);
    RegisterProvider(s_system);
    atexit(UnregisterProviders);
    return true;
}

} // namespace

void SetDiagnosticSeamsForTesting(const DiagnosticSeams* seams) {
    s_seams.Set(seams);
}

DiagnosticCatalogue* GetDiagnosticCatalogue() {
    static const bool s_created = CreateProviders();
    (void)s_created;
    return &s_library.catalogue;
}

void FireDiagnosticEvent(uint32_t id, uint32_t phase, uint32_t detail,
                         const DiagnosticValue* values, uint32_t count) {
    const DiagnosticCatalogue* catalogue = GetDiagnosticCatalogue();
    if (!__atomic_load_n(&catalogue->enabled, __ATOMIC_ACQUIRE))
        return;
    uint32_t index = 0;
    while (index < kEventCount && kDiagnosticEvents[index].id != id)
        ++index;
    if (index == kEventCount)
        return;
    LastErrorKeeper keep;
    const DiagnosticEventDefinition& event = kDiagnosticEvents[index];
    const Metadata& metadata = s_events[index];
    EVENT_DESCRIPTOR descriptor{};
    descriptor.Id = static_cast<USHORT>(id);
    descriptor.Channel = kChannelTraceLogging;
    descriptor.Level = event.level;
    descriptor.Opcode = static_cast<UCHAR>(phase);
    descriptor.Task = static_cast<USHORT>(detail);

    // Everything on the stack: callers may hold the allocator's own locks.
    EVENT_DATA_DESCRIPTOR data[2 + kMaxFields];
    uint64_t numbers[kMaxFields];
    EventDataDescCreate(&data[0], s_library.traits.bytes, s_library.traits.size);
    data[0].Reserved = kDescriptorProviderMetadata;
    EventDataDescCreate(&data[1], metadata.bytes, metadata.size);
    data[1].Reserved = kDescriptorEventMetadata;
    for (uint32_t f = 0; f < metadata.fieldCount; ++f) {
        const DiagnosticValue* value = f < count && values != nullptr ? &values[f] : nullptr;
        if (event.numberMask & (1u << f)) {
            numbers[f] = value != nullptr ? value->number : 0;
            EventDataDescCreate(&data[2 + f], &numbers[f], sizeof numbers[f]);
        } else {
            const char* text = value != nullptr && value->text != nullptr ? value->text : "";
            EventDataDescCreate(&data[2 + f], text, static_cast<ULONG>(strlen(text) + 1));
        }
    }
    const auto write = s_seams.Pick(&DiagnosticSeams::eventWriteTransfer, &EventWriteTransfer);
    SpinLock();
    write(catalogue->provider, &descriptor, nullptr, nullptr, 2 + metadata.fieldCount, data);
    SpinUnlock();
}
