// The block layout behind Str and WStr, and the block-level operations the
// string types, arrays and tests build on. Not for callers of the string types.
//
// A block is {count, capacity, length, text..., 0}. Its byte size is always
// computed from the capacity (capacity + 16, or capacity * 2 + 16 for WStr).
// A length of 0 with a non-zero first unit means "not measured yet".
#pragma once

#include <cstdint>

#include "reference.h"

struct StrBlock {
    int32_t count;
    uint32_t capacity;
    uint32_t length;
    char text[]; // capacity + 1 units
};

struct WStrBlock {
    int32_t count;
    uint32_t capacity;
    uint32_t length;
    wchar_t text[]; // capacity + 1 units
};

void DestroyCounted(StrBlock* block);
void DestroyCounted(WStrBlock* block);

inline constexpr uint32_t kStrHeaderBytes = 12;

// Block storage. Both return null for a request of 0 and, after reporting
// "String allocation failed" with last error 14, when memory runs out.
StrBlock* AllocStrBuffer(uint32_t request, uint32_t length);
wchar_t* AllocWStrBuffer(uint32_t request, uint32_t length);
void FreeStrBuffer(StrBlock* block);
void ReleaseWStr(wchar_t* text);
uint64_t StrBlockBytes(const StrBlock* block);
uint64_t WStrBlockBytes(const WStrBlock* block);
inline WStrBlock* WStrBlockOf(const wchar_t* text) {
    return reinterpret_cast<WStrBlock*>(const_cast<char*>(reinterpret_cast<const char*>(text)) -
                                        kStrHeaderBytes);
}

const char* EmptyText();
WStrBlock* EmptyWStr();

// True (after reporting, last error 14) when length1 + length2 overflows 32 bits.
bool CheckWStrOverflow(uint32_t length1, uint32_t length2);
void ReportStrOverflow(uint32_t length1, uint32_t length2);
