// Scoped owners for Win32 resources. Each release keeps the thread's last
// error, so a clean-up on the way out never hides the error being returned.
#pragma once

#include <windows.h>

#include <utility>

// Traits: Type, Invalid() and Release(value).
template <class Traits> class UniqueAny {
  public:
    using T = typename Traits::Type;
    UniqueAny() = default;
    explicit UniqueAny(T value) : m_value(value) {}
    ~UniqueAny() { Reset(); }
    UniqueAny(const UniqueAny&) = delete;
    UniqueAny& operator=(const UniqueAny&) = delete;
    UniqueAny(UniqueAny&& other) noexcept
        : m_value(std::exchange(other.m_value, Traits::Invalid())) {}
    UniqueAny& operator=(UniqueAny&& other) noexcept {
        if (this != &other)
            Reset(std::exchange(other.m_value, Traits::Invalid()));
        return *this;
    }

    T Get() const { return m_value; }
    T* Put() {
        Reset();
        return &m_value;
    }
    bool Valid() const { return m_value != Traits::Invalid(); }
    explicit operator bool() const { return Valid(); }
    T Detach() { return std::exchange(m_value, Traits::Invalid()); }
    void Reset(T value = Traits::Invalid()) {
        if (m_value != Traits::Invalid()) {
            const DWORD error = GetLastError();
            Traits::Release(m_value);
            SetLastError(error);
        }
        m_value = value;
    }

  private:
    T m_value = Traits::Invalid();
};

#define KVT_HANDLE_TRAITS(name, type, invalid, release)                                            \
    struct name {                                                                                  \
        using Type = type;                                                                         \
        static Type Invalid() { return invalid; }                                                  \
        static void Release(Type value) { release(value); }                                        \
    }

namespace handles_detail {
KVT_HANDLE_TRAITS(KernelHandle, HANDLE, nullptr, CloseHandle);
KVT_HANDLE_TRAITS(FileHandle, HANDLE, INVALID_HANDLE_VALUE, CloseHandle);
KVT_HANDLE_TRAITS(FindHandle, HANDLE, INVALID_HANDLE_VALUE, FindClose);
KVT_HANDLE_TRAITS(ServiceHandle, SC_HANDLE, nullptr, CloseServiceHandle);
KVT_HANDLE_TRAITS(LocalBlock, HLOCAL, nullptr, LocalFree);
KVT_HANDLE_TRAITS(SidBlock, PSID, nullptr, FreeSid);
} // namespace handles_detail

// A kernel handle whose invalid value is null (events, processes, threads, mappings).
using UniqueHandle = UniqueAny<handles_detail::KernelHandle>;
// A file handle, invalid as INVALID_HANDLE_VALUE.
using UniqueFile = UniqueAny<handles_detail::FileHandle>;
using UniqueFind = UniqueAny<handles_detail::FindHandle>;
using UniqueServiceHandle = UniqueAny<handles_detail::ServiceHandle>;
using UniqueLocal = UniqueAny<handles_detail::LocalBlock>;
using UniqueSid = UniqueAny<handles_detail::SidBlock>;
