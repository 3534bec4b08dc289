// The particle allocator behind every small block of the base library: up to
// 1024 bytes from per-thread free lists in 128 size classes of 8 bytes, larger
// requests from the process heap. The caller passes the size again on
// release, so blocks carry no header of their own. Every entry point keeps the
// caller's last error.
#pragma once

#include <cstddef>

// A particle of the size's class, or heap memory of that size; null only when
// the heap fails.
void* AllocParticle(size_t bytes);
// Returns the memory to the thread's list or the heap; null does nothing.
void FreeParticle(size_t bytes, void* pointer);

// Start-up check (from the library's process initialisation): builds the
// shared pool, this thread's table and the enablement, and writes a trace
// line when "PARTICLEREPLACEMENT" has switched particle management off.
void CheckParticleManagement();

// For the final phase of a process: from now on every release leaves the
// memory alone (threads may still be using what others free).
void StopParticleRelease();
