// Reporting: report lines, the log type, event sources and operational events.
#include "report.h"

#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "datetime.h"
#include "handles.h"
#include "json.h"
#include "locks.h"
#include "private/reportstate.h"
#include "private/system.h"
#include "registry.h"
#include "trace.h"

namespace {

const char kSourceFile[] = "gui\\base\\source\\error";
const char kEventLogKey[] = "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\"
                            "Application";
const char kLibrarySource[] = "QELGUI";

bool s_reportingEnabled = true;

thread_local ThreadReportState t_reportState;

char CategoryLetter(uint32_t category) {
    switch (category) {
    case 8192:
        return 'T';
    case 12288:
        return 'F';
    case 16384:
        return 'K';
    case 20480:
        return 'C';
    case 24576:
        return 'I';
    default:
        return 'E';
    }
}

char SeverityLetter(int32_t severity, char categoryLetter) {
    switch (severity) {
    case 2:
        return 'X';
    case 4:
        return 'M';
    case 8:
        return 'S';
    case 16:
        return 'A';
    case 32:
        return 'W';
    default:
        return categoryLetter;
    }
}

// Appends printf-style text to a fixed buffer; false once it would not fit.
bool Put(char* buffer, size_t& used, const char* format, ...)
    __attribute__((format(gnu_printf, 3, 4)));
bool Put(char* buffer, size_t& used, const char* format, ...) {
    if (used >= kReportLineLimit)
        return false;
    va_list arguments;
    va_start(arguments, format);
    const int n = vsnprintf(buffer + used, kReportLineLimit + 1 - used, format, arguments);
    va_end(arguments);
    if (n < 0 || used + static_cast<size_t>(n) > kReportLineLimit) {
        used = kReportLineLimit;
        return false;
    }
    used += static_cast<size_t>(n);
    return true;
}

uint32_t ChooseHeaderFlags(const ThreadReportState* state) {
    if (state->headerFlagsOverride)
        return state->headerFlags;
    return GetSharedHeaderFlags();
}

// Builds the header; returns its length, or kReportLineLimit when it is too long.
size_t BuildHeader(char* header, uint32_t flags, uint32_t category, int32_t severity,
                   const char* sourceFile, uint32_t line, ThreadReportState* state) {
    size_t used = 0;
    header[0] = 0;
    if ((flags & kHeaderNoLetters) == 0) {
        const char c = CategoryLetter(category);
        Put(header, used, "%c%c", c, SeverityLetter(severity, c));
    }
    if (flags & kHeaderProcessId)
        Put(header, used, "|0x%lx", static_cast<unsigned long>(GetCurrentProcessId()));
    if (flags & kHeaderThreadId)
        Put(header, used, "|0x%lx", static_cast<unsigned long>(GetCurrentThreadId()));
    if (flags & kHeaderModule)
        Put(header, used, "|%s", GetModuleBaseName().Text());
    if (flags & kHeaderSourceFile)
        Put(header, used, "|%s", sourceFile != nullptr ? sourceFile : "");
    if ((flags & kHeaderLine) && sourceFile != nullptr) {
        char digits[16];
        snprintf(digits, sizeof digits, "%lu", static_cast<unsigned long>(line));
        const size_t n = strlen(digits);
        Put(header, used, "|%.*s%s", n < 5 ? static_cast<int>(5 - n) : 0, ".....", digits);
    }
    if (flags & kHeaderStackDepth) {
        const auto frame = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
        if (frame > state->highestStack)
            state->highestStack = frame;
        Put(header, used, "|%llu", static_cast<unsigned long long>(state->highestStack - frame));
    }
    if ((flags & kHeaderUserName) && TraceShowsUserName()) {
        char name[32];
        DWORD size = sizeof name;
        Put(header, used, "|%s", GetUserNameA(name, &size) ? name : "???");
    }
    if (flags != 0xF000)
        Put(header, used, ": ");
    return used;
}

// Cuts at most `room` bytes off `text`, never inside a UTF-8 sequence.
size_t ChunkLength(const char* text, size_t length, size_t room) {
    if (length <= room)
        return length;
    size_t cut = room;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        --cut;
    return cut == 0 ? room : cut; // a run of stray continuation bytes: cut anyway
}

void WriteLine(ThreadReportState* state, const char* header, size_t headerLength, uint32_t indent,
               const char* text, size_t length) {
    char out[kReportLineLimit + 1];
    memcpy(out, header, headerLength);
    size_t start = headerLength;
    if (headerLength + 80 + indent <= kReportLineLimit) {
        memset(out + start, ' ', indent);
        start += indent;
    }
    const uint32_t destinations = GetTraceDestinations();
    do {
        const size_t chunk = ChunkLength(text, length, kReportLineLimit - start);
        memcpy(out + start, text, chunk);
        out[start + chunk] = 0;
        TraceWrite(state, out, destinations);
        text += chunk;
        length -= chunk;
        start = headerLength; // later chunks carry the header but not the indent
    } while (length > 0);
}

} // namespace

