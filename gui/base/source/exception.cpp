// The exception filter of the library's guards: names the exception, reports it
// to the developer and as an operational event, and decides whether the guard
// may handle it.
#include <windows.h>

#include "handles.h"
#include "private/system.h"
#include "report.h"

namespace {

const char kSourceFile[] = "gui\\base\\include\\private\\system";
constexpr uint32_t kExceptionEvent = 400;
constexpr uint32_t kExceptionEventCategory = 2;

struct ExceptionName {
    uint32_t code;
    const char* name;
};

constexpr ExceptionName kExceptionNames[] = {
    {0x00000102, "TIMEOUT"},
    {0x00000103, "PENDING"},
    {0x40000005, "SEGMENT_NOTIFICATION"},
    {0x80000001, "GUARD_PAGE_VIOLATION"},
    {0x80000002, "DATATYPE_MISALIGNMENT"},
    {0x80000003, "BREAKPOINT"},
    {0x80000004, "SINGLE_STEP"},
    {0xC0000005, "ACCESS_VIOLATION"},
    {0xC0000006, "IN_PAGE_ERROR"},
    {0xC0000008, "INVALID_HANDLE"},
    {0xC0000017, "NO_MEMORY"},
    {0xC000001D, "ILLEGAL_INSTRUCTION"},
    {0xC0000025, "NONCONTINUABLE_EXCEPTION"},
    {0xC0000026, "INVALID_DISPOSITION"},
    {0xC000008C, "ARRAY_BOUNDS_EXCEEDED"},
    {0xC000008D, "FLOAT_DENORMAL_OPERAND"},
    {0xC000008E, "FLOAT_DIVIDE_BY_ZERO"},
    {0xC000008F, "FLOAT_INEXACT_RESULT"},
    {0xC0000090, "FLOAT_INVALID_OPERATION"},
    {0xC0000091, "FLOAT_OVERFLOW"},
    {0xC0000092, "FLOAT_STACK_CHECK"},
    {0xC0000093, "FLOAT_UNDERFLOW"},
    {0xC0000094, "INTEGER_DIVIDE_BY_ZERO"},
    {0xC0000095, "INTEGER_OVERFLOW"},
    {0xC0000096, "PRIVILEGED_INSTRUCTION"},
    {0xC00000FD, "STACK_OVERFLOW"},
    {0xC000013A, "CONTROL_C_EXIT"},
    {0xC00002B4, "FLOAT_MULTIPLE_FAULTS"},
    {0xC00002B5, "FLOAT_MULTIPLE_TRAPS"},
    {0xC00002C9, "REG_NAT_CONSUMPTION"},
};

const char* ExceptionNameOf(uint32_t code) {
    for (const ExceptionName& entry : kExceptionNames)
        if (entry.code == code)
            return entry.name;
    return "";
}

// "Could not read/write at address %p" for an access violation that says which;
// empty for anything else.
Str AccessViolationText(const EXCEPTION_RECORD* record) {
    if (record == nullptr || record->ExceptionCode != EXCEPTION_ACCESS_VIOLATION ||
        record->NumberParameters < 2)
        return Str();
    void* target = reinterpret_cast<void*>(record->ExceptionInformation[1]);
    switch (record->ExceptionInformation[0]) {
    case 0:
        return StrFormat("Could not read at address %p", target);
    case 1:
        return StrFormat("Could not write at address %p", target);
    default:
        return Str();
    }
}

} // namespace

int ExceptionFilter(const char* context, EXCEPTION_POINTERS* exceptionPointers, int disposition) {
    LastErrorKeeper keep;
    const EXCEPTION_RECORD* record =
        exceptionPointers != nullptr ? exceptionPointers->ExceptionRecord : nullptr;
    const uint32_t code = record != nullptr ? record->ExceptionCode : 0;
    const uint32_t flags = record != nullptr ? record->ExceptionFlags : 0;
    void* address = record != nullptr ? record->ExceptionAddress : nullptr;
    const char* kind =
        flags == EXCEPTION_NONCONTINUABLE ? "Non-continuable exception" : "Exception";
    const char* name = ExceptionNameOf(code);

    const Str message =
        context != nullptr
            ? StrFormat("ExceptionFilter: %s 0x%08X (%s) at address %p (%s)", kind, code, name,
                        address, context)
            : StrFormat("ExceptionFilter: %s 0x%08X (%s) at address %p", kind, code, name, address);
    ReportAndConfirm(kCategoryBase, kSeverityError, kSourceFile, __LINE__, message.Text());
    const Str access = AccessViolationText(record);
    if (!access.IsEmpty())
        ReportAndConfirm(kCategoryBase, kSeverityError, kSourceFile, __LINE__,
                         StrFormat("ExceptionFilter: %s", access.Text()).Text());

    EventValue values[6] = {
        {"type", Str(kind), false},
        {"code", StrFormat("0x%08X", code), false},
        {"error", FormatSystemError(code), false},
        {"address", StrFormat("%p", address), false},
    };
    uint32_t count = 4;
    if (context != nullptr)
        values[count++] = {"context", Str(context), false};
    if (!access.IsEmpty())
        values[count++] = {"exceptioninfo", access, false};
    ReportLibraryError(kSourceFile, __LINE__, kExceptionEvent, "Exception occured", values, count,
                       kExceptionEventCategory);

    // A guard that swallowed these would run on with a broken stack or state.
    if (disposition == EXCEPTION_EXECUTE_HANDLER &&
        ((flags & EXCEPTION_NONCONTINUABLE) != 0 || code == STATUS_STACK_OVERFLOW))
        return EXCEPTION_CONTINUE_SEARCH;
    return disposition;
}
