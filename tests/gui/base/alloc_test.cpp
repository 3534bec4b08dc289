// Particle allocator: size classes, the environment switch and its trace line,
// batches and thread limits, block growth and its failure, the release stop,
// the thread-exit clean-ups and a multi-thread stress run with fixed seeds.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "alloc.h"
#include "private/particles.h"
#include "private/reportstate.h"
#include "private/seams.h"
#include "private/threadexit.h"
#include "trace.h"

namespace {

constexpr DWORD kSentinel = 0xDEADBEEF;

bool Enabled() {
    ParticleStats stats;
    return GetParticleStats(8, stats) && stats.enabled;
}

ParticleStats Stats(uint32_t bytes) {
    ParticleStats stats{};
    EXPECT_TRUE(GetParticleStats(bytes, stats));
    return stats;
}

// Runs `body` on a thread of its own (own table, own thread-exit list) to its end.
void OnNewThread(std::function<void()> body) {
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](void* context) -> DWORD {
            (*static_cast<std::function<void()>*>(context))();
            return 0;
        },
        &body, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
}

TEST(ParticleClasses, SizesUpTo1024AreParticlesOfTheirClassAndKeepTheLastError) {
    const struct {
        const char* name;
        size_t bytes;
        uint32_t particle; // 0: from the heap
    } rows[] = {{"one byte is the 8-byte class", 1, 8},
                {"17 bytes share the 24-byte class", 17, 24},
                {"20 bytes share it", 20, 24},
                {"24 bytes share it", 24, 24},
                {"25 bytes are the next class", 25, 32},
                {"1024 bytes are a particle", 1024, 1024},
                {"1025 bytes come from the heap", 1025, 0},
                {"0 bytes come from the heap", 0, 0}};
    for (const bool ownThread : {false, true})
        for (const auto& row : rows)
            OnNewThread([&] {
                SCOPED_TRACE(std::string(row.name) + (ownThread ? ", first use on a thread" : ""));
                if (!ownThread)
                    FreeParticle(8, AllocParticle(8)); // the table exists already
                SetLastError(kSentinel);
                void* p = AllocParticle(row.bytes);
                EXPECT_EQ(GetLastError(), kSentinel);
                ASSERT_NE(p, nullptr);
                memset(p, 0xA5, row.bytes);
                EXPECT_EQ(ParticleSizeOf(p), Enabled() ? row.particle : 0u);
                FreeParticle(row.bytes, p);
                EXPECT_EQ(GetLastError(), kSentinel);
                // A free particle's link is in its last 8 bytes; the rest stays as it was.
                for (size_t i = 0; Enabled() && i + 8 < row.particle && i < row.bytes; ++i)
                    ASSERT_EQ(static_cast<unsigned char*>(p)[i], 0xA5) << "byte " << i;
                FreeParticle(row.bytes, nullptr);
                EXPECT_EQ(GetLastError(), kSentinel);
            });
}

// Each value, set before the process starts, decides for the whole process.
TEST(ParticleEnablementDeathTest, AnyValueDisablesWithATraceLine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const wchar_t* const rows[] = {nullptr, L"0", L"off", L"true", L"1", L"yes"};
    wchar_t saved[64] = {};
    const bool wasSet = GetEnvironmentVariableW(L"PARTICLEREPLACEMENT", saved, 64) != 0;
    for (const wchar_t* value : rows) {
        SCOPED_TRACE(value ? testing::PrintToString(std::wstring(value)) : "unset");
        SetEnvironmentVariableW(L"PARTICLEREPLACEMENT", value);
        EXPECT_EXIT(
            {
                static std::string s_lines;
                SetTraceHook([](const char* line, uint32_t) { return s_lines += line, true; });
                GetThreadReportState()->headerFlagsOverride = true;
                GetThreadReportState()->headerFlags = 0x60;
                SetLastError(kSentinel);
                CheckParticleManagement();
                const bool kept = GetLastError() == kSentinel;
                void* p = AllocParticle(16);
                fprintf(stderr, "[%s] particle %d kept %d\n", s_lines.c_str(),
                        ParticleSizeOf(p) == 16, kept);
                exit(0);
            },
            testing::ExitedWithCode(0),
            value ? "\\[EE\\|gui.base.source.alloc\\|\\.\\.228: Particle Management disabled "
                    "\\(environment\\)\\] particle 0 kept 1"
                  : "\\[\\] particle 1 kept 1");
    }
    SetEnvironmentVariableW(L"PARTICLEREPLACEMENT", wasSet ? saved : nullptr);
}

