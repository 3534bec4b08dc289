// Reference counting shared by every counted object of the base library.
// A counted object starts with a signed 32-bit count; it starts at 1 and is
// changed only atomically. A count that goes wrong ends the process.
#pragma once

#include <cstdint>

// Formats the message printf-style, hands it to the report destinations and
// standard error, and aborts. Never returns.
[[noreturn]] void FatalError(const char* format, ...) __attribute__((format(gnu_printf, 1, 2)));

namespace Reference {

template <class T> inline void Link(T* object) {
    if (object == nullptr)
        return;
    const int32_t count = __atomic_add_fetch(&object->count, 1, __ATOMIC_SEQ_CST);
    if (count < 2)
        FatalError("Reference::Link: %p: Invalid reference count (%d)", static_cast<void*>(object),
                   count);
}

// Destroys the object at count zero with destroy(object).
template <class T, class Destroy> inline void Unlink(T* object, Destroy destroy) {
    if (object == nullptr)
        return;
    const int32_t count = __atomic_sub_fetch(&object->count, 1, __ATOMIC_SEQ_CST);
    if (count > 0)
        return;
    if (count < 0)
        FatalError("Reference::Unlink: %p: Invalid reference count (%d)",
                   static_cast<void*>(object), count);
    destroy(object);
}

// Destroys the object at count zero through the DestroyCounted overload of its type.
template <class T> inline void Unlink(T* object) {
    Unlink(object, [](T* dead) { DestroyCounted(dead); });
}

template <class T> inline int32_t Count(const T* object) {
    return object == nullptr ? 0 : __atomic_load_n(&object->count, __ATOMIC_SEQ_CST);
}

} // namespace Reference
