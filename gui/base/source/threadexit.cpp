// Thread-exit notification. The library is linked statically into programs, so
// it has no DllMain of its own; it hears of thread ends through a TLS callback
// of the executable, which the loader calls for every thread that ends
// normally. A fiber-local slot with a destructor was the other way, but the
// loader also calls such destructors on the thread that ends the process,
// after the other threads were killed wherever they stood: a clean-up that
// takes a lock (the allocator's does) could then wait forever on a lock a
// killed thread held. The TLS callback tells thread end from process end, and
// only thread end runs the clean-ups.
#include "private/threadexit.h"

#include <windows.h>

#include "handles.h"
#include "private/system.h"

namespace {

struct ThreadExitEntry {
    int32_t key;
    ThreadExitFunction function;
    void* context;
    ThreadExitEntry* next;
};

// One per thread that registered a clean-up, in a TLS slot of its own. Taken
// from the process heap, never from particles: the allocator's own clean-up
// is among the entries.
struct ThreadExitData {
    ThreadExitEntry* first; // ascending keys
};

INIT_ONCE s_slotOnce = INIT_ONCE_STATIC_INIT;
DWORD s_slot = TLS_OUT_OF_INDEXES;

BOOL CALLBACK AllocateSlot(PINIT_ONCE, PVOID, PVOID*) {
    s_slot = TlsAlloc();
    return TRUE;
}

DWORD Slot() {
    InitOnceExecuteOnce(&s_slotOnce, AllocateSlot, nullptr, nullptr);
    return s_slot;
}

// The one place where a clean-up is called: under a guard, so that a faulting
// clean-up is reported and the thread's others still run.
void InvokeCleanup(const ThreadExitEntry& entry) {
    RunGuarded("ThreadExitData::dtor", ExceptionFilter, entry.function, entry.context);
}

// Runs the ending thread's clean-ups one by one; one that registers another
// while running still has it run, in key order among those left.
void RunThreadExitData() {
    if (__atomic_load_n(&s_slot, __ATOMIC_ACQUIRE) == TLS_OUT_OF_INDEXES)
        return;
    LastErrorKeeper keep;
    auto* data = static_cast<ThreadExitData*>(TlsGetValue(s_slot));
    if (data == nullptr)
        return;
    while (ThreadExitEntry* entry = data->first) {
        data->first = entry->next;
        InvokeCleanup(*entry);
        HeapFree(GetProcessHeap(), 0, entry);
    }
    TlsSetValue(s_slot, nullptr);
    HeapFree(GetProcessHeap(), 0, data);
}

void NTAPI OnThreadNotice(PVOID, DWORD reason, PVOID) {
    if (reason == DLL_THREAD_DETACH)
        RunThreadExitData();
}

} // namespace

// The loader calls the executable's TLS callbacks in section-name order. The
// runtime destroys C++ thread_local objects from .CRT$XLB (blocks they free
// still reach the thread's lists) and the threads library frees the storage
// of thread variables from .CRT$XLF; the clean-ups run in between.
extern "C" {
extern const IMAGE_TLS_DIRECTORY _tls_used;
__attribute__((section(".CRT$XLE"), used)) extern const PIMAGE_TLS_CALLBACK kvt_threadExitCallback =
    OnThreadNotice;
// Without a reference to the TLS directory the linker may leave it out.
__attribute__((used)) const void* const kvt_tlsDirectory = &_tls_used;
}

bool RegisterThreadExit(int32_t key, ThreadExitFunction function, void* context) {
    LastErrorKeeper keep;
    const DWORD slot = Slot();
    if (slot == TLS_OUT_OF_INDEXES || function == nullptr)
        return false;
    auto* data = static_cast<ThreadExitData*>(TlsGetValue(slot));
    if (data == nullptr) {
        data = static_cast<ThreadExitData*>(HeapAlloc(GetProcessHeap(), 0, sizeof(ThreadExitData)));
        if (data == nullptr)
            return false;
        data->first = nullptr;
        if (!TlsSetValue(slot, data)) {
            HeapFree(GetProcessHeap(), 0, data);
            return false;
        }
    }
    auto* entry =
        static_cast<ThreadExitEntry*>(HeapAlloc(GetProcessHeap(), 0, sizeof(ThreadExitEntry)));
    if (entry == nullptr)
        return false;
    ThreadExitEntry** link = &data->first;
    while (*link != nullptr && (*link)->key <= key)
        link = &(*link)->next;
    *entry = {key, function, context, *link};
    *link = entry;
    return true;
}