TEST(ParticleBatches, OneBatchGoesBackWhenAThreadPassesItsLimit) {
    if (!Enabled())
        GTEST_SKIP() << "particle management is off";
    OnNewThread([] {
        const ParticleStats start = Stats(8);
        ASSERT_EQ(start.limit, 65536u);
        ASSERT_EQ(start.batch, 512u);
        std::vector<void*> held(65537);
        for (void*& p : held)
            p = AllocParticle(8);
        // 129 batches came in; the thread keeps what it did not hand out.
        EXPECT_EQ(Stats(8).threadFree, 129u * 512 - 65537);
        size_t next = 0;
        const struct {
            const char* name;
            uint32_t frees, threadFree;
            uint64_t movedBack, lockEntries;
        } rows[] = {{"up to the limit the thread keeps all", 65536 - 511, 65536, 0, 0},
                    {"one past it, exactly one batch moves", 1, 65536 - 511, 512, 1},
                    {"then it keeps them again", 511, 65536, 512, 1}};
        const ParticleStats before = Stats(8);
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            for (uint32_t i = 0; i < row.frees; ++i)
                FreeParticle(8, held[next++]);
            const ParticleStats now = Stats(8);
            EXPECT_EQ(now.threadFree, row.threadFree);
            EXPECT_EQ(now.sharedFree - before.sharedFree, row.movedBack);
            EXPECT_EQ(now.lockEntries - before.lockEntries, row.lockEntries);
        }
        while (next < held.size())
            FreeParticle(8, held[next++]);
    });
}

TEST(ParticleBlocks, DataDoublesEverySecondBlockUpTo1MiB) {
    if (!Enabled())
        GTEST_SKIP() << "particle management is off";
    const struct {
        uint32_t size, block, bytes;
    } rows[] = {{1024, 1, 16384},   {1024, 2, 16384},    {1024, 3, 32768},    {1024, 4, 32768},
                {1024, 12, 524288}, {1024, 13, 1048576}, {1024, 14, 1048576}, {1000, 3, 32000}};
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> seen; // (size, block) -> data bytes
    OnNewThread([&] {
        for (const uint32_t size : {1024u, 1000u})
            while (Stats(size).blocks < (size == 1024 ? 14u : 3u)) {
                AllocParticle(size); // held to the thread's end
                const ParticleStats stats = Stats(size);
                seen[{size, stats.blocks}] = stats.lastBlockBytes;
            }
    });
    for (const auto& row : rows)
        EXPECT_EQ(seen[std::make_pair(row.size, row.block)], row.bytes)
            << row.size << " block " << row.block;
}

// The 13th block wants 1 MiB; each failure halves it down to 16384 bytes.
void GrowUntilNoBlockDataAtAll() {
    while (Stats(1024).blocks < 12)
        AllocParticle(1024);
    static const AllocSeams seams = {nullptr, [](size_t bytes) {
                                         fprintf(stderr, "%zu ", bytes);
                                         return true;
                                     }};
    SetAllocSeamsForTesting(&seams);
    for (;;)
        AllocParticle(1024);
}

// One that fails only above 65536 bytes leaves the class with a smaller block.
void GrowWithBlockDataUpTo64KiB() {
    while (Stats(1024).blocks < 12)
        AllocParticle(1024);
    static const AllocSeams seams = {nullptr, [](size_t bytes) { return bytes > 65536; }};
    SetAllocSeamsForTesting(&seams);
    while (Stats(1024).blocks < 13)
        AllocParticle(1024);
    fprintf(stderr, "newest %u\n", Stats(1024).lastBlockBytes);
    exit(0);
}

