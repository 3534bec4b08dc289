// Entering and leaving a guard whose body does not fault, beside the same body
// called plainly. Row ratio = plain time / guarded time (below 1: the guard's cost).
// Run by hand: <builddir>/wine-run <builddir>/bench/guard_bench.exe
#include <windows.h>

#include "benchrounds.h"
#include "private/system.h"

namespace {

constexpr uint64_t kCalls = 2000000;
volatile uint64_t s_counter;

__attribute__((noinline)) void Body(void* step) {
    s_counter = s_counter + reinterpret_cast<uintptr_t>(step);
}

} // namespace

int main() {
    void (*volatile body)(void*) = Body; // not inlined into the plain loop
    const std::vector<Contender> contenders = {
        {"guarded (RunGuarded)",
         [&] {
             return NsPerItem(kCalls, 1, [&] {
                 return RunGuarded("bench", ExceptionFilter, body, reinterpret_cast<void*>(1)) ? 1u
                                                                                               : 0u;
             });
         }},
        {"plain call",
         [&] {
             return NsPerItem(kCalls, 1, [&] { return body(reinterpret_cast<void*>(1)), 1u; });
         }},
    };
    RunRow("call that does not fault", contenders, 9);
    return 0;
}
