// Test seams: the few places where a test replaces what it cannot drive for
// real (an allocation that fails on demand, a move the platform does not refuse
// at will, a message box nobody is there to answer).
//
// One convention for all of them: a facility's seams are one record of
// function pointers (and values), `<Facility>Seams`, installed for the whole
// process with `Set<Facility>SeamsForTesting(&record)`. A null record, or a
// null field, keeps the product's own behaviour; the record must outlive its
// installation. Fields are named after what they replace.
#pragma once

#include <windows.h>

#include <evntprov.h>

#include <cstddef>
#include <cstdint>

// Where a facility keeps its installed record.
template <class Seams> class SeamSlot {
  public:
    const Seams* Get() const { return __atomic_load_n(&m_active, __ATOMIC_ACQUIRE); }
    void Set(const Seams* seams) { __atomic_store_n(&m_active, seams, __ATOMIC_RELEASE); }
    // The installed replacement for a field, or the product's own.
    template <class F> F Pick(F Seams::*field, F product) const {
        const Seams* seams = Get();
        return seams != nullptr && seams->*field != nullptr ? seams->*field : product;
    }

  private:
    const Seams* m_active = nullptr;
};

// Allocation: failAllocation is consulted first of all by AllocParticle; true
// makes that allocation fail (last error 14). failBlockData is asked before the
// data of a new particle block is taken from the heap; true makes that fail.
struct AllocSeams {
    bool (*failAllocation)(size_t bytes);
    bool (*failBlockData)(size_t bytes);
};
void SetAllocSeamsForTesting(const AllocSeams* seams);

// File moves: the platform's MoveFileExW and MoveFileW as MoveFilePath uses them.
struct FileSeams {
    BOOL(WINAPI* moveFileEx)(LPCWSTR source, LPCWSTR destination, DWORD flags);
    BOOL(WINAPI* moveFile)(LPCWSTR source, LPCWSTR destination);
};
void SetFileSeamsForTesting(const FileSeams* seams);

// Reports: the message box itself (not its thread, wait or time-out).
struct ReportSeams {
    int (*messageBox)(const char* text, const char* caption, uint32_t style, bool* shift,
                      bool* control);
};
void SetReportSeamsForTesting(const ReportSeams* seams);

// Locks: the clock that times holdings (QueryPerformanceCounter and its frequency).
struct LockSeams {
    BOOL(WINAPI* queryPerformanceCounter)(LARGE_INTEGER* counter);
    BOOL(WINAPI* queryPerformanceFrequency)(LARGE_INTEGER* frequency);
};
void SetLockSeamsForTesting(const LockSeams* seams);

// The diagnostic event providers: registration (whose enable callback a test
// calls as a tracing session would) and the event write. Installed before the
// providers are first used.
struct DiagnosticSeams {
    ULONG(WINAPI* eventRegister)
    (LPCGUID provider, PENABLECALLBACK callback, PVOID context, PREGHANDLE handle);
    ULONG(WINAPI* eventWriteTransfer)
    (REGHANDLE handle, PCEVENT_DESCRIPTOR descriptor, LPCGUID activity, LPCGUID related,
     ULONG count, PEVENT_DATA_DESCRIPTOR data);
};
void SetDiagnosticSeamsForTesting(const DiagnosticSeams* seams);
