// Counted arrays: exact capacities and block sizes, zeroed elements, the slot
// past the end of full and shared arrays, references linked and unlinked,
// the allocation report and the two fatal ends.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "alloc.h"
#include "array.h"
#include "private/seams.h"
#include "report.h"
#include "trace.h"

namespace {

struct NoReportBoxes : testing::Environment {
    void SetUp() override { SetInteractionAllowed(false, false); }
};
const testing::Environment* const s_noBoxes = testing::AddGlobalTestEnvironment(new NoReportBoxes);

// Records the byte counts asked of the allocator; fails those of exactly
// `failAt` bytes, and all from 1 MiB up. (No string of a report has either size.)
struct AllocSpy {
    static inline std::vector<size_t> asked;
    static inline size_t failAt;
    explicit AllocSpy(size_t limit = SIZE_MAX) {
        asked.clear();
        failAt = limit;
        static const AllocSeams seams = {[](size_t bytes) {
                                             asked.push_back(bytes);
                                             return bytes == failAt || bytes >= (1u << 20);
                                         },
                                         nullptr};
        SetAllocSeamsForTesting(&seams);
    }
    ~AllocSpy() { SetAllocSeamsForTesting(nullptr); }
};

std::string s_reports;
bool CollectLine(const char* line, uint32_t) {
    s_reports += line + std::string("\n");
    return true;
}

// A counted object that notes its end.
struct Item {
    int32_t count = 1;
    int* destroyed;
};
void DestroyCounted(Item* item) {
    ++*item->destroyed;
}

TEST(ArrayAlloc, ExactCapacityBlockSizeZeroedAndNothingForZero) {
    const struct {
        const char* name;
        bool ref;
        uint32_t capacity, length;
        std::vector<size_t> asked;
    } rows[] = {{"capacity 0 allocates nothing", false, 0, 0, {}},
                {"reference capacity 0 allocates nothing", true, 0, 3, {}},
                {"one value: 1 * 4 + 16 bytes", false, 1, 0, {20}},
                {"five values: 5 * 4 + 16 bytes", false, 5, 2, {36}},
                {"one reference: 1 * 8 + 24 bytes", true, 1, 1, {32}},
                {"five references: 5 * 8 + 24 bytes", true, 5, 0, {64}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        // A particle of the same class left dirty, which the array may well reuse.
        for (size_t bytes : row.asked)
            FreeParticle(bytes, memset(AllocParticle(bytes), 0xEE, bytes));
        AllocSpy spy;
        void* block = row.ref ? static_cast<void*>(AllocRefArray(row.capacity, row.length))
                              : static_cast<void*>(AllocUInt32Array(row.capacity, row.length));
        EXPECT_EQ(AllocSpy::asked, row.asked);
        EXPECT_EQ(block == nullptr, row.capacity == 0);
        if (block == nullptr)
            continue;
        auto* header = static_cast<UInt32ArrayBlock*>(block);
        EXPECT_EQ(header->count, 1);
        EXPECT_EQ(header->capacity, row.capacity);
        EXPECT_EQ(header->length, row.length);
        const auto* bytes = static_cast<const unsigned char*>(block);
        const size_t first = row.ref ? 16 : 12, end = row.asked[0] - (row.ref ? 8 : 4);
        for (size_t i = first; i < end; ++i)
            ASSERT_EQ(bytes[i], 0) << "byte " << i;
        if (row.ref)
            ReleaseRefArray(static_cast<RefArrayBlock*>(block), RefArray<Item>::Ops());
        else
            Reference::Unlink(static_cast<UInt32ArrayBlock*>(block));
    }
}

TEST(ArrayAlloc, FailureReports800WithTheCapacityAsSizeBytes) {
    const struct {
        bool ref;
        uint32_t capacity, length;
    } rows[] = {{false, 10, 3}, {true, 10, 0}, {false, 0xFFFFFFFFu, 7}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.ref << " " << row.capacity);
        s_reports.clear();
        SetTraceHook(CollectLine);
        void* block;
        {
            AllocSpy spy(row.ref ? 104 : 56);
            SetLastError(0);
            block = row.ref ? static_cast<void*>(AllocRefArray(row.capacity, row.length))
                            : static_cast<void*>(AllocUInt32Array(row.capacity, row.length));
            EXPECT_EQ(GetLastError(), 14u);
        }
        SetTraceHook(nullptr);
        EXPECT_EQ(block, nullptr);
        for (const std::string& text : {std::string("QELGUI-00800: Array allocation failed"),
                                        "size_bytes: " + std::to_string(row.capacity),
                                        "length: " + std::to_string(row.length)})
            EXPECT_NE(s_reports.find(text), std::string::npos) << text << " not in\n" << s_reports;
    }
}

TEST(ArraySlot, PastTheEndOfFullSharedAndRoomyArrays) {
    const struct {
        const char* name;
        uint32_t capacity;
        bool shared;
        bool newBlock;
    } rows[] = {{"full and unshared: a block of exactly one more", 5, false, true},
                {"shared: the other holder keeps its block", 8, true, true},
                {"room and unshared: in place", 8, false, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        int destroyed = 0;
        Item items[6] = {{1, &destroyed}, {1, &destroyed}, {1, &destroyed},
                         {1, &destroyed}, {1, &destroyed}, {1, &destroyed}};
        UInt32Array values;
        RefArray<Item> refs;
        ASSERT_TRUE(values.Resize(row.capacity, 0) && refs.Resize(row.capacity, 0));
        for (uint32_t i = 0; i < 5; ++i) {
            values.Append(100 + i);
            refs.Append(&items[i]);
        }
        // A stale reference past the length is unlinked when its slot is handed out.
        if (row.capacity > 5) {
            refs.Block()->items[5] = &items[5];
            Reference::Link(&items[5]);
        }
        const UInt32Array otherValues = row.shared ? values : UInt32Array();
        const RefArray<Item> otherRefs = row.shared ? refs : RefArray<Item>();
        UInt32ArrayBlock* oldValues = values.Block();
        RefArrayBlock* oldRefs = refs.Block();
        EXPECT_EQ(values.Slot(2), &oldValues->items[2]); // below the length: the element itself
        uint32_t* value = values.Slot(7);
        Item** ref = refs.Slot(5);
        EXPECT_EQ(values.Block() != oldValues, row.newBlock);
        EXPECT_EQ(refs.Block() != oldRefs, row.newBlock);
        EXPECT_EQ(values.Capacity(), row.newBlock ? 6u : row.capacity);
        EXPECT_EQ(refs.Capacity(), row.newBlock ? 6u : row.capacity);
        EXPECT_EQ(values.Length(), 5u);
        EXPECT_EQ(refs.Length(), 5u);
        EXPECT_EQ(value, &values.Block()->items[5]);
        EXPECT_EQ(*value, 0u);
        EXPECT_EQ(*ref, nullptr);
        EXPECT_EQ(items[5].count, row.shared ? 2 : 1); // the shared block still holds it
        for (uint32_t i = 0; i < 5; ++i) {
            EXPECT_EQ(values[i], 100 + i);
            EXPECT_EQ(refs[i], &items[i]);
            EXPECT_EQ(items[i].count, row.shared ? 3 : 2); // copies are linked
        }
        if (row.shared) {
            EXPECT_EQ(otherValues.Block(), oldValues);
            EXPECT_EQ(otherRefs.Block(), oldRefs);
            EXPECT_EQ(otherValues.Capacity(), 8u);
            EXPECT_EQ(otherRefs[4], &items[4]);
        }
    }
}

TEST(RefArrayLife, ResizeLinksCopiesAndTheLastHolderUnlinksEveryElement) {
    int destroyed = 0;
    Item items[4] = {{1, &destroyed}, {1, &destroyed}, {1, &destroyed}, {1, &destroyed}};
    {
        RefArray<Item> refs;
        for (Item& item : items) {
            refs.Append(&item);
            Reference::Unlink(&item); // the array holds the only link
        }
        refs.Block()->length = 2; // elements past the length stay owned
        RefArray<Item> kept = refs;
        ASSERT_TRUE(refs.Resize(3, 3));
        EXPECT_EQ(refs[1], &items[1]);
        EXPECT_EQ(refs[2], nullptr); // only min(old length, new length) is copied
        EXPECT_EQ(items[0].count, 2);
        EXPECT_EQ(items[3].count, 1);
        ASSERT_TRUE(kept.Resize(4, 4, true));
        EXPECT_EQ(kept[0], nullptr); // discarded
        EXPECT_EQ(items[0].count, 1);
        EXPECT_EQ(destroyed, 2); // the old block's last holder unlinked all four
    }
    for (const Item& item : items)
        EXPECT_EQ(item.count, 0);
    EXPECT_EQ(destroyed, 4);
}

void OverflowTheLength() {
    SetTraceHook([](const char* line, uint32_t) { return fprintf(stderr, "%s|", line), true; });
    UInt32Array values;
    values.Append(1);
    values.Block()->length = 0xFFFFFFFFu;
    values.Slot(0xFFFFFFFFu);
}

void GrowWithoutMemory() {
    SetTraceHook([](const char* line, uint32_t) { return fprintf(stderr, "%s|", line), true; });
    RefArray<Item> refs;
    static const AllocSeams seams = {[](size_t bytes) { return bytes == 32; }, nullptr};
    SetAllocSeamsForTesting(&seams);
    refs.Slot(0);
}

TEST(ArraySlotDeathTest, OverflowAndFailedGrowthEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(OverflowTheLength(), "QELGUI-00801: Array overflow detected.*length1: "
                                      "4294967295.*length2: 1.*UInt32 overflow");
    EXPECT_DEATH(GrowWithoutMemory(),
                 "QELGUI-00800: Array allocation failed.*size_bytes: 1.*Could not allocate array");
}

} // namespace
