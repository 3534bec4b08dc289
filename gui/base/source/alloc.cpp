// The particle allocator. A particle is a piece of a fixed class size (8 to
// 1024 bytes in steps of 8) cut from a block of the class; a free particle
// keeps the address of the next free one in its last 8 bytes. Each thread
// pops and pushes on lists of its own, without a lock; whole batches of about
// 4096 bytes move between a thread and the shared pool under the class lock.
#include "alloc.h"

#include <windows.h>

#include <winternl.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "handles.h"
#include "locks.h"
#include "private/particles.h"
#include "private/seams.h"
#include "private/threadexit.h"
#include "report.h"

namespace {

const char kSourceFile[] = "gui\\base\\source\\alloc";
const char kClassLockName[] = "ParticleBlockHeader";
const char kSiteAlloc[] = "AllocParticleList";
const char kSiteFree[] = "FreeParticleList";
// Registered when the pool is built, so that entering a class lock never
// allocates from the pool it guards.
const char* const kClassLockSites[] = {kSiteAlloc, kSiteFree};
const wchar_t kEnvironmentName[] = L"PARTICLEREPLACEMENT";

constexpr uint32_t kClasses = 128;
constexpr uint32_t kLargest = 1024;
constexpr uint32_t kBatchBytes = 4096;
constexpr uint32_t kThreadLimitBytes = 0x80000;
constexpr uint32_t kFirstBlockBytes = 16384;
constexpr uint32_t kGrowingBlocks = 12; // data doubles every second block up to here
constexpr uint32_t kFastSlots = 64;     // slots the thread block holds inline

struct ParticleList {
    void* head;
    uint32_t count;
    uint32_t size;
    uint32_t batch;
    uint32_t limit;
};

struct ThreadTable {
    uint32_t owner;
    ParticleList* entries[kLargest + 1]; // [0]: above 1024 bytes, always the heap
    ParticleList lists[kClasses];
};

struct BlockDescriptor {
    char* data;
    uint32_t bytes;
    uint32_t particles;
    BlockDescriptor* next;
};

// Classes are touched by different threads at once: one cache line pair each.
struct alignas(128) ParticleClass {
    MonitoredSection lock;
    void* head;
    uint64_t freeCount;
    uint64_t total;
    BlockDescriptor* blocks;
    uint32_t size;
    uint64_t lockEntries;
    uint64_t moved;
};

// The slot's value for a thread whose table is gone: it uses the shared table.
ThreadTable* const kRetired = reinterpret_cast<ThreadTable*>(~uintptr_t(0));

ParticleClass s_classes[kClasses];
ThreadTable s_sharedTable;
DWORD s_slot = TLS_OUT_OF_INDEXES;
INIT_ONCE s_poolOnce = INIT_ONCE_STATIC_INIT;
// The slot when the fast path may read it straight from the thread block;
// kFastSlots sends every call the long way (before the pool exists, with
// per-thread tables off, a slot above 63, or releases stopped).
uint32_t s_fastSlot = kFastSlots;

// Mode words: the low two bits of the first select per-thread tables; the
// first use latches 1 to 2. The second is latched when the environment is read.
LONG s_threadMode = 1;
LONG s_environmentMode = 1;
bool s_releaseStopped = false;

struct Enablement {
    bool enabled = true;
    const char* reason = nullptr;
};
Enablement s_enablement;
INIT_ONCE s_enablementOnce = INIT_ONCE_STATIC_INIT;

SeamSlot<AllocSeams> s_seams;

// ---------------------------------------------------------------------------
// Free chains

inline void*& LinkOf(void* particle, uint32_t size) {
    return *reinterpret_cast<void**>(static_cast<char*>(particle) + size - 8);
}

ParticleClass& ClassOf(uint32_t size) {
    return s_classes[size / 8 - 1];
}

// The one way into and out of a class lock.
void EnterClassLock(ParticleClass& c, const char* site) {
    EnterMonitored(&c.lock, site);
    ++c.lockEntries;
}

void LeaveClassLock(ParticleClass& c) {
    LeaveMonitored(&c.lock);
}

// Links the chain first..last (n particles) in front of the class's shared chain.
void PushToClass(ParticleClass& c, void* first, void* last, uint32_t n) {
    EnterClassLock(c, kSiteFree);
    LinkOf(last, c.size) = c.head;
    c.head = first;
    c.freeCount += n;
    c.moved += n;
    LeaveClassLock(c);
}

// ---------------------------------------------------------------------------
// Enablement and the shared pool

bool EqualsIgnoringCase(const wchar_t* a, const wchar_t* b) {
    return CompareStringOrdinal(a, -1, b, -1, TRUE) == CSTR_EQUAL;
}

// Read without Str: the allocator being set up is the one Str would use.
BOOL CALLBACK ReadEnablement(PINIT_ONCE, PVOID, PVOID*) {
    InterlockedCompareExchange(&s_environmentMode, 2, 1);
    wchar_t value[64];
    SetLastError(ERROR_SUCCESS);
    const DWORD length = GetEnvironmentVariableW(kEnvironmentName, value, 64);
    if (length == 0 && GetLastError() == ERROR_ENVVAR_NOT_FOUND)
        return TRUE;
    if (length >= 64)
        value[0] = 0;
    // Management stays on only when the value equals every word at once, so
    // any value at all switches it off. Deliberate: keep it so.
    bool on = true;
    for (const wchar_t* word : {L"1", L"on", L"yes", L"true"})
        on = on && EqualsIgnoringCase(value, word);
    if (!on)
        s_enablement = {false, "environment"};
    return TRUE;
}

const Enablement& GetEnablement() {
    InitOnceExecuteOnce(&s_enablementOnce, ReadEnablement, nullptr, nullptr);
    return s_enablement;
}

void InitTable(ThreadTable* table) {
    const bool enabled = GetEnablement().enabled;
    table->owner = GetCurrentThreadId();
    for (uint32_t k = 0; k < kClasses; ++k) {
        const uint32_t size = (k + 1) * 8;
        table->lists[k] = {nullptr, 0, size, kBatchBytes / size, kThreadLimitBytes / size};
    }
    table->entries[0] = nullptr;
    for (uint32_t s = 1; s <= kLargest; ++s)
        table->entries[s] = enabled ? &table->lists[(s - 1) / 8] : nullptr;
}

BOOL CALLBACK BuildPool(PINIT_ONCE, PVOID, PVOID*) {
    for (uint32_t k = 0; k < kClasses; ++k) {
        InitMonitoredSection(&s_classes[k].lock, kClassLockName, LockThreshold::Short,
                             kClassLockSites, 2);
        s_classes[k].size = (k + 1) * 8;
    }
    InitTable(&s_sharedTable);
    s_slot = TlsAlloc();
    InterlockedCompareExchange(&s_threadMode, 2, 1);
    if ((s_threadMode & 3) != 0 && s_slot < kFastSlots)
        __atomic_store_n(&s_fastSlot, s_slot, __ATOMIC_RELEASE);
    return TRUE;
}

void BuildPoolOnce() {
    InitOnceExecuteOnce(&s_poolOnce, BuildPool, nullptr, nullptr);
}

// ---------------------------------------------------------------------------
// Thread tables

// The thread-exit clean-up: every particle on the thread's lists goes back to
// the shared pool, so an ending thread strands none.
void RetireTable(void* context) {
    auto* table = static_cast<ThreadTable*>(context);
    TlsSetValue(s_slot, kRetired);
    for (ParticleList& list : table->lists) {
        if (list.count == 0)
            continue;
        void* last = list.head;
        for (uint32_t i = 1; i < list.count; ++i)
            last = LinkOf(last, list.size);
        PushToClass(ClassOf(list.size), list.head, last, list.count);
        list = {nullptr, 0, list.size, list.batch, list.limit};
    }
    HeapFree(GetProcessHeap(), 0, table);
}

ThreadTable* MakeTable() {
    auto* table = static_cast<ThreadTable*>(HeapAlloc(GetProcessHeap(), 0, sizeof(ThreadTable)));
    if (table == nullptr)
        return nullptr;
    InitTable(table);
    if (!TlsSetValue(s_slot, table)) {
        HeapFree(GetProcessHeap(), 0, table);
        return nullptr;
    }
    if (!RegisterThreadExit(kThreadExitParticles, RetireTable, table)) {
        TlsSetValue(s_slot, nullptr);
        HeapFree(GetProcessHeap(), 0, table);
        return nullptr;
    }
    return table;
}

inline ThreadTable* FastTable() {
    const uint32_t slot = __atomic_load_n(&s_fastSlot, __ATOMIC_ACQUIRE);
    if (slot >= kFastSlots)
        return nullptr;
    // The documented TlsSlots array of the thread block: what TlsGetValue
    // reads, without the call and without clearing the last error.
    return reinterpret_cast<ThreadTable*>(
        __readgsqword(static_cast<DWORD>(offsetof(TEB, TlsSlots) + slot * sizeof(void*))));
}

// The thread's own table, made on first use; null when the thread has none
// and none can be made, kRetired after its clean-up ran.
ThreadTable* OwnTable() {
    BuildPoolOnce();
    if (s_slot == TLS_OUT_OF_INDEXES)
        return nullptr;
    auto* table = static_cast<ThreadTable*>(TlsGetValue(s_slot));
    return table != nullptr ? table : MakeTable();
}

// The long way of AllocParticle: never null.
ThreadTable* TableForAllocation() {
    LastErrorKeeper keep;
    BuildPoolOnce();
    if ((s_threadMode & 3) == 0)
        return &s_sharedTable;
    ThreadTable* table = OwnTable();
    return table == nullptr || table == kRetired ? &s_sharedTable : table;
}

// The long way of FreeParticle: null when the release is to leave the memory alone.
ThreadTable* TableForRelease() {
    LastErrorKeeper keep;
    BuildPoolOnce();
    if ((s_threadMode & 3) == 0 || __atomic_load_n(&s_releaseStopped, __ATOMIC_ACQUIRE))
        return nullptr;
    ThreadTable* table = OwnTable();
    return table == kRetired ? nullptr : table;
}

// ---------------------------------------------------------------------------
// Blocks and batches

void* AllocBlockData(size_t bytes) {
    const AllocSeams* seams = s_seams.Get();
    if (seams != nullptr && seams->failBlockData != nullptr && seams->failBlockData(bytes))
        return nullptr;
    return HeapAlloc(GetProcessHeap(), 0, bytes);
}

// A new block in front of the class's shared chain; ends the process when
// even the smallest block cannot be had. Called under the class lock.
void CreateBlock(ParticleClass& c) {
    uint32_t existing = 0;
    for (const BlockDescriptor* b = c.blocks; b != nullptr && existing < kGrowingBlocks;
         b = b->next)
        ++existing;
    uint32_t dataBytes = kFirstBlockBytes << (existing / 2);
    for (;;) {
        const uint32_t particles = dataBytes / c.size;
        const uint32_t bytes = particles * c.size;
        auto* block =
            static_cast<BlockDescriptor*>(HeapAlloc(GetProcessHeap(), 0, sizeof(BlockDescriptor)));
        if (block == nullptr) {
            fprintf(stderr, "Could not allocate particle block (%zu bytes) for size %u bytes\n",
                    sizeof(BlockDescriptor), c.size);
            fflush(stderr);
            abort();
        }
        block->data = static_cast<char*>(AllocBlockData(bytes));
        if (block->data == nullptr) {
            if (!__atomic_load_n(&s_releaseStopped, __ATOMIC_ACQUIRE))
                HeapFree(GetProcessHeap(), 0, block);
            if (dataBytes > kFirstBlockBytes) {
                dataBytes = dataBytes / 2 > kFirstBlockBytes ? dataBytes / 2 : kFirstBlockBytes;
                continue;
            }
            fprintf(stderr, "Could not allocate particle block data (%u bytes) for size %u bytes\n",
                    bytes, c.size);
            fflush(stderr);
            abort();
        }
        block->bytes = bytes;
        block->particles = particles;
        for (uint32_t i = 0; i + 1 < particles; ++i)
            LinkOf(block->data + i * c.size, c.size) = block->data + (i + 1) * c.size;
        LinkOf(block->data + (particles - 1) * c.size, c.size) = c.head;
        c.head = block->data;
        c.freeCount += particles;
        c.total += particles;
        block->next = c.blocks;
        // Published for the lock-free readers of the figures.
        __atomic_store_n(&c.blocks, block, __ATOMIC_RELEASE);
        return;
    }
}

// Refills a thread's list with one batch from the shared pool and returns one particle.
void* AllocParticleList(ParticleList* list) {
    const uint32_t size = list->size;
    const uint32_t batch = list->batch;
    if (batch == 0)
        return nullptr;
    ParticleClass& c = ClassOf(size);
    void* first = nullptr;
    void* last = nullptr;
    EnterClassLock(c, kSiteAlloc);
    for (uint32_t i = 0; i < batch; ++i) {
        if (c.head == nullptr) {
            CreateBlock(c);
            if (last != nullptr)
                LinkOf(last, size) = c.head;
        }
        last = c.head;
        if (first == nullptr)
            first = last;
        c.head = LinkOf(last, size);
    }
    c.freeCount -= batch;
    c.moved += batch;
    LeaveClassLock(c);
    LinkOf(last, size) = list->head;
    list->head = LinkOf(first, size);
    list->count += batch - 1;
    return first;
}

// Moves the first batch of a thread's list back to the shared pool.
void FreeParticleList(ParticleList* list) {
    const uint32_t n = list->batch < list->count ? list->batch : list->count;
    if (n == 0)
        return;
    void* first = list->head;
    void* last = first;
    for (uint32_t i = 1; i < n; ++i)
        last = LinkOf(last, list->size);
    list->head = LinkOf(last, list->size);
    list->count -= n;
    PushToClass(ClassOf(list->size), first, last, n);
}

// The slow ways out of the fast paths below stay out of line, so that the
// fast paths need no stack frame and reach them by a jump.
#define KVT_SLOW_PATH __attribute__((noinline, cold))

KVT_SLOW_PATH void* HeapAllocKeepingError(size_t bytes) {
    LastErrorKeeper keep;
    return HeapAlloc(GetProcessHeap(), 0, bytes == 0 ? 1 : bytes);
}

KVT_SLOW_PATH void HeapFreeKeepingError(void* pointer) {
    if (pointer == nullptr)
        return;
    LastErrorKeeper keep;
    HeapFree(GetProcessHeap(), 0, pointer);
}

KVT_SLOW_PATH void* Refill(ParticleList* list) {
    return AllocParticleList(list);
}

KVT_SLOW_PATH void GiveBack(ParticleList* list) {
    FreeParticleList(list);
}

inline void* AllocFrom(ThreadTable* table, size_t bytes) {
    ParticleList* list = table->entries[bytes <= kLargest ? bytes : 0];
    if (__builtin_expect(list == nullptr, 0))
        return HeapAllocKeepingError(bytes);
    void* particle = list->head;
    if (__builtin_expect(particle == nullptr, 0))
        return Refill(list);
    list->head = LinkOf(particle, list->size);
    --list->count;
    return particle;
}

inline void FreeTo(ThreadTable* table, size_t bytes, void* pointer) {
    ParticleList* list = table->entries[bytes <= kLargest ? bytes : 0];
    if (__builtin_expect(list == nullptr, 0))
        return HeapFreeKeepingError(pointer);
    if (pointer == nullptr)
        return;
    LinkOf(pointer, list->size) = list->head;
    list->head = pointer;
    if (__builtin_expect(++list->count > list->limit, 0))
        GiveBack(list);
}

KVT_SLOW_PATH void* AllocSlowly(size_t bytes) {
    const AllocSeams* seams = s_seams.Get();
    if (seams != nullptr && seams->failAllocation != nullptr && seams->failAllocation(bytes)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    ThreadTable* table = FastTable();
    return AllocFrom(table == nullptr || table == kRetired ? TableForAllocation() : table, bytes);
}

KVT_SLOW_PATH void FreeSlowly(size_t bytes, void* pointer) {
    if (ThreadTable* table = TableForRelease())
        FreeTo(table, bytes, pointer);
}

} // namespace

void SetAllocSeamsForTesting(const AllocSeams* seams) {
    s_seams.Set(seams);
}

void* AllocParticle(size_t bytes) {
    ThreadTable* table = FastTable();
    if (__builtin_expect(table == nullptr || table == kRetired || s_seams.Get() != nullptr, 0))
        return AllocSlowly(bytes);
    return AllocFrom(table, bytes);
}

void FreeParticle(size_t bytes, void* pointer) {
    ThreadTable* table = FastTable();
    if (__builtin_expect(table == nullptr || table == kRetired, 0))
        return FreeSlowly(bytes, pointer);
    FreeTo(table, bytes, pointer);
}

void CheckParticleManagement() {
    LastErrorKeeper keep;
    BuildPoolOnce();
    if ((s_threadMode & 3) != 0)
        OwnTable();
    const Enablement& enablement = GetEnablement();
    if (!enablement.enabled)
        WriteReportF(kCategoryBase, 1, kSourceFile, 228, "Particle Management disabled (%s)",
                     enablement.reason);
}

void StopParticleRelease() {
    __atomic_store_n(&s_releaseStopped, true, __ATOMIC_RELEASE);
    __atomic_store_n(&s_fastSlot, kFastSlots, __ATOMIC_RELEASE);
}

bool GetParticleStats(uint32_t bytes, ParticleStats& stats) {
    if (bytes == 0 || bytes > kLargest)
        return false;
    LastErrorKeeper keep;
    BuildPoolOnce();
    const ParticleClass& c = s_classes[(bytes - 1) / 8];
    const BlockDescriptor* newest = __atomic_load_n(&c.blocks, __ATOMIC_ACQUIRE);
    stats = {GetEnablement().enabled,
             c.size,
             kBatchBytes / c.size,
             kThreadLimitBytes / c.size,
             0,
             newest != nullptr ? newest->bytes : 0,
             __atomic_load_n(&c.total, __ATOMIC_RELAXED),
             __atomic_load_n(&c.freeCount, __ATOMIC_RELAXED),
             __atomic_load_n(&c.lockEntries, __ATOMIC_RELAXED),
             __atomic_load_n(&c.moved, __ATOMIC_RELAXED),
             0};
    for (const BlockDescriptor* b = newest; b != nullptr; b = b->next)
        ++stats.blocks;
    const auto* table = s_slot != TLS_OUT_OF_INDEXES
                            ? static_cast<const ThreadTable*>(TlsGetValue(s_slot))
                            : nullptr;
    if (table != nullptr && table != kRetired)
        stats.threadFree = table->lists[(bytes - 1) / 8].count;
    return true;
}

uint32_t ParticleSizeOf(const void* pointer) {
    const auto* p = static_cast<const char*>(pointer);
    for (const ParticleClass& c : s_classes)
        for (const BlockDescriptor* b = __atomic_load_n(&c.blocks, __ATOMIC_ACQUIRE); b != nullptr;
             b = b->next)
            if (p >= b->data && p < b->data + b->bytes)
                return (p - b->data) % c.size == 0 ? c.size : 0;
    return 0;
}