TEST(ParticleBlocksDeathTest, FailedDataIsHalvedDownTo16384ThenFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    if (!Enabled())
        GTEST_SKIP() << "particle management is off";
    EXPECT_DEATH(GrowUntilNoBlockDataAtAll(),
                 "1048576 524288 262144 131072 65536 32768 16384 Could not allocate particle "
                 "block data \\(16384 bytes\\) for size 1024 bytes");
    EXPECT_EXIT(GrowWithBlockDataUpTo64KiB(), testing::ExitedWithCode(0), "newest 65536");
}

TEST(ParticleReleaseDeathTest, StoppedReleasesLeaveTheMemoryAlone) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    if (!Enabled())
        GTEST_SKIP() << "particle management is off";
    EXPECT_EXIT(
        {
            void* first = AllocParticle(40);
            FreeParticle(40, first);
            const bool reused = AllocParticle(40) == first;
            void* second = AllocParticle(40);
            StopParticleRelease();
            const uint32_t before = Stats(40).threadFree;
            memset(second, 0x5A, 40);
            FreeParticle(40, second);
            const bool untouched =
                Stats(40).threadFree == before && static_cast<unsigned char*>(second)[39] == 0x5A;
            fprintf(stderr, "reused %d untouched %d other %d\n", reused, untouched,
                    AllocParticle(40) != second);
            exit(0);
        },
        testing::ExitedWithCode(0), "reused 1 untouched 1 other 1");
}

// ---- Thread-exit clean-ups

std::vector<std::string> s_ran;
void Record(void* context) {
    s_ran.push_back(static_cast<const char*>(context));
}

TEST(ThreadExit, CleanUpsRunInKeyOrderWhenAThreadEnds) {
    const struct {
        const char* name;
        bool exitThread;
    } rows[] = {{"returning", false}, {"calling ExitThread", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        s_ran.clear();
        HANDLE thread = CreateThread(
            nullptr, 0,
            [](void* exitThread) -> DWORD {
                SetLastError(kSentinel);
                RegisterThreadExit(5, Record, const_cast<char*>("5"));
                RegisterThreadExit(-2000, Record, const_cast<char*>("-2000"));
                RegisterThreadExit(3, Record, const_cast<char*>("3a"));
                // One registered while the clean-ups run still runs, in key order.
                RegisterThreadExit(
                    3,
                    [](void*) {
                        Record(const_cast<char*>("3b"));
                        RegisterThreadExit(4, Record, const_cast<char*>("4 (late)"));
                    },
                    nullptr);
                Record(const_cast<char*>(GetLastError() == kSentinel ? "error kept" : "lost"));
                if (exitThread != nullptr)
                    ExitThread(0);
                return 0;
            },
            row.exitThread ? &s_ran : nullptr, 0, nullptr);
        ASSERT_NE(thread, nullptr);
        WaitForSingleObject(thread, INFINITE);
        CloseHandle(thread);
        EXPECT_EQ(testing::PrintToString(s_ran),
                  testing::PrintToString(std::vector<std::string>{"error kept", "-2000", "3a", "3b",
                                                                  "4 (late)", "5"}));
    }
}

// ---- Stress: every particle has one owner at a time, and only its owner writes it.

struct Owned {
    size_t bytes;
    unsigned char fill;
};
std::mutex s_ownersLock;
std::map<uintptr_t, Owned> s_owners;
std::vector<std::pair<void*, size_t>> s_mailbox; // handed to whichever thread takes them
std::string s_faults;

void Fault(const std::string& what) {
    if (s_faults.size() < 2000)
        s_faults += what + "\n";
}

// Called with s_ownersLock held.
void Take(void* p, size_t bytes, unsigned char fill) {
    const auto at = reinterpret_cast<uintptr_t>(p);
    auto next = s_owners.lower_bound(at);
    if (next != s_owners.end() && next->first < at + bytes)
        Fault("handed out while owned: " + std::to_string(at));
    if (next != s_owners.begin() && std::prev(next)->first + std::prev(next)->second.bytes > at)
        Fault("overlaps an owned block: " + std::to_string(at));
    const uint32_t particle = ParticleSizeOf(p);
    if (Enabled() && bytes <= 1024 && particle != (bytes + 7) / 8 * 8)
        Fault("not a particle of its class: " + std::to_string(bytes));
    s_owners[at] = {bytes, fill};
}

// Called with s_ownersLock held.
void Give(void* p) {
    const auto found = s_owners.find(reinterpret_cast<uintptr_t>(p));
    if (found == s_owners.end())
        return Fault("released without an owner");
    const auto* bytes = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < found->second.bytes; ++i)
        if (bytes[i] != found->second.fill)
            return Fault("written while owned, at byte " + std::to_string(i)),
                   s_owners.erase(found), void();
    s_owners.erase(found);
}

