// Guards: a function run under an exception filter. The compiler has no
// __try/__except, so the guard is a small trampoline whose unwind data names a
// handler of its own. The system's table-driven dispatch then asks the guards
// of the faulting thread only, innermost first, and the handler unwinds to the
// trampoline with RtlUnwindEx when its filter handles the fault.
#include <windows.h>

#include <new>

#include "private/system.h"

namespace guard_detail {

struct GuardRecord {
    GuardFilter filter;
    const char* context;
    DWORD lastError; // as the filter left it, for the guard's caller
};

} // namespace guard_detail

using guard_detail::GuardRecord;

extern "C" {
// Calls body(argument); 1 when it returned, 0 when a fault was handled.
int GuardTrampoline(void (*body)(void*), void* argument, GuardRecord* record);
// Where a handled fault resumes: the trampoline's way out with 0.
extern char GuardTrampolineLanding[];
EXCEPTION_DISPOSITION GuardHandler(EXCEPTION_RECORD* record, void* establisherFrame,
                                   CONTEXT* context, DISPATCHER_CONTEXT* dispatch);
}

// The trampoline keeps the record's address at 32 bytes above its stack pointer
// after the prologue, which is the establisher frame its handler receives (it
// uses no frame register). 40 bytes: the callee's 32-byte home area, the slot,
// and the stack aligned to 16 at the call. The handler is registered for the
// search phase only, so an unwind passes the trampoline by.
asm(R"(
    .text
    .p2align 4
    .globl GuardTrampoline
    .def GuardTrampoline; .scl 2; .type 32; .endef
    .seh_proc GuardTrampoline
GuardTrampoline:
    subq $40, %rsp
    .seh_stackalloc 40
    .seh_handler GuardHandler, @except
    .seh_endprologue
    movq %r8, 32(%rsp)
    movq %rcx, %rax
    movq %rdx, %rcx
    callq *%rax
    movl $1, %eax
    addq $40, %rsp
    ret
    .globl GuardTrampolineLanding
GuardTrampolineLanding:
    xorl %eax, %eax
    addq $40, %rsp
    ret
    .seh_endproc
)");

namespace {

constexpr size_t kRecordSlot = 32;
// How long an overflowing thread waits for its filter's reports.
constexpr DWORD kOverflowFilterWaitMs = 60000;

// A filter call handed to a thread of its own, on copies of the exception's
// record and context, so that a thread given up on touches nothing of ours.
struct OverflowCall {
    CONTEXT context;
    EXCEPTION_RECORD record;
    EXCEPTION_POINTERS pointers;
    GuardFilter filter;
    const char* site;
    volatile LONG verdict;
    volatile LONG holders; // the faulting thread and the filter's thread
};

void ReleaseOverflowCall(OverflowCall* call) {
    if (InterlockedDecrement(&call->holders) == 0) {
        call->~OverflowCall();
        HeapFree(GetProcessHeap(), 0, call);
    }
}

DWORD WINAPI OverflowFilterThread(void* parameter) {
    auto* call = static_cast<OverflowCall*>(parameter);
    InterlockedExchange(&call->verdict,
                        call->filter(call->site, &call->pointers, EXCEPTION_EXECUTE_HANDLER));
    ReleaseOverflowCall(call);
    return 0;
}

// A stack overflow leaves the faulting thread a few pages at most: too little
// for a report, a message box or an event. Its filter runs elsewhere.
int AskFilterElsewhere(const GuardRecord* guard, const EXCEPTION_POINTERS* pointers) {
    void* memory = HeapAlloc(GetProcessHeap(), 0, sizeof(OverflowCall));
    if (memory == nullptr)
        return EXCEPTION_CONTINUE_SEARCH;
    auto* call = new (memory) OverflowCall;
    call->context = *pointers->ContextRecord;
    call->record = *pointers->ExceptionRecord;
    call->record.ExceptionRecord = nullptr; // a chained record would not be copied
    call->pointers = {&call->record, &call->context};
    call->filter = guard->filter;
    call->site = guard->context;
    call->verdict = EXCEPTION_CONTINUE_SEARCH;
    call->holders = 2;
    HANDLE thread = CreateThread(nullptr, 0, OverflowFilterThread, call, 0, nullptr);
    if (thread == nullptr) {
        call->holders = 1;
        ReleaseOverflowCall(call);
        return EXCEPTION_CONTINUE_SEARCH;
    }
    const bool finished = WaitForSingleObject(thread, kOverflowFilterWaitMs) == WAIT_OBJECT_0;
    CloseHandle(thread);
    const int verdict = finished ? call->verdict : EXCEPTION_CONTINUE_SEARCH;
    ReleaseOverflowCall(call);
    return verdict;
}

} // namespace

extern "C" EXCEPTION_DISPOSITION GuardHandler(EXCEPTION_RECORD* record, void* establisherFrame,
                                              CONTEXT* context, DISPATCHER_CONTEXT* dispatch) {
    if ((record->ExceptionFlags & EXCEPTION_UNWIND) != 0)
        return ExceptionContinueSearch;
    GuardRecord* guard =
        *reinterpret_cast<GuardRecord**>(static_cast<char*>(establisherFrame) + kRecordSlot);
    if (guard->filter == nullptr)
        return ExceptionContinueSearch;
    EXCEPTION_POINTERS pointers = {record, context};
    const int verdict = record->ExceptionCode == STATUS_STACK_OVERFLOW
                            ? AskFilterElsewhere(guard, &pointers)
                            : guard->filter(guard->context, &pointers, EXCEPTION_EXECUTE_HANDLER);
    if (verdict == EXCEPTION_CONTINUE_EXECUTION)
        return ExceptionContinueExecution;
    if (verdict != EXCEPTION_EXECUTE_HANDLER)
        return ExceptionContinueSearch;
    guard->lastError = GetLastError();
    // Unwinds the frames between the fault and the trampoline and resumes at its
    // landing; does not return.
    RtlUnwindEx(establisherFrame, GuardTrampolineLanding, record, nullptr, dispatch->ContextRecord,
                dispatch->HistoryTable);
    return ExceptionContinueSearch;
}

bool RunGuarded(const char* context, GuardFilter filter, void (*body)(void*), void* argument) {
    GuardRecord record = {filter, context, 0};
    if (GuardTrampoline(body, argument, &record) != 0)
        return true;
    SetLastError(record.lastError);
    return false;
}
