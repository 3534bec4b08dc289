// Scoped owners for Win32 resources, and the keeper of the thread's last error
// that every release, report and hook uses, so that a clean-up on the way out
// never hides the error being returned.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>
#include <utility>

// Keeps the thread's last error across a scope.
class LastErrorKeeper {
  public:
    LastErrorKeeper() : m_error(GetLastError()) {}
    ~LastErrorKeeper() { SetLastError(m_error); }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;
    DWORD Saved() const { return m_error; }

  private:
    DWORD m_error;
};

// Owns one value of a handle-like type. Null and all ones (INVALID_HANDLE_VALUE)
// both mean "nothing owned": the platform uses either for a failed open.
// Traits: Type and Release(value).
template <class Traits> class UniqueAny {
  public:
    using T = typename Traits::Type;
    UniqueAny() = default;
    explicit UniqueAny(T value) : m_value(value) {}
    ~UniqueAny() { Reset(); }
    UniqueAny(const UniqueAny&) = delete;
    UniqueAny& operator=(const UniqueAny&) = delete;
    UniqueAny(UniqueAny&& other) noexcept : m_value(other.Detach()) {}
    UniqueAny& operator=(UniqueAny&& other) noexcept {
        if (this != &other)
            Reset(other.Detach());
        return *this;
    }

    T Get() const { return m_value; }
    T* Put() {
        Reset();
        return &m_value;
    }
    static bool IsValid(T value) {
        const auto bits = reinterpret_cast<intptr_t>(value);
        return bits != 0 && bits != -1;
    }
    bool Valid() const { return IsValid(m_value); }
    explicit operator bool() const { return Valid(); }
    T Detach() { return std::exchange(m_value, T()); }
    void Reset(T value = T()) {
        if (IsValid(m_value)) {
            LastErrorKeeper keep;
            Traits::Release(m_value);
        }
        m_value = value;
    }

  private:
    T m_value = T();
};

#define KVT_HANDLE_TRAITS(name, type, release)                                                     \
    struct name {                                                                                  \
        using Type = type;                                                                         \
        static void Release(Type value) { release(value); }                                        \
    }

namespace handles_detail {
inline void CloseStore(HCERTSTORE store) {
    CertCloseStore(store, 0);
}
KVT_HANDLE_TRAITS(KernelHandle, HANDLE, CloseHandle);
KVT_HANDLE_TRAITS(FindHandle, HANDLE, FindClose);
KVT_HANDLE_TRAITS(ServiceHandle, SC_HANDLE, CloseServiceHandle);
KVT_HANDLE_TRAITS(LocalBlock, HLOCAL, LocalFree);
KVT_HANDLE_TRAITS(SidBlock, PSID, FreeSid);
KVT_HANDLE_TRAITS(CertificateContext, PCCERT_CONTEXT, CertFreeCertificateContext);
KVT_HANDLE_TRAITS(CertificateStore, HCERTSTORE, CloseStore);
} // namespace handles_detail

// Kernel objects and files: events, processes, threads, mappings, pipes, files.
using UniqueHandle = UniqueAny<handles_detail::KernelHandle>;
using UniqueFind = UniqueAny<handles_detail::FindHandle>;
using UniqueServiceHandle = UniqueAny<handles_detail::ServiceHandle>;
using UniqueLocal = UniqueAny<handles_detail::LocalBlock>;
using UniqueSid = UniqueAny<handles_detail::SidBlock>;
using UniqueCertificate = UniqueAny<handles_detail::CertificateContext>;
using UniqueCertStore = UniqueAny<handles_detail::CertificateStore>;
