// The block layout behind UInt32Array and RefArray: the three-field header of
// a string block, then the elements. Not for callers of the array types.
#pragma once

#include <cstdint>

struct UInt32ArrayBlock {
    int32_t count;
    uint32_t capacity; // in elements
    uint32_t length;   // in elements
    uint32_t items[];  // capacity elements; the block has capacity * 4 + 16 bytes
};

struct RefArrayBlock {
    int32_t count;
    uint32_t capacity;
    uint32_t length;
    uint32_t reserved; // the elements start at the next multiple of 8
    void* items[];     // capacity owned references or nulls; capacity * 8 + 24 bytes
};

void DestroyCounted(UInt32ArrayBlock* block);

// How a RefArray links and unlinks its elements: the block does not know
// their type, the handle does.
struct RefElementOps {
    void (*link)(void* element);
    void (*unlink)(void* element);
};