DWORD WINAPI StressThread(void* seed) {
    std::mt19937 random(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(seed)));
    std::vector<std::pair<void*, size_t>> mine;
    for (int step = 0; step < 30000; ++step) {
        const uint32_t action = random() % 8;
        if (action < 4 || mine.empty()) {
            const size_t bytes = random() % 12 == 0 ? 1025 + random() % 200 : 1 + random() % 1024;
            void* p = AllocParticle(bytes);
            const auto fill = static_cast<unsigned char>(random());
            std::lock_guard<std::mutex> lock(s_ownersLock);
            Take(p, bytes, fill);
            memset(p, fill, bytes);
            mine.push_back({p, bytes});
            continue;
        }
        std::pair<void*, size_t> block;
        {
            std::lock_guard<std::mutex> lock(s_ownersLock);
            const size_t at = random() % mine.size();
            if (action == 4) { // hand it over
                s_mailbox.push_back(mine[at]);
                mine[at] = mine.back();
                mine.pop_back();
                continue;
            }
            if (action == 5 && !s_mailbox.empty()) { // free another thread's
                block = s_mailbox.back();
                s_mailbox.pop_back();
            } else {
                block = mine[at];
                mine[at] = mine.back();
                mine.pop_back();
            }
            Give(block.first);
        }
        FreeParticle(block.second, block.first);
    }
    // Ends holding particles: they go to the mailbox for the main thread.
    std::lock_guard<std::mutex> lock(s_ownersLock);
    s_mailbox.insert(s_mailbox.end(), mine.begin(), mine.end());
    return 0;
}

// Particles of a class that are neither on a free list nor in the shared chain.
std::vector<int64_t> Outstanding() {
    std::vector<int64_t> outstanding;
    for (uint32_t size = 8; size <= 1024; size += 8) {
        const ParticleStats stats = Stats(size);
        outstanding.push_back(int64_t(stats.total) - int64_t(stats.sharedFree) -
                              int64_t(stats.threadFree));
    }
    return outstanding;
}

TEST(ParticleStress, FourThreadsOwnersNeverOverlapAndEndingThreadsStrandNothing) {
    const std::vector<int64_t> before = Outstanding();
    for (const uint32_t round : {1u, 2u}) {
        HANDLE threads[4];
        for (uint32_t i = 0; i < 4; ++i)
            threads[i] =
                CreateThread(nullptr, 0, StressThread,
                             reinterpret_cast<void*>(uintptr_t(round * 100 + i)), 0, nullptr);
        WaitForMultipleObjects(4, threads, TRUE, INFINITE);
        for (HANDLE thread : threads)
            CloseHandle(thread);
    }
    for (const auto& [p, bytes] : s_mailbox) {
        Give(p);
        FreeParticle(bytes, p);
    }
    s_mailbox.clear();
    EXPECT_EQ(s_faults, "");
    EXPECT_TRUE(s_owners.empty());
    if (Enabled()) {
        EXPECT_EQ(Outstanding(), before);
    }
}

} // namespace
