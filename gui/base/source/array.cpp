// Counted arrays: exact capacities, zeroed elements, the slot rule for appending.
#include "array.h"

#include <windows.h>

#include <cstring>

#include "alloc.h"
#include "report.h"

namespace {

const char kSourceFile[] = "gui\\base\\source\\array";

uint64_t UInt32ArrayBytes(uint32_t capacity) {
    return static_cast<uint64_t>(capacity) * 4 + 16;
}

uint64_t RefArrayBytes(uint32_t capacity) {
    return static_cast<uint64_t>(capacity) * 8 + 24;
}

// "size_bytes" carries the capacity in elements, not bytes: readers of the
// report know it so.
void ReportAllocationFailure(uint32_t line, uint32_t capacity, uint32_t length) {
    const EventValue values[] = {
        {"size_bytes", StrFormat("%u", capacity), true},
        {"length", StrFormat("%u", length), true},
    };
    ReportLibraryError(kSourceFile, line, 800, "Array allocation failed", values, 2);
}

[[noreturn]] void OverflowIsFatal(uint32_t length) {
    const EventValue values[] = {
        {"length1", StrFormat("%u", length), true},
        {"length2", StrFormat("%u", 1u), true},
    };
    ReportLibraryError(kSourceFile, __LINE__, 801, "Array overflow detected", values, 2);
    FatalError("UInt32 overflow");
}

// A zeroed block with its header set; null after the report when memory runs out.
void* AllocZeroed(uint64_t bytes, uint32_t line, uint32_t capacity, uint32_t length) {
    if (capacity == 0)
        return nullptr;
    void* block = AllocParticle(bytes);
    if (block == nullptr) {
        ReportAllocationFailure(line, capacity, length);
        SetLastError(ERROR_OUTOFMEMORY);
        return nullptr;
    }
    memset(block, 0, bytes);
    auto* header = static_cast<UInt32ArrayBlock*>(block); // both kinds share it
    header->count = 1;
    header->capacity = capacity;
    header->length = length;
    return block;
}

uint32_t Smallest(uint32_t a, uint32_t b, uint32_t c) {
    const uint32_t ab = a < b ? a : b;
    return ab < c ? ab : c;
}

// Whether the block can take its slot past the end without being replaced.
template <class Block> bool HasRoomPastEnd(const Block* block, uint32_t length) {
    return block != nullptr && Reference::Count(block) < 2 && block->capacity > length;
}

} // namespace

UInt32ArrayBlock* AllocUInt32Array(uint32_t capacity, uint32_t length) {
    return static_cast<UInt32ArrayBlock*>(
        AllocZeroed(UInt32ArrayBytes(capacity), __LINE__, capacity, length));
}

RefArrayBlock* AllocRefArray(uint32_t capacity, uint32_t length) {
    return static_cast<RefArrayBlock*>(
        AllocZeroed(RefArrayBytes(capacity), __LINE__, capacity, length));
}

void DestroyCounted(UInt32ArrayBlock* block) {
    FreeParticle(UInt32ArrayBytes(block->capacity), block);
}

void ReleaseRefArray(RefArrayBlock* block, const RefElementOps& ops) {
    Reference::Unlink(block, [&ops](RefArrayBlock* dead) {
        for (uint32_t i = 0; i < dead->capacity; ++i)
            if (void* element = dead->items[i]) {
                dead->items[i] = nullptr;
                ops.unlink(element);
            }
        FreeParticle(RefArrayBytes(dead->capacity), dead);
    });
}

bool ResizeArray(UInt32ArrayBlock*& block, uint32_t capacity, uint32_t length, bool discard) {
    UInt32ArrayBlock* fresh = AllocUInt32Array(capacity, length);
    if (fresh != nullptr && block != nullptr && !discard)
        memcpy(fresh->items, block->items,
               Smallest(block->length, length, capacity) * sizeof(uint32_t));
    Reference::Unlink(block);
    block = fresh;
    return fresh != nullptr || capacity == 0;
}

bool ResizeArray(RefArrayBlock*& block, uint32_t capacity, uint32_t length, bool discard,
                 const RefElementOps& ops) {
    RefArrayBlock* fresh = AllocRefArray(capacity, length);
    if (fresh != nullptr && block != nullptr && !discard) {
        const uint32_t copied = Smallest(block->length, length, capacity);
        for (uint32_t i = 0; i < copied; ++i)
            if (void* element = block->items[i]) {
                ops.link(element);
                fresh->items[i] = element;
            }
    }
    ReleaseRefArray(block, ops);
    block = fresh;
    return fresh != nullptr || capacity == 0;
}

void** ArraySlot(RefArrayBlock*& block, uint32_t index, const RefElementOps& ops) {
    const uint32_t length = block != nullptr ? block->length : 0;
    if (index < length)
        return &block->items[index];
    if (length == 0xFFFFFFFFu)
        OverflowIsFatal(length);
    if (!HasRoomPastEnd(block, length) && !ResizeArray(block, length + 1, length, false, ops))
        FatalError("Could not allocate array");
    void* old = block->items[length];
    block->items[length] = nullptr;
    if (old != nullptr)
        ops.unlink(old);
    return &block->items[length];
}

uint32_t* ArraySlot(UInt32ArrayBlock*& block, uint32_t index) {
    const uint32_t length = block != nullptr ? block->length : 0;
    if (index < length)
        return &block->items[index];
    if (length == 0xFFFFFFFFu)
        OverflowIsFatal(length);
    if (!HasRoomPastEnd(block, length) && !ResizeArray(block, length + 1, length, false))
        FatalError("Could not allocate array");
    block->items[length] = 0;
    return &block->items[length];
}
