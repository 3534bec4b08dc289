// The allocation pair behind every block. Small blocks will come from
// per-thread particle lists; for now every request goes to the process heap.
#include "alloc.h"

#include <windows.h>

#include "private/seams.h"

namespace {
SeamSlot<AllocSeams> s_seams;
}

void SetAllocSeamsForTesting(const AllocSeams* seams) {
    s_seams.Set(seams);
}

void* AllocParticle(size_t bytes) {
    const AllocSeams* seams = s_seams.Get();
    if (seams != nullptr && seams->failAllocation != nullptr && seams->failAllocation(bytes)) {
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
