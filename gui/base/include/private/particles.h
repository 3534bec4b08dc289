// Read-only figures of the particle allocator, for tests and benchmarks: what
// the allocator does is otherwise not visible from outside.
#pragma once

#include <cstdint>

struct ParticleStats {
    bool enabled;            // particle management is on
    uint32_t size;           // particle size of the class
    uint32_t batch;          // particles moved per lock entry
    uint32_t limit;          // a thread's list above this gives a batch back
    uint32_t blocks;         // blocks created for the class
    uint32_t lastBlockBytes; // data bytes of the newest block
    uint64_t total;          // particles created
    uint64_t sharedFree;     // particles in the shared chain
    uint64_t lockEntries;    // entries into the class lock
    uint64_t moved;          // particles moved between threads' lists and the shared chain
    uint32_t threadFree;     // on the calling thread's own list (0 without one)
};

// The class that serves `bytes` (1 to 1024); false for other sizes. The
// shared figures are exact only while no other thread moves particles.
bool GetParticleStats(uint32_t bytes, ParticleStats& stats);

// The particle size of the block holding `pointer`, or 0 when no block holds
// it or it is not where a particle starts.
uint32_t ParticleSizeOf(const void* pointer);
