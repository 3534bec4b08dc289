// The allocation pair behind every block. Small blocks will come from
// per-thread particle lists; for now every request goes to the process heap.
#include "alloc.h"

#include <windows.h>

namespace {
AllocFailureHook s_failureHook = nullptr;
}

void SetAllocFailureHook(AllocFailureHook hook) {
    s_failureHook = hook;
}

void* AllocParticle(size_t bytes) {
    if (s_failureHook != nullptr && s_failureHook(bytes)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return HeapAlloc(GetProcessHeap(), 0, bytes == 0 ? 1 : bytes);
}

void FreeParticle(size_t bytes, void* pointer) {
    (void)bytes;
    if (pointer != nullptr)
        HeapFree(GetProcessHeap(), 0, pointer);
}
