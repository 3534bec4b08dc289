// The base library's thread-exit notification: every thread keeps a list of
// clean-ups (its ThreadExitData) that run, lowest key first, when the thread
// ends normally (returns from its start routine or calls ExitThread).
// Nothing runs at process exit or for a terminated thread.
#pragma once

#include <cstdint>

using ThreadExitFunction = void (*)(void* context);

// Order keys of the library's own clean-ups.
inline constexpr int32_t kThreadExitParticles = -1006;

// Adds a clean-up for the calling thread; equal keys run in the order they
// were added. False (nothing added) when no memory or TLS slot could be had.
// Keeps the caller's last error. Never allocates particles, so the allocator
// can register from inside its own first allocation.
bool RegisterThreadExit(int32_t key, ThreadExitFunction function, void* context);