ThreadReportState* GetThreadReportState() {
    return &t_reportState;
}

bool ReportPasses(const ThreadReportState* state, int32_t severity) {
    return state->suppressCount == 0 &&
           (static_cast<uint32_t>(severity) & ~state->severityMask) == 0;
}

void SetReportingEnabled(bool enabled) {
    s_reportingEnabled = enabled;
}

bool ReportingEnabled() {
    return s_reportingEnabled;
}

void WriteReport(uint32_t category, int32_t severity, const char* sourceFile, uint32_t line,
                 const char* message) {
    LastErrorKeeper keep;
    if (message == nullptr || !s_reportingEnabled)
        return;
    ThreadReportState* state = GetThreadReportState();
    if (!ReportPasses(state, severity))
        return;
    char header[kReportLineLimit + 1];
    const size_t headerLength =
        BuildHeader(header, ChooseHeaderFlags(state), category, severity, sourceFile, line, state);
    if (headerLength >= kReportLineLimit)
        return;
    const char* p = message;
    do {
        const char* end = p + strcspn(p, "\r\n");
        WriteLine(state, header, headerLength, state->indent, p, static_cast<size_t>(end - p));
        if (*end == '\r' && end[1] == '\n')
            ++end;
        p = *end != 0 ? end + 1 : end;
    } while (*p != 0);
}

void WriteReportF(uint32_t category, int32_t severity, const char* sourceFile, uint32_t line,
                  const char* format, ...) {
    LastErrorKeeper keep;
    va_list arguments;
    va_start(arguments, format);
    const Str text = StrFormatV(format, arguments);
    va_end(arguments);
    WriteReport(category, severity, sourceFile, line, text.Text());
}

void ReportWithSystemError(uint32_t category, int32_t severity, const char* sourceFile,
                           uint32_t line, const char* message) {
    LastErrorKeeper keep;
    const Str error = LastErrorText(keep.Saved());
    Str joined(message);
    const uint64_t total = static_cast<uint64_t>(joined.Length()) + 2 + error.Length();
    if (total > 0xFFFFFFFFull || !joined.Append(": ") || !joined.Append(error))
        joined.Clear();
    WriteReport(category, severity, sourceFile, line, joined.Text());
}

// ---------------------------------------------------------------------------
// Log type, event sources, events

LogType GetLogType() {
    static volatile LONG s_logtype = -1;
    const LONG known = InterlockedCompareExchange(&s_logtype, -1, -1);
    if (known >= 0)
        return static_cast<LogType>(known);
    LastErrorKeeper keep;
    MonitoredSectionLock lock(GetStaticsSection(), "LogType s_logtype");
    if (s_logtype >= 0)
        return static_cast<LogType>(s_logtype);
    LONG type = 0;
    const Str text = GetProcessEnvironment("LOGTYPE");
    if (!text.IsEmpty()) {
        if (CompareTextEx(text.Text(), "system", true) == 0)
            type = 0;
        else if (CompareTextEx(text.Text(), "stdout", true) == 0)
            type = 1;
        else if (CompareTextEx(text.Text(), "stderr", true) == 0)
            type = 2;
        else
            ReportAndConfirm(kCategoryBase, kSeverityError, kSourceFile, __LINE__,
                             StrFormat("GetLogType: Unknown type [%s]", text.Text()).Text());
    }
    InterlockedExchange(&s_logtype, type);
    return static_cast<LogType>(type);
}

void InstallEventSource(const Str& sourceName) {
    LastErrorKeeper keep;
    const Str modulePath = GetModulePathText();
    if (sourceName.IsEmpty() || modulePath.IsEmpty())
        return;
    WriteRegistryNumber(kEventLogKey, sourceName.Text(), "TypesSupported", 7);
    WriteRegistryNumber(kEventLogKey, sourceName.Text(), "CategoryCount", 7);
    WriteRegistryText(kEventLogKey, sourceName.Text(), "CategoryMessageFile", modulePath.Text());
    WriteRegistryText(kEventLogKey, sourceName.Text(), "EventMessageFile", modulePath.Text());
}

namespace {

struct EventSourceEntry {
    Str name;
    HANDLE handle;
    EventSourceEntry* next;
};

struct EventSourceCache {
    EventSourceEntry* volatile head = nullptr;
    MonitoredSection section;
    EventSourceCache() { InitMonitoredSection(&section, "EventSourceCache", LockThreshold::Short); }
};

EventSourceCache& GetEventSourceCache() {
    static EventSourceCache s_cache;
    return s_cache;
}

HANDLE FindSource(EventSourceEntry* entry, const Str& name) {
    for (; entry != nullptr; entry = entry->next)
        if (entry->name == name)
            return entry->handle;
    return INVALID_HANDLE_VALUE;
}

} // namespace

