// Clocks shared by the benchmark programs.
#pragma once

#include <windows.h>

#include <cstdint>

inline double Seconds(const LARGE_INTEGER& from, const LARGE_INTEGER& to,
                      const LARGE_INTEGER& rate) {
    return static_cast<double>(to.QuadPart - from.QuadPart) / static_cast<double>(rate.QuadPart);
}

// The thread's user and kernel time: the machine may be busy with other work.
inline double CpuSeconds() {
    FILETIME created, exited, kernel, user;
    GetThreadTimes(GetCurrentThread(), &created, &exited, &kernel, &user);
    auto ticks = [](const FILETIME& t) {
        return static_cast<double>((static_cast<uint64_t>(t.dwHighDateTime) << 32) |
                                   t.dwLowDateTime);
    };
    return (ticks(kernel) + ticks(user)) / 1e7;
}
