// Counted arrays with exact capacities: UInt32Array (32-bit values) and
// RefArray<T> (owned references to counted objects). Like Str, a block is
// shared by handles, changed in place only while one handle holds it, and
// replaced by a new block otherwise. New elements are zero (null).
#pragma once

#include <cstdint>

#include "private/arrayblock.h"
#include "reference.h"

// New blocks with count 1, exactly `capacity` zeroed elements and the given
// length. Capacity 0 gives null and allocates nothing; null also after
// reporting "Array allocation failed" (code 800) when memory runs out.
UInt32ArrayBlock* AllocUInt32Array(uint32_t capacity, uint32_t length);
RefArrayBlock* AllocRefArray(uint32_t capacity, uint32_t length);

// Replaces `block` by a new one of the given capacity and length; unless
// `discard`, the first min(old length, new length) elements are copied (a
// RefArray links each). The old block is unlinked. False when the allocation
// failed; `block` is then null.
bool ResizeArray(UInt32ArrayBlock*& block, uint32_t capacity, uint32_t length, bool discard);
bool ResizeArray(RefArrayBlock*& block, uint32_t capacity, uint32_t length, bool discard,
                 const RefElementOps& ops);

// Element `index` when it is below the length. Otherwise the slot just past
// the end, in an unshared block grown to exactly length + 1 when needed; a
// reference found there is unlinked and the slot is null. The length is left
// as it is: the caller stores the element and then sets it. A length that
// cannot grow, or a block that cannot be had, ends the process.
void** ArraySlot(RefArrayBlock*& block, uint32_t index, const RefElementOps& ops);
uint32_t* ArraySlot(UInt32ArrayBlock*& block, uint32_t index);

// Unlinks the block; at count zero every element is unlinked, then the block freed.
void ReleaseRefArray(RefArrayBlock* block, const RefElementOps& ops);

class UInt32Array {
  public:
    UInt32Array() = default;
    UInt32Array(const UInt32Array& other) : m_block(other.m_block) { Reference::Link(m_block); }
    UInt32Array(UInt32Array&& other) noexcept : m_block(other.m_block) { other.m_block = nullptr; }
    ~UInt32Array() { Reference::Unlink(m_block); }
    UInt32Array& operator=(const UInt32Array& other) {
        Reference::Link(other.m_block);
        Reference::Unlink(m_block);
        m_block = other.m_block;
        return *this;
    }
    UInt32Array& operator=(UInt32Array&& other) noexcept {
        if (this != &other) {
            Reference::Unlink(m_block);
            m_block = other.m_block;
            other.m_block = nullptr;
        }
        return *this;
    }

    uint32_t Length() const { return m_block ? m_block->length : 0; }
    uint32_t Capacity() const { return m_block ? m_block->capacity : 0; }
    uint32_t operator[](uint32_t index) const { return m_block->items[index]; }
    UInt32ArrayBlock* Block() const { return m_block; }

    bool Resize(uint32_t capacity, uint32_t length, bool discard = false) {
        return ResizeArray(m_block, capacity, length, discard);
    }
    uint32_t* Slot(uint32_t index) { return ArraySlot(m_block, index); }
    // Appends by the slot rule: the capacity grows to exactly what is needed.
    void Append(uint32_t value) {
        const uint32_t length = Length();
        *Slot(length) = value;
        m_block->length = length + 1;
    }

  private:
    UInt32ArrayBlock* m_block = nullptr;
};

template <class T> class RefArray {
  public:
    RefArray() = default;
    RefArray(const RefArray& other) : m_block(other.m_block) { Reference::Link(m_block); }
    RefArray(RefArray&& other) noexcept : m_block(other.m_block) { other.m_block = nullptr; }
    ~RefArray() { ReleaseRefArray(m_block, Ops()); }
    RefArray& operator=(const RefArray& other) {
        Reference::Link(other.m_block);
        ReleaseRefArray(m_block, Ops());
        m_block = other.m_block;
        return *this;
    }
    RefArray& operator=(RefArray&& other) noexcept {
        if (this != &other) {
            ReleaseRefArray(m_block, Ops());
            m_block = other.m_block;
            other.m_block = nullptr;
        }
        return *this;
    }

    uint32_t Length() const { return m_block ? m_block->length : 0; }
    uint32_t Capacity() const { return m_block ? m_block->capacity : 0; }
    T* operator[](uint32_t index) const { return static_cast<T*>(m_block->items[index]); }
    RefArrayBlock* Block() const { return m_block; }

    bool Resize(uint32_t capacity, uint32_t length, bool discard = false) {
        return ResizeArray(m_block, capacity, length, discard, Ops());
    }
    T** Slot(uint32_t index) { return reinterpret_cast<T**>(ArraySlot(m_block, index, Ops())); }
    // Appends a link to `element` (null allowed) by the slot rule.
    void Append(T* element) {
        const uint32_t length = Length();
        T** slot = Slot(length);
        Reference::Link(element);
        *slot = element;
        m_block->length = length + 1;
    }

    static const RefElementOps& Ops() {
        static constexpr RefElementOps ops = {
            [](void* element) { Reference::Link(static_cast<T*>(element)); },
            [](void* element) { Reference::Unlink(static_cast<T*>(element)); }};
        return ops;
    }

  private:
    RefArrayBlock* m_block = nullptr;
};