HANDLE GetEventSourceHandle(const Str& sourceName, bool install) {
    LastErrorKeeper keep;
    EventSourceCache& cache = GetEventSourceCache();
    // Entries are prepended and never removed, so a walk without the lock is safe.
    HANDLE handle = FindSource(__atomic_load_n(&cache.head, __ATOMIC_ACQUIRE), sourceName);
    if (handle != INVALID_HANDLE_VALUE)
        return handle;
    MonitoredSectionLock lock(&cache.section, "GetEventSourceHandle");
    handle = FindSource(cache.head, sourceName);
    if (handle != INVALID_HANDLE_VALUE)
        return handle;
    if (install)
        InstallEventSource(sourceName);
    const WStr wide = WStr::FromUtf8(sourceName);
    handle = RegisterEventSourceW(nullptr, wide.Text());
    auto* entry = new (std::nothrow) EventSourceEntry{sourceName, handle, cache.head};
    if (entry != nullptr)
        __atomic_store_n(&cache.head, entry, __ATOMIC_RELEASE);
    return handle;
}

namespace {

const char* LevelName(uint32_t level) {
    switch (level) {
    case kLevelErr:
        return "err";
    case kLevelWarning:
        return "warning";
    case kLevelInfo:
        return "info";
    case kLevelNotice:
        return "notice";
    default:
        return "unknown";
    }
}

WORD EventLogType(uint32_t level) {
    switch (level) {
    case kLevelWarning:
        return EVENTLOG_WARNING_TYPE;
    case kLevelInfo:
        return EVENTLOG_INFORMATION_TYPE;
    case kLevelNotice:
        return EVENTLOG_SUCCESS;
    default:
        return EVENTLOG_ERROR_TYPE;
    }
}

Str ComposeMessage(const Str& source, uint32_t eventNumber, const EventDescriptor& descriptor) {
    Str text;
    if (eventNumber != 0 && !source.IsEmpty()) {
        text = StrFormat("%s-%05u", source.Text(), eventNumber);
        text.Append(": ");
    }
    const char* p = descriptor.message != nullptr ? descriptor.message : "";
    while (*p != 0) {
        if (p[0] == '%' && p[1] >= '1' && p[1] <= '4') {
            const char* insert = descriptor.inserts[p[1] - '1'];
            text.Append(insert != nullptr ? insert : "<unknown>");
            p += 2;
            continue;
        }
        const char* next = p + 1;
        while (*next != 0 && *next != '%')
            ++next;
        text.Append(p, static_cast<uint32_t>(next - p));
        p = next;
    }
    return text;
}

// Echoes the event into the report stream: first line by level, the rest as detail.
void EchoEvent(const Str& text, uint32_t level) {
    const char* p = text.Text();
    const char* end = p + strcspn(p, "\r\n");
    const Str first = StrFormat("ReportEvent: %.*s", static_cast<int>(end - p), p);
    if (level == kLevelErr)
        ReportAndConfirm(kCategoryBase, kSeverityError, kSourceFile, __LINE__, first.Text());
    else if (level == kLevelWarning)
        WriteReport(kCategoryBase, kSeverityWarning, kSourceFile, __LINE__, first.Text());
    else
        WriteReport(kCategoryBase, kSeverityInfo, kSourceFile, __LINE__, first.Text());
    while (*end != 0) {
        p = end + (end[0] == '\r' && end[1] == '\n' ? 2 : 1);
        end = p + strcspn(p, "\r\n");
        if (end != p)
            WriteReportF(kCategoryBase, kSeverityInfo, kSourceFile, __LINE__, "  %.*s",
                         static_cast<int>(end - p), p);
    }
}

// A JSON number: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
bool IsJsonNumber(const char* p) {
    auto digits = [&p] {
        const char* start = p;
        while (*p >= '0' && *p <= '9')
            ++p;
        return p != start;
    };
    if (*p == '-')
        ++p;
    if (*p == '0')
        ++p;
    else if (!digits())
        return false;
    if (*p == '.') {
        ++p;
        if (!digits())
            return false;
    }
    if (*p == 'e' || *p == 'E') {
        ++p;
        if (*p == '+' || *p == '-')
            ++p;
        if (!digits())
            return false;
    }
    return *p == 0;
}

// ,"name":"text" or ,"name":number
void AppendJsonMember(Str& record, const char* name, const char* text, bool number) {
    record.AppendChar(',');
    WriteJsonName(name, record);
    if (number)
        record.Append(text);
    else
        WriteJsonString(text, record, nullptr, true);
}

void AppendJsonNumber(Str& record, const char* name, uint64_t number) {
    record.AppendChar(',');
    WriteJsonName(name, record);
    WriteJsonNumber(number, record);
}

Str BuildRecord(const Str& text, uint32_t level, const EventDescriptor& descriptor,
                bool processInfo) {
    Str record("{");
    WriteJsonName("@timestamp", record);
    WriteJsonString(LocalTimeText(kTimeTextRecord).Text(), record, nullptr, true);
    AppendJsonMember(record, "level", LevelName(level), false);
    AppendJsonMember(record, "message", text.Text(), false);
    for (uint32_t i = 0; i < descriptor.valueCount; ++i) {
        const EventValue& value = descriptor.values[i];
        // A value that is not a number is quoted, so one bad value cannot
        // spoil the record for its readers.
        AppendJsonMember(record, value.name, value.text.Text(),
                         value.number && IsJsonNumber(value.text.Text()));
    }
    if (processInfo) {
        AppendJsonMember(record, "version", GetModuleVersion().Text(), false);
        AppendJsonNumber(record, "processid", GetCurrentProcessId());
        AppendJsonNumber(record, "threadid", GetCurrentThreadId());
    }
    record.Append("}\n");
    return record;
}

// One process-wide watcher per standard stream, created on first use.
struct StreamWatcher {
    FILE* stream;
    bool ownConsole; // the stream has no real handle behind it
};

StreamWatcher* GetStreamWatcher(LogType type) {
    static StreamWatcher* s_out = nullptr;
    static StreamWatcher* s_err = nullptr;
    StreamWatcher** slot = type == LogType::Stdout ? &s_out : &s_err;
    if (__atomic_load_n(slot, __ATOMIC_ACQUIRE) != nullptr)
        return *slot;
    MonitoredSectionLock lock(GetStaticsSection(), type == LogType::Stdout
                                                       ? "OutStreamWatcher OutStreamwatcher"
                                                       : "ErrStreamWatcher ErrStreamwatcher");
    if (*slot == nullptr) {
        FILE* stream = type == LogType::Stdout ? stdout : stderr;
        const HANDLE handle =
            GetStdHandle(type == LogType::Stdout ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
        auto* watcher = new (std::nothrow)
            StreamWatcher{stream, handle == nullptr || handle == INVALID_HANDLE_VALUE};
        __atomic_store_n(slot, watcher, __ATOMIC_RELEASE);
    }
    return *slot;
}

} // namespace

bool ReportEvent(const Str& source, uint32_t eventNumber, const EventDescriptor& descriptor,
                 bool processInfo, uint32_t level, uint32_t category, bool installSource) {
    LastErrorKeeper keep;
    const Str text = ComposeMessage(source, eventNumber, descriptor);
    const LogType type = GetLogType();
    StreamWatcher* watcher = type == LogType::System ? nullptr : GetStreamWatcher(type);

    // The event log shows the named values as lines below the message.
    Str detailed = text;
    for (uint32_t i = 0; i < descriptor.valueCount; ++i) {
        detailed.Append("\r\n");
        detailed.Append(descriptor.values[i].name);
        detailed.Append(": ");
        detailed.Append(descriptor.values[i].text);
    }
    if (category != 3)
        EchoEvent(detailed, level);

    const HANDLE handle = GetEventSourceHandle(source, installSource);
    if (handle == nullptr)
        return false;
    if (type == LogType::System) {
        const WStr wide = WStr::FromUtf8(detailed);
        const wchar_t* strings[1] = {wide.Text()};
        return ReportEventW(handle, EventLogType(level), static_cast<WORD>(category), 0, nullptr, 1,
                            0, strings, nullptr) != FALSE;
    }
    // A stream without a real handle behind it (a process started without one)
    // takes the record nowhere: say so rather than claim it was written.
    if (watcher == nullptr || watcher->ownConsole)
        return false;
    const Str record = BuildRecord(text, level, descriptor, processInfo);
    const bool written =
        fwrite(record.Text(), 1, record.Length(), watcher->stream) == record.Length();
    fflush(watcher->stream);
    return written;
}

void ReportLibraryError(const char* sourceFile, uint32_t line, uint32_t code, const char* message,
                        const EventValue* values, uint32_t valueCount, uint32_t category) {
    // A report that fails the same way must not recurse into itself.
    static thread_local bool t_reporting = false;
    if (t_reporting)
        return;
    LastErrorKeeper keep;
    t_reporting = true;
    EventValue all[10];
    uint32_t n = 0;
    for (; n < valueCount && n < 8; ++n)
        all[n] = values[n];
    all[n++] = {"file", Str(sourceFile), false};
    all[n++] = {"line", StrFormat("%u", line), true};
    EventDescriptor descriptor;
    descriptor.message = message;
    descriptor.values = all;
    descriptor.valueCount = n;
    ReportEvent(Str(kLibrarySource), code, descriptor, true, kLevelErr, category, false);
    t_reporting = false;
}
