// Counted strings: capacity rounding, sharing and in-place growth, overflow and
// allocation-failure reports, the UTF-8/UTF-16 conversions (checked against the
// platform's own converters), comparisons, upper-casing, formatting and the
// reference-count discipline.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "alloc.h"
#include "report.h"
#include "str.h"
#include "testsupport.h"
#include "trace.h"

namespace {

// Reports in this program must not wait on message boxes.
class NoReportBoxes : public testing::Environment {
  public:
    void SetUp() override { SetInteractionAllowed(false, false); }
};
const testing::Environment* const s_noBoxes = testing::AddGlobalTestEnvironment(new NoReportBoxes);

constexpr DWORD kSentinel = 0xDEADBEEF;
constexpr uint32_t kTerminated = 0xFFFFFFFFu;

std::string Hex(const void* data, size_t size) {
    std::string out;
    char buffer[4];
    for (size_t i = 0; i < size; ++i) {
        snprintf(buffer, sizeof buffer, "%02X", static_cast<const unsigned char*>(data)[i]);
        out += (i ? " " : "") + std::string(buffer);
    }
    return out;
}
std::string Hex(const std::string& s) {
    return Hex(s.data(), s.size());
}
std::string Hex(const std::wstring& s) {
    std::string out;
    char buffer[8];
    for (size_t i = 0; i < s.size(); ++i) {
        snprintf(buffer, sizeof buffer, "%04X", static_cast<unsigned>(static_cast<uint16_t>(s[i])));
        out += (i ? " " : "") + std::string(buffer);
    }
    return out;
}

// ---------------------------------------------------------------------------
// Report lines, captured through the trace sink's hook.

std::vector<std::string>* s_capturedLines = nullptr;

bool CaptureLine(const char* line, uint32_t) {
    if (s_capturedLines != nullptr)
        s_capturedLines->push_back(line);
    return true;
}

class ReportCapture {
  public:
    ReportCapture() {
        s_capturedLines = &m_lines;
        SetTraceHook(CaptureLine);
    }
    ~ReportCapture() {
        SetTraceHook(nullptr);
        s_capturedLines = nullptr;
    }
    ReportCapture(const ReportCapture&) = delete;
    ReportCapture& operator=(const ReportCapture&) = delete;

    bool Contains(const std::string& text) const {
        for (const std::string& line : m_lines)
            if (line.find(text) != std::string::npos)
                return true;
        return false;
    }
    size_t Count(const std::string& text) const {
        size_t n = 0;
        for (const std::string& line : m_lines)
            n += line.find(text) != std::string::npos;
        return n;
    }
    std::string All() const {
        std::string out;
        for (const std::string& line : m_lines)
            out += line + "\n";
        return out;
    }
    size_t Size() const { return m_lines.size(); }
    // A named value on some line: the name, then the value behind it.
    bool ContainsField(const std::string& name, const std::string& value) const {
        for (const std::string& line : m_lines) {
            const size_t at = line.find(name);
            if (at != std::string::npos && line.find(value, at + name.size()) != std::string::npos)
                return true;
        }
        return false;
    }

  private:
    std::vector<std::string> m_lines;
};

// ---------------------------------------------------------------------------
// The allocation seam: requests of at least `threshold` bytes fail and are
// recorded, so capacities of multi-gigabyte requests are seen without memory.

struct AllocSpyState {
    size_t threshold = 0;
    size_t lastFailedBytes = 0;
    uint32_t failedCalls = 0;
    uint32_t calls = 0;
};
AllocSpyState s_spy;

bool SpyHook(size_t bytes) {
    ++s_spy.calls;
    if (bytes < s_spy.threshold)
        return false;
    s_spy.lastFailedBytes = bytes;
    ++s_spy.failedCalls;
    return true;
}

class AllocSpy {
  public:
    explicit AllocSpy(size_t threshold = size_t(1) << 31) {
        s_spy = AllocSpyState{};
        s_spy.threshold = threshold;
        SetAllocFailureHook(SpyHook);
    }
    ~AllocSpy() { SetAllocFailureHook(nullptr); }
    AllocSpy(const AllocSpy&) = delete;
    AllocSpy& operator=(const AllocSpy&) = delete;
    const AllocSpyState& State() const { return s_spy; }
};

// ---------------------------------------------------------------------------
// Capacity rounding

uint32_t StrCapacityFor(uint32_t request) {
    StrBlock* block = AllocStrBuffer(request, 0);
    if (block == nullptr)
        return 0;
    EXPECT_EQ(block->count, 1);
    EXPECT_EQ(block->length, 0u);
    EXPECT_EQ(block->text[0], 0);
    const uint32_t capacity = block->capacity;
    FreeStrBuffer(block);
    return capacity;
}

uint32_t WStrCapacityFor(uint32_t request) {
    wchar_t* text = AllocWStrBuffer(request, 0);
    if (text == nullptr)
        return 0;
    const uint32_t capacity = WStrBlockOf(text)->capacity;
    EXPECT_EQ(WStrBlockOf(text)->count, 1);
    EXPECT_EQ(text[0], 0);
    ReleaseWStr(text);
    return capacity;
}

TEST(StrCapacity, RequestsRoundToSizeClasses) {
    struct Case {
        uint32_t first, last, capacity;
    };
    const Case cases[] = {
        {1, 8, 11},         {9, 16, 19},        {17, 24, 27},       {97, 104, 107},
        {1001, 1008, 1011}, {1009, 1016, 1027}, {1017, 1024, 1043}, {1025, 1032, 1043},
        {1033, 1048, 1059}, {1049, 1064, 1075}, {4089, 4104, 4115},
    };
    for (const Case& c : cases)
        for (uint32_t n = c.first; n <= c.last; ++n)
            EXPECT_EQ(StrCapacityFor(n), c.capacity) << "request " << n;
}

TEST(StrCapacity, BlockSizesStayInTheirClassesUpTo8K) {
    // A block (capacity + 16 bytes) sits 5 bytes below the top of an 8-byte
    // class, or of a 16-byte class once it passes 1024 bytes; capacities never
    // shrink as requests grow.
    uint32_t previous = 0;
    for (uint32_t n = 1; n <= 8192; ++n) {
        const uint32_t capacity = StrCapacityFor(n);
        ASSERT_GE(capacity, n);
        ASSERT_GE(capacity, previous) << "request " << n;
        const uint32_t r = capacity - 3 + 16; // the rounded request r: block = r + 3
        ASSERT_EQ(r % (r > 1024 ? 16 : 8), 0u) << "request " << n << " capacity " << capacity;
        ASSERT_LT(capacity - n, r > 1024 ? 27u : 11u) << "request " << n;
        previous = capacity;
    }
}

TEST(StrCapacity, WStrRequestsRoundToSizeClasses) {
    struct Case {
        uint32_t first, last, capacity;
    };
    const Case cases[] = {
        {1, 4, 5},       {5, 8, 9},       {9, 12, 13},     {497, 500, 501},
        {501, 504, 505}, {505, 508, 513}, {509, 516, 521},
    };
    for (const Case& c : cases)
        for (uint32_t n = c.first; n <= c.last; ++n)
            EXPECT_EQ(WStrCapacityFor(n), c.capacity) << "request " << n;
}

TEST(StrCapacity, RequestZeroAllocatesNothing) {
    AllocSpy spy(0); // any allocation would fail and be counted
    EXPECT_EQ(AllocStrBuffer(0, 0), nullptr);
    EXPECT_EQ(AllocWStrBuffer(0, 0), nullptr);
    EXPECT_EQ(spy.State().calls, 0u);
}

TEST(StrCapacity, HugeRequestsAndTheirFailureReports) {
    // Capacities near 4 GiB computed without memory: the allocation is made to
    // fail, and the byte count it asked for (capacity + 16, or capacity * 2 + 16)
    // shows the capacity. Where rounding would pass 0xFFFFFFFF, capacity = n.
    struct Case {
        bool wide;
        uint32_t request;
        uint64_t capacity;
    };
    const Case cases[] = {
        {false, 0xFFFFFFD8u, 0xFFFFFFE3u}, {false, 0xFFFFFFE0u, 0xFFFFFFF3u},
        {false, 0xFFFFFFE8u, 0xFFFFFFF3u}, {false, 0xFFFFFFE9u, 0xFFFFFFE9u},
        {false, 0xFFFFFFFEu, 0xFFFFFFFEu}, {false, 0xFFFFFFFFu, 0xFFFFFFFFu},
        {false, 0x80000000u, 0x80000013u}, {true, 0x7FFFFFF0u, 0x7FFFFFF9u},
        {true, 0xFFFFFFF0u, 0xFFFFFFF9u},  {true, 0xFFFFFFF4u, 0xFFFFFFF9u},
        {true, 0xFFFFFFF5u, 0xFFFFFFF5u},  {true, 0xFFFFFFFFu, 0xFFFFFFFFu},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << (c.wide ? "WStr" : "Str") << " request 0x" << std::hex << c.request);
        AllocSpy spy;
        ReportCapture reports;
        SetLastError(kSentinel);
        const void* block = c.wide ? static_cast<const void*>(AllocWStrBuffer(c.request, 0))
                                   : static_cast<const void*>(AllocStrBuffer(c.request, 0));
        const DWORD error = GetLastError();
        EXPECT_EQ(block, nullptr);
        EXPECT_EQ(error, 14u); // ERROR_OUTOFMEMORY
        EXPECT_EQ(spy.State().failedCalls, 1u);
        EXPECT_EQ(spy.State().lastFailedBytes, c.wide ? c.capacity * 2 + 16 : c.capacity + 16);
        // "bytes" is n + 16 (n * 2 + 16) from the request before rounding.
        const uint64_t bytes = c.wide ? static_cast<uint64_t>(c.request) * 2 + 16
                                      : static_cast<uint64_t>(c.request) + 16;
        EXPECT_TRUE(reports.Contains("String allocation failed")) << reports.All();
        EXPECT_TRUE(reports.Contains(c.wide ? "QELGUI-00600" : "QELGUI-00001")) << reports.All();
        EXPECT_TRUE(reports.ContainsField("bytes", std::to_string(bytes))) << reports.All();
        EXPECT_TRUE(reports.ContainsField("codeunits", std::to_string(c.request))) << reports.All();
    }
}

TEST(StrCapacity, ExhaustedMemoryReportsWithoutRecursing) {
    // Every allocation fails, including the ones made to report the failure.
    AllocSpy spy(1);
    SetLastError(kSentinel);
    Str s("abc");
    EXPECT_EQ(s.Block(), nullptr);
    EXPECT_EQ(GetLastError(), 14u);
    EXPECT_LT(spy.State().calls, 50u);
    SetLastError(kSentinel);
    EXPECT_EQ(AllocWStrBuffer(3, 0), nullptr);
    EXPECT_EQ(GetLastError(), 14u);
    SetLastError(kSentinel);
    const Str converted = Str::FromUtf16(L"abc");
    EXPECT_EQ(converted.Block(), nullptr);
    EXPECT_EQ(GetLastError(), 14u);
    SetLastError(kSentinel);
    EXPECT_EQ(Str().Reserve(10), nullptr);
    EXPECT_EQ(GetLastError(), 14u);
}

// ---------------------------------------------------------------------------
// Assign, Reserve, lazy length

TEST(StrBasics, AssignNullOrEmptyGivesNull) {
    for (const char* text : {static_cast<const char*>(nullptr), ""}) {
        Str s("previous");
        s.Assign(text);
        EXPECT_EQ(s.Block(), nullptr);
        EXPECT_STREQ(s.Text(), "");
        EXPECT_EQ(s.Text(), EmptyText());
        EXPECT_EQ(s.Length(), 0u);
        EXPECT_TRUE(s.IsEmpty());
        EXPECT_EQ(s.Capacity(), 0u);
    }
    const Str none;
    EXPECT_EQ(none.Text(), EmptyText());
    EXPECT_EQ(EmptyText()[0], 0);
}

TEST(StrBasics, AssignCopiesIntoAFreshBlock) {
    Str s;
    s.Assign("hello");
    ASSERT_NE(s.Block(), nullptr);
    EXPECT_EQ(s.Block()->count, 1);
    EXPECT_EQ(s.Block()->length, 5u);
    EXPECT_EQ(s.Capacity(), 11u);
    EXPECT_STREQ(s.Text(), "hello");
    // Assigning its own text first copies, then lets the old block go.
    s.Assign(s.Text() + 1);
    EXPECT_STREQ(s.Text(), "ello");
    EXPECT_EQ(s.Length(), 4u);
    const std::string big(1000, 'q');
    s.Assign(big.c_str());
    EXPECT_EQ(s.Length(), 1000u);
    EXPECT_EQ(s.Capacity(), 1003u);
    EXPECT_EQ(std::string(s.Text()), big);
}

TEST(StrBasics, ReserveZeroStillGivesABuffer) {
    Str s("old");
    char* p = s.Reserve(0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p, s.Text());
    EXPECT_EQ(p[0], 0);
    EXPECT_EQ(s.Capacity(), 11u);
    EXPECT_EQ(s.Length(), 0u);
    EXPECT_TRUE(s.IsEmpty());
}

TEST(StrBasics, LazyLengthIsMeasuredOnceAndStored) {
    Str s;
    char* p = s.Reserve(20);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(s.Capacity(), 27u);
    strcpy(p, "written directly");
    EXPECT_EQ(s.Block()->length, 0u); // not yet measured
    EXPECT_EQ(s.Length(), 16u);
    EXPECT_EQ(s.Block()->length, 16u); // stored in the block
    // Appending to an unmeasured buffer measures it first and goes on in place.
    Str t;
    char* q = t.Reserve(20);
    strcpy(q, "abc");
    StrBlock* before = t.Block();
    ASSERT_TRUE(t.Append("def"));
    EXPECT_EQ(t.Block(), before);
    EXPECT_STREQ(t.Text(), "abcdef");
    EXPECT_EQ(t.Length(), 6u);
    // An unmeasured buffer, copied, reports the same length through either holder.
    Str u;
    strcpy(u.Reserve(8), "xyz");
    const Str copy(u);
    EXPECT_EQ(copy.Length(), 3u);
    EXPECT_EQ(u.Block()->length, 3u);
    EXPECT_TRUE(copy == Str("xyz"));
}

TEST(StrBasics, ReserveOnASharedValueLeavesTheOtherHolder) {
    Str a("shared text");
    Str b(a);
    EXPECT_EQ(a.Block()->count, 2);
    char* p = b.Reserve(4);
    strcpy(p, "new");
    EXPECT_STREQ(a.Text(), "shared text");
    EXPECT_EQ(a.Block()->count, 1);
    EXPECT_STREQ(b.Text(), "new");
}

// ---------------------------------------------------------------------------
// Append: sharing, in place, growth

TEST(StrAppend, SharedTargetGetsANewBlock) {
    Str a("abc");
    Str b(a);
    StrBlock* shared = a.Block();
    ASSERT_EQ(shared->count, 2);
    ASSERT_GE(shared->capacity, 4u); // room enough: only sharing forces the copy
    ASSERT_TRUE(b.Append("d"));
    EXPECT_NE(b.Block(), shared);
    EXPECT_EQ(a.Block(), shared);
    EXPECT_STREQ(a.Text(), "abc");
    EXPECT_EQ(a.Length(), 3u);
    EXPECT_EQ(shared->count, 1);
    EXPECT_STREQ(b.Text(), "abcd");
    EXPECT_EQ(b.Block()->count, 1);
    EXPECT_EQ(b.Capacity(), 43u); // 4 + 32 slack
}

TEST(StrAppend, UnsharedTargetGrowsInPlaceWithinCapacity) {
    Str s("abc");
    StrBlock* block = s.Block();
    ASSERT_EQ(s.Capacity(), 11u);
    ASSERT_TRUE(s.Append("defg"));
    ASSERT_TRUE(s.AppendChar('h'));
    ASSERT_TRUE(s.Append(Str("ijk")));
    EXPECT_EQ(s.Block(), block);
    EXPECT_STREQ(s.Text(), "abcdefghijk");
    EXPECT_EQ(s.Length(), 11u);
    EXPECT_EQ(block->length, 11u);
    // One past the capacity: a new block with slack.
    ASSERT_TRUE(s.AppendChar('l'));
    EXPECT_NE(s.Block(), block);
    EXPECT_STREQ(s.Text(), "abcdefghijkl");
    EXPECT_EQ(s.Capacity(), 51u); // 12 + 32 = 44 -> 51
    // Appending nothing changes nothing.
    block = s.Block();
    EXPECT_TRUE(s.Append(""));
    EXPECT_TRUE(s.Append(nullptr));
    EXPECT_TRUE(s.Append(Str()));
    EXPECT_TRUE(s.Append("xyz", 0));
    EXPECT_EQ(s.Block(), block);
    EXPECT_EQ(s.Length(), 12u);
    // Appending to a null Str allocates with slack.
    Str empty;
    ASSERT_TRUE(empty.Append("a"));
    EXPECT_STREQ(empty.Text(), "a");
    EXPECT_EQ(empty.Capacity(), 43u);
}

TEST(StrAppend, GrowthSlackSteps) {
    // new + 32 below 512; new + new/16 below 8192; new + 512 above; then rounded.
    struct Case {
        uint32_t initial, added, capacity;
    };
    const Case cases[] = {
        {1, 20, 59},           // 21 + 32 = 53
        {500, 11, 547},        // 511 + 32 = 543
        {500, 12, 547},        // 512 + 32 = 544
        {500, 100, 643},       // 600 + 37 = 637
        {1000, 500, 1619},     // 1500 + 93 = 1593
        {5000, 1000, 6387},    // 6000 + 375 = 6375
        {8000, 191, 8723},     // 8191 + 511 = 8702
        {8000, 192, 8723},     // 8192 + 512 = 8704
        {10000, 5000, 15523},  // 15000 + 512 = 15512
        {100000, 100, 100627}, // 100100 + 512
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.initial << " + " << c.added);
        Str s(std::string(c.initial, 'a').c_str());
        ASSERT_LT(s.Capacity(), c.initial + c.added);
        const std::string added(c.added, 'b');
        ASSERT_TRUE(s.Append(added.c_str()));
        EXPECT_EQ(s.Capacity(), c.capacity);
        EXPECT_EQ(s.Length(), c.initial + c.added);
        EXPECT_EQ(std::string(s.Text()), std::string(c.initial, 'a') + added);
    }
}

TEST(StrAppend, RepeatedAppendsMostlyStayInPlace) {
    Str s;
    std::string expected;
    uint32_t newBlocks = 0;
    for (int i = 0; i < 20000; ++i) {
        StrBlock* before = s.Block();
        const char piece[] = {static_cast<char>('a' + i % 26), static_cast<char>('0' + i % 10), 0};
        ASSERT_TRUE(s.Append(piece));
        expected += piece;
        newBlocks += s.Block() != before;
    }
    EXPECT_EQ(std::string(s.Text()), expected);
    EXPECT_EQ(s.Length(), expected.size());
    // 40,000 bytes two at a time: about 16 blocks up to 512 bytes, 46 up to
    // 8 KiB and 62 more in steps of 512.
    EXPECT_LE(newBlocks, 130u);
}

TEST(StrAppend, SelfAppend) {
    Str s("ab");
    StrBlock* block = s.Block();
    ASSERT_TRUE(s.Append(s)); // in place
    EXPECT_EQ(s.Block(), block);
    EXPECT_STREQ(s.Text(), "abab");
    ASSERT_TRUE(s.Append(s.Text())); // raw pointer into the same block
    EXPECT_STREQ(s.Text(), "abababab");
    EXPECT_EQ(s.Block(), block);
    ASSERT_TRUE(s.Append(s)); // 16 > 11: a new block, copied before the old goes
    EXPECT_NE(s.Block(), block);
    EXPECT_STREQ(s.Text(), "abababababababab");
    std::string expected = s.Text();
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(s.Append(s));
        expected += expected;
    }
    EXPECT_EQ(std::string(s.Text()), expected);
    EXPECT_EQ(s.Length(), 4096u);
    // Appending a copy that shares the block.
    Str t("xy");
    Str same(t);
    ASSERT_TRUE(t.Append(same));
    EXPECT_STREQ(t.Text(), "xyxy");
    EXPECT_STREQ(same.Text(), "xy");
}

// A Str whose block claims a length far beyond its real text, to reach the
// 32-bit limits without gigabytes of memory.
Str FakeLength(const char* text, uint32_t length) {
    Str s;
    char* p = s.Reserve(16);
    strcpy(p, text);
    s.Block()->length = length;
    return s;
}

TEST(StrAppend, OverflowIsReportedAndLeavesTheTarget) {
    struct Case {
        uint32_t length1, length2;
    };
    const Case cases[] = {
        {0xFFFFFFF0u, 0x20u},
        {0xFFFFFFFFu, 1u},
        {1u, 0xFFFFFFFFu},
        {0x80000000u, 0x80000000u},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.length1 << " + " << c.length2);
        Str target = FakeLength("target", c.length1);
        const Str other = FakeLength("other", c.length2);
        StrBlock* block = target.Block();
        AllocSpy spy;
        ReportCapture reports;
        SetLastError(kSentinel);
        EXPECT_FALSE(target.Append(other));
        EXPECT_EQ(GetLastError(), 14u);
        EXPECT_EQ(target.Block(), block);
        EXPECT_EQ(target.Length(), c.length1);
        EXPECT_STREQ(target.Text(), "target");
        EXPECT_EQ(block->count, 1);
        EXPECT_EQ(spy.State().failedCalls, 0u); // nothing was asked of the allocator
        EXPECT_TRUE(reports.Contains("String overflow detected")) << reports.All();
        EXPECT_TRUE(reports.Contains("QELGUI-00002")) << reports.All();
        EXPECT_TRUE(reports.ContainsField("length1", std::to_string(c.length1))) << reports.All();
        EXPECT_TRUE(reports.ContainsField("length2", std::to_string(c.length2))) << reports.All();
        // The raw-text form checks the same sum before it reads the text.
        SetLastError(kSentinel);
        EXPECT_FALSE(target.Append("zz", 0xFFFFFFFFu));
        EXPECT_EQ(GetLastError(), 14u);
        EXPECT_STREQ(target.Text(), "target");
        EXPECT_EQ(target.Block(), block);
    }
}

TEST(StrAppend, SumsUpTo0xFFFFFFFFAreNoOverflow) {
    // Such sums go to the allocator; the growth request near the limit is
    // new + 512, then 0xFFFFFFFF above 0xFFFFFDFF.
    struct Case {
        uint32_t length1, length2;
        uint64_t bytes;
    };
    const Case cases[] = {
        {0xFFFFFCF0u, 0x10u, 0xFFFFFF13ull + 16}, // 0xFFFFFD00 + 512 = 0xFFFFFF00
        {0xFFFFFDF0u, 0x0Fu, 0xFFFFFFFFull + 16}, // 0xFFFFFDFF + 512 = 0xFFFFFFFF
        {0xFFFFFDF0u, 0x10u, 0xFFFFFFFFull + 16}, // above 0xFFFFFDFF
        {0xFFFFFFF0u, 0x0Fu, 0xFFFFFFFFull + 16}, // exactly 0xFFFFFFFF
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.length1 << " + " << c.length2);
        Str target = FakeLength("target", c.length1);
        const Str other = FakeLength("other", c.length2);
        AllocSpy spy;
        ReportCapture reports;
        SetLastError(kSentinel);
        EXPECT_FALSE(target.Append(other));
        EXPECT_EQ(GetLastError(), 14u);
        EXPECT_EQ(spy.State().failedCalls, 1u);
        EXPECT_EQ(spy.State().lastFailedBytes, c.bytes);
        EXPECT_FALSE(reports.Contains("String overflow detected")) << reports.All();
        EXPECT_TRUE(reports.Contains("String allocation failed")) << reports.All();
        EXPECT_STREQ(target.Text(), "target");
        EXPECT_EQ(target.Length(), c.length1);
    }
}

TEST(StrAppend, CountsAreSafeAcrossThreads) {
    const Str shared("shared between threads");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&shared] {
            for (int i = 0; i < 50000; ++i) {
                Str copy(shared);
                Str other;
                other = copy;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(shared.Block()->count, 1);
    EXPECT_STREQ(shared.Text(), "shared between threads");
}

// ---------------------------------------------------------------------------
// UTF-16 -> Str, UTF-8 -> WStr

TEST(StrConvert, FromUtf16SizesAndResults) {
    struct Case {
        std::wstring source;
        uint32_t capacity; // request n + slack (1 below 4, n/2 below 8, n/8), rounded
    };
    const Case cases[] = {
        {L"a", 11},                         // 1 + 1
        {L"abc", 11},                       // 3 + 1
        {L"abcdef", 19},                    // 6 + 3 = 9
        {L"abcdefg", 19},                   // 7 + 3 = 10
        {L"abcdefgh", 19},                  // 8 + 1 = 9
        {L"abcdefghijklmno", 19},           // 15 + 1 = 16
        {L"abcdefghijklmnop", 27},          // 16 + 2 = 18
        {std::wstring(100, L'x'), 115},     // 100 + 12
        {std::wstring(8, L'\x00E4'), 19},   // 16 bytes fit in 19
        {std::wstring(20, L'\x00E4'), 43},  // 40 bytes do not fit in 27: again into 40
        {std::wstring(4, L'\x20AC'), 19},   // 12 bytes do not fit in 11: again into 12
        {L"\xD83D\xDE00", 11},              // a pair: 4 bytes in 11
        {L"a\x00E4\x20AC\xD83D\xDE00", 11}, // 5 + 2 = 7 -> 11; 10 bytes fit
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Hex(c.source));
        const std::string expected = testsupport::Narrow(c.source);
        SetLastError(kSentinel);
        const Str s = Str::FromUtf16(c.source.c_str());
        EXPECT_EQ(GetLastError(), 0u);
        ASSERT_NE(s.Block(), nullptr);
        EXPECT_EQ(std::string(s.Text()), expected);
        EXPECT_EQ(s.Block()->length, expected.size());
        EXPECT_EQ(s.Capacity(), c.capacity);
        // The counted and WStr forms give the same.
        const Str counted = Str::FromUtf16(c.source.data(), static_cast<uint32_t>(c.source.size()));
        EXPECT_EQ(std::string(counted.Text()), expected);
        const WStr wide(c.source.c_str());
        EXPECT_EQ(std::string(Str::FromUtf16(wide).Text()), expected);
    }
}

TEST(StrConvert, FromUtf16EmptyAndInvalid) {
    SetLastError(kSentinel);
    EXPECT_EQ(Str::FromUtf16(static_cast<const wchar_t*>(nullptr)).Block(), nullptr);
    EXPECT_EQ(Str::FromUtf16(L"").Block(), nullptr);
    EXPECT_EQ(Str::FromUtf16(WStr()).Block(), nullptr);
    EXPECT_EQ(Str::FromUtf16Char(0).Block(), nullptr);
    const std::vector<std::wstring> invalid = {
        L"\xD800",
        L"\xDC00",
        L"ab\xD800",
        L"\xD800"
        L"ab",
        L"a\xDFFF"
        L"b",
        L"\xDC00\xD800",
        std::wstring(50, L'x') + L"\xD83D",      // a high half at the very end
        std::wstring(20, L'\x00E4') + L"\xD800", // first buffer too small, then invalid
    };
    for (const std::wstring& source : invalid) {
        SCOPED_TRACE(Hex(source));
        SetLastError(kSentinel);
        const Str s = Str::FromUtf16(source.c_str());
        EXPECT_EQ(GetLastError(), 1113u); // ERROR_NO_UNICODE_TRANSLATION
        EXPECT_EQ(s.Block(), nullptr);
    }
    for (wchar_t unit : {L'\xD800', L'\xDBFF', L'\xDC00', L'\xDFFF'}) {
        SetLastError(kSentinel);
        EXPECT_EQ(Str::FromUtf16Char(unit).Block(), nullptr);
        EXPECT_EQ(GetLastError(), 1113u);
    }
}

TEST(StrConvert, FromUtf16Char) {
    struct Case {
        wchar_t unit;
        const char* utf8;
    };
    const Case cases[] = {{L'A', "A"},
                          {L'\x7F', "\x7F"},
                          {L'\x80', "\xC2\x80"},
                          {L'\xE4', "\xC3\xA4"},
                          {L'\x7FF', "\xDF\xBF"},
                          {L'\x800', "\xE0\xA0\x80"},
                          {L'\x20AC', "\xE2\x82\xAC"},
                          {L'\xFFFF', "\xEF\xBF\xBF"}};
    for (const Case& c : cases) {
        SetLastError(kSentinel);
        const Str s = Str::FromUtf16Char(c.unit);
        EXPECT_EQ(GetLastError(), 0u);
        EXPECT_STREQ(s.Text(), c.utf8) << Hex(std::wstring(1, c.unit));
        EXPECT_EQ(s.Length(), strlen(c.utf8));
    }
}

TEST(StrConvert, FromUtf16OfALazilyFilledWStr) {
    WStr w;
    wchar_t* p = w.Reserve(10);
    ASSERT_NE(p, nullptr);
    wcscpy(p, L"\x00E4pfel");
    EXPECT_EQ(w.Block()->length, 0u);
    const Str s = Str::FromUtf16(w);
    EXPECT_STREQ(s.Text(), "\xC3\xA4pfel");
    EXPECT_EQ(w.Block()->length, 5u);
}

TEST(StrConvert, WStrFromUtf8) {
    struct Case {
        std::string utf8;
        std::wstring wide;
    };
    const Case cases[] = {
        {"abc", L"abc"},
        {"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", L"\x00E4\x20AC\xD83D\xDE00"},
        {"\xF4\x8F\xBF\xBF", L"\xDBFF\xDFFF"},
        {std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {"\xC0\x80", std::wstring(1, L'\0')}, // overlong NUL: accepted
        {"\xED\xA0\x80", L"\xD800"},          // encoded surrogate: accepted
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Hex(c.utf8));
        const WStr w = WStr::FromUtf8(c.utf8.data(), static_cast<uint32_t>(c.utf8.size()));
        ASSERT_EQ(w.Length(), c.wide.size());
        EXPECT_EQ(std::wstring(w.Text(), w.Length()), c.wide);
        EXPECT_EQ(w.Text()[w.Length()], 0);
        EXPECT_EQ(w.Capacity(), WStrCapacityFor(static_cast<uint32_t>(c.utf8.size())));
        const WStr viaStr =
            WStr::FromUtf8(Str(c.utf8.data(), static_cast<uint32_t>(c.utf8.size())));
        EXPECT_EQ(std::wstring(viaStr.Text(), viaStr.Length()), c.wide);
    }
    EXPECT_EQ(WStr::FromUtf8("", 0).Block(), EmptyWStr());
    EXPECT_EQ(WStr::FromUtf8(nullptr, 5).Block(), EmptyWStr());
    EXPECT_EQ(WStr::FromUtf8(Str()).Block(), EmptyWStr());
    for (const char* invalid : {"\xFF", "ab\x80", "\xE2\x82", "\xF8\x88\x80\x80\x80", "a\xC3"}) {
        SCOPED_TRACE(Hex(std::string(invalid)));
        SetLastError(kSentinel);
        const WStr w = WStr::FromUtf8(invalid, static_cast<uint32_t>(strlen(invalid)));
        EXPECT_EQ(GetLastError(), 1113u);
        EXPECT_EQ(w.Block(), EmptyWStr());
        EXPECT_EQ(w.Length(), 0u);
    }
}

TEST(StrConvert, CheckWStrOverflow) {
    struct Case {
        uint32_t length1, length2;
        bool overflow;
    };
    const Case cases[] = {
        {0, 0, false},           {1, 2, false},
        {0xFFFFFFFFu, 0, false}, {0xFFFFFFFEu, 1, false},
        {0xFFFFFFFFu, 1, true},  {0x80000000u, 0x80000000u, true},
        {1, 0xFFFFFFFFu, true},  {0xFFFFFFFFu, 0xFFFFFFFFu, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.length1 << " + " << c.length2);
        ReportCapture reports;
        SetLastError(kSentinel);
        EXPECT_EQ(CheckWStrOverflow(c.length1, c.length2), c.overflow);
        EXPECT_EQ(GetLastError(), c.overflow ? 14u : kSentinel);
        EXPECT_EQ(reports.Contains("String overflow detected"), c.overflow) << reports.All();
        if (c.overflow) {
            EXPECT_TRUE(reports.Contains("QELGUI-00601")) << reports.All();
            EXPECT_TRUE(reports.ContainsField("length1", std::to_string(c.length1)))
                << reports.All();
            EXPECT_TRUE(reports.ContainsField("length2", std::to_string(c.length2)))
                << reports.All();
        }
    }
    // WStr::Append checks the same way and leaves the target.
    WStr w;
    wcscpy(w.Reserve(8), L"wide");
    w.Block()->length = 0xFFFFFFF0u;
    WStrBlock* block = w.Block();
    ReportCapture reports;
    SetLastError(kSentinel);
    EXPECT_FALSE(w.Append(L"0123456789abcdefghij"));
    EXPECT_EQ(GetLastError(), 14u);
    EXPECT_EQ(w.Block(), block);
    EXPECT_EQ(std::wstring(w.Text()), L"wide");
    EXPECT_TRUE(reports.Contains("QELGUI-00601")) << reports.All();
}

// ---------------------------------------------------------------------------
// The shared empty WStr

TEST(EmptyWStrTest, SharedAndNeverFreed) {
    WStrBlock* empty = EmptyWStr();
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->length, 0u);
    EXPECT_EQ(empty->text[0], 0);
    const int32_t count = empty->count;
    EXPECT_GE(count, 2); // linked once on creation
    {
        WStr a;
        WStr b(a);
        WStr c;
        c = b;
        WStr d(L"");
        WStr e(L"x");
        e.Assign(nullptr, 0);
        WStr moved(std::move(d));
        for (const WStr* w : {&a, &b, &c, &d, &e, &moved}) {
            EXPECT_EQ(w->Block(), empty);
            EXPECT_EQ(w->Length(), 0u);
            EXPECT_STREQ(w->Text(), L"");
        }
        EXPECT_EQ(empty->count, count); // copies of the empty do not count
    }
    for (int i = 0; i < 1000; ++i)
        ReleaseWStr(empty->text);
    EXPECT_EQ(empty->count, count);
    EXPECT_EQ(EmptyWStr(), empty);
    EXPECT_EQ(empty->text[0], 0);
    // A value can still be built from it afterwards.
    WStr w;
    ASSERT_TRUE(w.Append(L"after"));
    EXPECT_STREQ(w.Text(), L"after");
    EXPECT_NE(w.Block(), empty);
    EXPECT_EQ(empty->count, count);
}

TEST(EmptyWStrTest, EmptyWStrKeepsTheLastError) {
    SetLastError(kSentinel);
    WStr w;
    EXPECT_EQ(GetLastError(), kSentinel);
    EXPECT_NE(EmptyWStr(), nullptr);
    EXPECT_EQ(GetLastError(), kSentinel);
}

TEST(WStrTest, SharingAndAppend) {
    WStr a(L"abc");
    WStr b(a);
    EXPECT_EQ(a.Block()->count, 2);
    ASSERT_TRUE(b.Append(L"d"));
    EXPECT_STREQ(a.Text(), L"abc");
    EXPECT_STREQ(b.Text(), L"abcd");
    EXPECT_EQ(a.Block()->count, 1);
    WStrBlock* block = b.Block();
    ASSERT_TRUE(b.Append(L"e"));
    EXPECT_EQ(b.Block(), block); // unshared with room: in place
    ASSERT_TRUE(b.Append(b));
    EXPECT_STREQ(b.Text(), L"abcdeabcde");
}

// ---------------------------------------------------------------------------
// Utf16ToUtf8 / Utf8ToUtf16: the platform's contract

struct Outcome {
    uint32_t result = 0;
    DWORD error = 0;
    std::string data; // the bytes (or units as bytes) written, when it succeeded
    bool guardIntact = true;
};

bool operator==(const Outcome& a, const Outcome& b) {
    return a.result == b.result && a.error == b.error && a.data == b.data;
}

std::ostream& operator<<(std::ostream& out, const Outcome& o) {
    return out << "{result " << o.result << ", error " << o.error << ", data [" << Hex(o.data)
               << "]}";
}

constexpr size_t kGuard = 16;

Outcome ToUtf8(bool platform, const wchar_t* source, uint32_t count, uint32_t capacity,
               bool nullDestination = false) {
    std::vector<char> buffer(capacity + kGuard, '\xCC');
    char* destination = nullDestination ? nullptr : buffer.data();
    Outcome o;
    SetLastError(kSentinel);
    if (platform)
        o.result = static_cast<uint32_t>(
            WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, source, static_cast<int>(count),
                                destination, static_cast<int>(capacity), nullptr, nullptr));
    else
        o.result = Utf16ToUtf8(source, count, destination, capacity);
    o.error = GetLastError();
    if (o.result != 0 && capacity != 0)
        o.data.assign(buffer.data(), o.result);
    for (size_t i = capacity; i < buffer.size(); ++i)
        o.guardIntact = o.guardIntact && buffer[i] == '\xCC';
    if (capacity == 0)
        o.guardIntact = o.guardIntact && buffer[0] == '\xCC';
    return o;
}

Outcome ToUtf16(bool platform, const char* source, uint32_t count, uint32_t capacity,
                bool nullDestination = false) {
    std::vector<wchar_t> buffer(capacity + kGuard, L'\xCCCC');
    wchar_t* destination = nullDestination ? nullptr : buffer.data();
    Outcome o;
    SetLastError(kSentinel);
    if (platform)
        o.result = static_cast<uint32_t>(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, source,
                                                             static_cast<int>(count), destination,
                                                             static_cast<int>(capacity)));
    else
        o.result = Utf8ToUtf16(source, count, destination, capacity);
    o.error = GetLastError();
    if (o.result != 0 && capacity != 0)
        o.data.assign(reinterpret_cast<const char*>(buffer.data()), o.result * sizeof(wchar_t));
    for (size_t i = capacity; i < buffer.size(); ++i)
        o.guardIntact = o.guardIntact && buffer[i] == L'\xCCCC';
    return o;
}

TEST(Conversion, ParameterContract) {
    wchar_t wide[8] = L"abc";
    char narrow[8] = "abc";
    char out[8];
    wchar_t wout[8];
    auto check = [](const char* what, uint32_t result, DWORD expectedError, uint32_t expected) {
        const DWORD error = GetLastError();
        EXPECT_EQ(result, expected) << what;
        EXPECT_EQ(error, expectedError) << what;
    };
    SetLastError(kSentinel);
    check("utf8 null source", Utf16ToUtf8(nullptr, 3, out, 8), 87, 0);
    SetLastError(kSentinel);
    check("utf8 count 0", Utf16ToUtf8(wide, 0, out, 8), 87, 0);
    SetLastError(kSentinel);
    check("utf8 null destination", Utf16ToUtf8(wide, 3, nullptr, 8), 87, 0);
    SetLastError(kSentinel);
    check("utf16 null source", Utf8ToUtf16(nullptr, 3, wout, 8), 87, 0);
    SetLastError(kSentinel);
    check("utf16 count 0", Utf8ToUtf16(narrow, 0, wout, 8), 87, 0);
    SetLastError(kSentinel);
    check("utf16 null destination", Utf8ToUtf16(narrow, 3, nullptr, 8), 87, 0);
    // Documented for the platform: source and destination must not be the same
    // pointer (ERROR_INVALID_PARAMETER). Wine 8 converts anyway; we follow the
    // documented contract.
    SetLastError(kSentinel);
    check("utf8 same pointer", Utf16ToUtf8(wide, 3, reinterpret_cast<char*>(wide), 16), 87, 0);
    SetLastError(kSentinel);
    check("utf16 same pointer", Utf8ToUtf16(narrow, 3, reinterpret_cast<wchar_t*>(narrow), 4), 87,
          0);
    // Success leaves the last error alone, as the platform does.
    SetLastError(kSentinel);
    check("utf8 success", Utf16ToUtf8(wide, 3, out, 8), kSentinel, 3);
    SetLastError(kSentinel);
    check("utf16 success", Utf8ToUtf16(narrow, 3, wout, 8), kSentinel, 3);
    // Terminated: the terminator is converted and counted.
    SetLastError(kSentinel);
    memset(out, 'x', sizeof out);
    check("utf8 terminated", Utf16ToUtf8(wide, kTerminated, out, 8), kSentinel, 4);
    EXPECT_EQ(out[3], 0);
    check("utf8 terminated measure", Utf16ToUtf8(wide, kTerminated, nullptr, 0), kSentinel, 4);
    check("utf8 terminated, room for the text only", Utf16ToUtf8(wide, kTerminated, out, 3), 122,
          0);
    SetLastError(kSentinel);
    check("utf16 terminated", Utf8ToUtf16(narrow, kTerminated, wout, 8), kSentinel, 4);
    EXPECT_EQ(wout[3], 0);
    check("utf16 terminated, room for the text only", Utf8ToUtf16(narrow, kTerminated, wout, 3),
          122, 0);
    // Any count above 0xFFFFFFFE means terminated; the platform's int -1 is the same value.
    SetLastError(kSentinel);
    check("utf8 measure with destination", Utf16ToUtf8(L"\x00E4\x20AC", 2, out, 0), kSentinel, 5);
}

TEST(Conversion, MeasuringDoesNotWrite) {
    const Outcome narrow = ToUtf8(false, L"\x00E4\x20AC", 2, 0);
    EXPECT_EQ(narrow.result, 5u);
    EXPECT_TRUE(narrow.guardIntact);
    const Outcome wide = ToUtf16(false, "\xC3\xA4\xE2\x82\xAC", 5, 0);
    EXPECT_EQ(wide.result, 2u);
    EXPECT_TRUE(wide.guardIntact);
}

TEST(Conversion, DecoderLeniencies) {
    // Overlong forms and encoded surrogates are accepted by design; the platform
    // (strict) refuses each of them.
    struct Case {
        std::string utf8;
        std::wstring wide;
    };
    const Case cases[] = {
        {"\xC0\x80", std::wstring(1, L'\0')},
        {"\xE0\x80\x80", std::wstring(1, L'\0')},
        {"\xF0\x80\x80\x80", std::wstring(1, L'\0')},
        {"\xC1\xBF", L"\x7F"},
        {"\xC1\x81", L"A"},
        {"\xE0\x9F\xBF", L"\x07FF"},
        {"\xF0\x8F\xBF\xBF", L"\xFFFF"},
        {"\xED\xA0\x80", L"\xD800"},
        {"\xED\xAF\xBF", L"\xDBFF"},
        {"\xED\xB0\x80", L"\xDC00"},
        {"\xED\xBF\xBF", L"\xDFFF"},
        {"\xED\xA0\xBD\xED\xB8\x80", L"\xD83D\xDE00"},
        {"a\xC0\x80z", std::wstring(L"a\0z", 3)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Hex(c.utf8));
        const uint32_t count = static_cast<uint32_t>(c.utf8.size());
        const Outcome ours = ToUtf16(false, c.utf8.data(), count, 16);
        EXPECT_EQ(ours.result, c.wide.size());
        EXPECT_EQ(ours.error, kSentinel);
        EXPECT_EQ(ours.data, std::string(reinterpret_cast<const char*>(c.wide.data()),
                                         c.wide.size() * sizeof(wchar_t)));
        EXPECT_EQ(ToUtf16(false, c.utf8.data(), count, 0).result, c.wide.size());
        const Outcome platform = ToUtf16(true, c.utf8.data(), count, 16);
        EXPECT_EQ(platform.result, 0u);
        EXPECT_EQ(platform.error, 1113u);
    }
    // An overlong NUL does not end a zero-terminated source.
    wchar_t out[8] = {};
    EXPECT_EQ(Utf8ToUtf16("\xC0\x80"
                          "A",
                          kTerminated, out, 8),
              3u);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[1], L'A');
    EXPECT_EQ(out[2], 0);
}

// ---- Differential tests against WideCharToMultiByte / MultiByteToWideChar

struct DiffStats {
    uint32_t compared = 0;
    uint32_t skipped = 0;
    uint32_t orderDivergences = 0; // invalid input and a short buffer: 1113 or 122 on either side
    uint32_t halfPairs = 0;        // Wine's success with half a pair at the end of the buffer
    uint32_t mismatches = 0;
    std::string firstMismatches;
};

bool AcceptableOrderDivergence(const Outcome& ours, const Outcome& platform, bool invalidInput) {
    const auto either = [](DWORD e) { return e == 122 || e == 1113; };
    return invalidInput && ours.result == 0 && platform.result == 0 && either(ours.error) &&
           either(platform.error);
}

// Wine 8's MultiByteToWideChar, given room for only the high half of a pair at
// the end, stores that half and reports success with the buffer's size. The
// documented contract is a failure with ERROR_INSUFFICIENT_BUFFER, which is
// what we give.
bool WineHalfPair(const Outcome& ours, const Outcome& platform, uint32_t capacity, uint32_t needed,
                  bool wideOutput) {
    if (!wideOutput || ours.result != 0 || ours.error != 122)
        return false;
    if (platform.result != capacity || (needed != 0 && needed <= capacity) ||
        platform.data.size() < 2)
        return false;
    uint16_t last;
    memcpy(&last, platform.data.data() + platform.data.size() - 2, 2);
    return last >= 0xD800 && last <= 0xDBFF;
}

void Record(DiffStats& stats, const std::string& input, uint32_t count, uint32_t capacity,
            const Outcome& ours, const Outcome& platform, bool invalidInput, uint32_t needed = 0,
            bool wideOutput = false) {
    ++stats.compared;
    if (!ours.guardIntact) {
        ++stats.mismatches;
        stats.firstMismatches += "wrote past capacity: input [" + input + "] count " +
                                 std::to_string(count) + " capacity " + std::to_string(capacity) +
                                 "\n";
        return;
    }
    if (ours == platform)
        return;
    if (AcceptableOrderDivergence(ours, platform, invalidInput)) {
        ++stats.orderDivergences;
        return;
    }
    if (WineHalfPair(ours, platform, capacity, needed, wideOutput)) {
        ++stats.halfPairs;
        return;
    }
    if (++stats.mismatches <= 12) {
        std::ostringstream text;
        text << "input [" << input << "] count " << static_cast<int>(count) << " capacity "
             << capacity << ": ours " << ours << " platform " << platform << "\n";
        stats.firstMismatches += text.str();
    }
}

void CompareToUtf8(DiffStats& stats, const std::wstring& source, bool terminated) {
    const uint32_t count = terminated ? kTerminated : static_cast<uint32_t>(source.size());
    const std::string shown = Hex(source) + (terminated ? " +NUL" : "");
    const Outcome measured = ToUtf8(true, source.c_str(), count, 0);
    Record(stats, shown, count, 0, ToUtf8(false, source.c_str(), count, 0), measured, false);
    const bool invalid = measured.result == 0 && measured.error == 1113;
    std::vector<uint32_t> capacities;
    if (measured.result != 0)
        capacities = {measured.result, measured.result - 1, measured.result + 3, 1};
    else
        capacities = {1, static_cast<uint32_t>(source.size() * 3 + 4)};
    for (uint32_t capacity : capacities) {
        if (capacity == 0)
            continue;
        Record(stats, shown, count, capacity, ToUtf8(false, source.c_str(), count, capacity),
               ToUtf8(true, source.c_str(), count, capacity), invalid);
    }
}

// Whether a complete overlong form or encoded surrogate starts anywhere in the
// bytes: there the decoder is lenient on purpose and the platform strict.
bool HasLenientSequence(const std::string& bytes, bool terminated) {
    const size_t n = terminated ? strlen(bytes.c_str()) : bytes.size();
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    for (size_t i = 0; i < n; ++i) {
        const unsigned lead = p[i];
        const size_t length = lead >= 0xC0 && lead < 0xE0   ? 2
                              : lead >= 0xE0 && lead < 0xF0 ? 3
                              : lead >= 0xF0 && lead < 0xF8 ? 4
                                                            : 0;
        if (length == 0 || i + length > n)
            continue;
        uint32_t cp = lead & (length == 2 ? 0x1F : length == 3 ? 0x0F : 0x07);
        bool complete = true;
        for (size_t k = 1; k < length; ++k) {
            complete = complete && (p[i + k] & 0xC0) == 0x80;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if (!complete)
            continue;
        const uint32_t shortest = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
        if (cp < shortest || (cp >= 0xD800 && cp <= 0xDFFF))
            return true;
    }
    return false;
}

void CompareToUtf16(DiffStats& stats, const std::string& source, bool terminated) {
    if (HasLenientSequence(source, terminated)) {
        ++stats.skipped;
        return;
    }
    const uint32_t count = terminated ? kTerminated : static_cast<uint32_t>(source.size());
    const std::string shown = Hex(source) + (terminated ? " +NUL" : "");
    const Outcome measured = ToUtf16(true, source.c_str(), count, 0);
    Record(stats, shown, count, 0, ToUtf16(false, source.c_str(), count, 0), measured, false);
    const bool invalid = measured.result == 0 && measured.error == 1113;
    std::vector<uint32_t> capacities;
    if (measured.result != 0)
        capacities = {measured.result, measured.result - 1, measured.result + 3, 1};
    else
        capacities = {1, static_cast<uint32_t>(source.size() + 4)};
    for (uint32_t capacity : capacities) {
        if (capacity == 0)
            continue;
        Record(stats, shown, count, capacity, ToUtf16(false, source.c_str(), count, capacity),
               ToUtf16(true, source.c_str(), count, capacity), invalid, measured.result, true);
    }
}

void ExpectAgreement(const DiffStats& stats, uint32_t minimumCompared) {
    EXPECT_EQ(stats.mismatches, 0u) << stats.firstMismatches;
    EXPECT_GE(stats.compared, minimumCompared);
    testing::Test::RecordProperty("compared", static_cast<int>(stats.compared));
    testing::Test::RecordProperty("skipped_lenient", static_cast<int>(stats.skipped));
    testing::Test::RecordProperty("order_divergences", static_cast<int>(stats.orderDivergences));
    testing::Test::RecordProperty("wine_half_pairs", static_cast<int>(stats.halfPairs));
    printf("compared %u, skipped (lenient forms) %u, error-order divergences %u, half pairs %u\n",
           stats.compared, stats.skipped, stats.orderDivergences, stats.halfPairs);
}

std::string Utf8Of(uint32_t cp) {
    std::string out;
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
    return out;
}

const uint32_t kBoundaryCodePoints[] = {0x01,    0x7F,    0x80,     0x7FF,   0x800,  0xD7FF,
                                        0xE000,  0xFEFF,  0xFFFD,   0xFFFE,  0xFFFF, 0x10000,
                                        0x1F600, 0xFFFFF, 0x100000, 0x10FFFF};

TEST(ConversionDifferential, Utf16ToUtf8RandomAgainstPlatform) {
    std::mt19937 random(20240705);
    DiffStats stats;
    for (int round = 0; round < 12000; ++round) {
        std::wstring source;
        const int length = static_cast<int>(random() % 24);
        for (int i = 0; i < length; ++i) {
            switch (random() % 10) {
            case 0:
            case 1:
                source += static_cast<wchar_t>(random() % 0x80);
                break;
            case 2:
                source += static_cast<wchar_t>(0x80 + random() % 0x780);
                break;
            case 3:
            case 4:
                source += static_cast<wchar_t>(0x800 + random() % (0xD800 - 0x800));
                break;
            case 5:
                source += static_cast<wchar_t>(0xE000 + random() % 0x2000);
                break;
            case 6: { // a valid pair
                const uint32_t cp = 0x10000 + random() % 0x100000;
                source += static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10));
                source += static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
                break;
            }
            case 7: // a lone half, rarely
                if (random() % 4 == 0)
                    source += static_cast<wchar_t>(0xD800 + random() % 0x800);
                break;
            default: {
                const uint32_t cp = kBoundaryCodePoints[random() % std::size(kBoundaryCodePoints)];
                if (cp < 0x10000) {
                    source += static_cast<wchar_t>(cp);
                } else {
                    source += static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10));
                    source += static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
                }
                break;
            }
            }
        }
        CompareToUtf8(stats, source, false);
        CompareToUtf8(stats, source, true);
    }
    ExpectAgreement(stats, 100000);
}

TEST(ConversionDifferential, Utf16ToUtf8AdversarialAgainstPlatform) {
    DiffStats stats;
    const std::wstring base = L"a\x00E4\x20AC\xD83D\xDE00z";
    const std::vector<std::wstring> inserts = {
        L"\xD800",
        L"\xDBFF",
        L"\xDC00",
        L"\xDFFF",
        L"\xDC00\xD800",
        L"\xD800\xD800\xDC00",
        std::wstring(1, L'\0'),
        L"\xD800" + std::wstring(1, L'\0') + L"\xDC00",
    };
    for (const std::wstring& insert : inserts)
        for (size_t position = 0; position <= base.size(); ++position) {
            const std::wstring source = base.substr(0, position) + insert + base.substr(position);
            CompareToUtf8(stats, source, false);
            CompareToUtf8(stats, source, true);
        }
    // Every prefix, so counts end inside the pair.
    for (size_t n = 1; n <= base.size(); ++n)
        CompareToUtf8(stats, base.substr(0, n), false);
    for (uint32_t cp : kBoundaryCodePoints) {
        std::wstring one;
        if (cp < 0x10000) {
            one = std::wstring(1, static_cast<wchar_t>(cp));
        } else {
            one += static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10));
            one += static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
        }
        CompareToUtf8(stats, one, false);
        CompareToUtf8(stats, one, true);
        CompareToUtf8(stats, L"x" + one + L"y", true);
    }
    ExpectAgreement(stats, 500);
}

std::string RandomUtf8Piece(std::mt19937& random) {
    const auto validCodePoint = [&random]() -> uint32_t {
        switch (random() % 4) {
        case 0:
            return 0x80 + random() % 0x780;
        case 1: {
            uint32_t cp = 0x800 + random() % (0x10000 - 0x800);
            return cp >= 0xD800 && cp <= 0xDFFF ? cp + 0x800 : cp;
        }
        case 2:
            return 0x10000 + random() % 0x100000;
        default:
            return kBoundaryCodePoints[random() % std::size(kBoundaryCodePoints)];
        }
    };
    switch (random() % 16) {
    case 0:
    case 1:
    case 2:
    case 3:
        return std::string(1, static_cast<char>(1 + random() % 0x7F));
    case 4:
    case 5:
    case 6:
    case 7:
        return Utf8Of(validCodePoint());
    case 8: { // cut short
        const std::string full = Utf8Of(validCodePoint());
        if (full.size() < 2)
            return full;
        return full.substr(0, 1 + random() % (full.size() - 1));
    }
    case 9: // stray continuation
        return std::string(1, static_cast<char>(0x80 + random() % 0x40));
    case 10: // 0xF8 and above
        return std::string(1, static_cast<char>(0xF8 + random() % 8)) + "\x80\x80\x80";
    case 11: { // four-byte forms above 0x10FFFF (F4 90.., F5..F7)
        const unsigned char lead = static_cast<unsigned char>(0xF4 + random() % 4);
        const unsigned char second = static_cast<unsigned char>(
            lead == 0xF4 ? 0x90 + random() % 0x30 : 0x80 + random() % 0x40);
        return std::string{static_cast<char>(lead), static_cast<char>(second), '\x80', '\x80'};
    }
    case 12: { // a valid lead with a broken continuation
        std::string full = Utf8Of(validCodePoint());
        if (full.size() < 2)
            return full;
        full[1 + random() % (full.size() - 1)] = static_cast<char>(random() % 2 ? 0x41 : 0xC3);
        return full;
    }
    case 13:
        return std::string(1, static_cast<char>(random() % 256));
    case 14:
        return random() % 3 == 0 ? std::string(1, '\0') : std::string("ok");
    default: { // lenient forms, rarely: these cases are left to their own test
        if (random() % 8 != 0)
            return Utf8Of(validCodePoint());
        return random() % 2 ? std::string("\xC0\x80") : std::string("\xED\xA0\x80");
    }
    }
}

TEST(ConversionDifferential, Utf8ToUtf16RandomAgainstPlatform) {
    std::mt19937 random(19700101);
    DiffStats stats;
    for (int round = 0; round < 12000; ++round) {
        std::string source;
        const int pieces = static_cast<int>(random() % 12);
        for (int i = 0; i < pieces; ++i)
            source += RandomUtf8Piece(random);
        CompareToUtf16(stats, source, false);
        CompareToUtf16(stats, source, true);
    }
    ExpectAgreement(stats, 60000);
}

TEST(ConversionDifferential, Utf8ToUtf16AdversarialAgainstPlatform) {
    DiffStats stats;
    const std::string base = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z";
    const std::vector<std::string> inserts = {
        "\x80",
        "\xBF",
        "\xC2",
        "\xDF",
        "\xE2\x82",
        "\xEF\xBF",
        "\xF0\x9F\x98",
        "\xF0",
        "\xF4\x8F\xBF",
        "\xF8",
        "\xFB\xBF\xBF\xBF\xBF",
        "\xFC",
        "\xFE",
        "\xFF",
        "\xF5\x80\x80\x80",
        "\xF7\xBF\xBF\xBF",
        "\xF4\x90\x80\x80",
        "\xC2\xC2",
        "\xE2\x28\xA1",
        "\xE2\x82\x28",
        std::string(1, '\0'),
        std::string("\xC3") + '\0' + "\xA4",
    };
    for (const std::string& insert : inserts)
        for (size_t position = 0; position <= base.size(); ++position) {
            const std::string source = base.substr(0, position) + insert + base.substr(position);
            CompareToUtf16(stats, source, false);
            CompareToUtf16(stats, source, true);
        }
    for (size_t n = 1; n <= base.size(); ++n)
        CompareToUtf16(stats, base.substr(0, n), false);
    for (uint32_t cp : kBoundaryCodePoints) {
        const std::string one = Utf8Of(cp);
        CompareToUtf16(stats, one, false);
        CompareToUtf16(stats, one, true);
        CompareToUtf16(stats, "x" + one + "y", true);
    }
    // Just past the boundaries, as raw forms.
    for (const char* raw :
         {"\xF4\x90\x80\x80", "\xF4\x8F\xBF\xBF", "\xEF\xBF\xBF", "\xC2\x80", "\xDF\xBF"}) {
        CompareToUtf16(stats, raw, false);
        CompareToUtf16(stats, raw, true);
    }
    ExpectAgreement(stats, 500);
}

// ---- Arithmetic overflow of the measured size

// One small section mapped side by side many times, so a source of several
// gigabytes costs only the section's memory.
class RepeatedView {
  public:
    RepeatedView(size_t chunk, size_t count, uint16_t fill) : m_chunk(chunk) {
        m_section = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                       static_cast<DWORD>(chunk), nullptr);
        if (m_section == nullptr)
            return;
        auto* first = static_cast<uint16_t*>(MapViewOfFile(m_section, FILE_MAP_WRITE, 0, 0, chunk));
        if (first == nullptr)
            return;
        for (size_t i = 0; i < chunk / 2; ++i)
            first[i] = fill;
        UnmapViewOfFile(first);
        for (int attempt = 0; attempt < 4 && m_base == nullptr; ++attempt) {
            // Find a free range, give it back, and map the views into it.
            auto* base = static_cast<char*>(
                VirtualAlloc(nullptr, chunk * count, MEM_RESERVE, PAGE_NOACCESS));
            if (base == nullptr)
                return;
            VirtualFree(base, 0, MEM_RELEASE);
            for (size_t i = 0; i < count; ++i) {
                void* view =
                    MapViewOfFileEx(m_section, FILE_MAP_READ, 0, 0, chunk, base + i * chunk);
                if (view == nullptr)
                    break;
                m_views.push_back(view);
            }
            if (m_views.size() == count) {
                m_base = base;
            } else {
                for (void* view : m_views)
                    UnmapViewOfFile(view);
                m_views.clear();
            }
        }
    }
    ~RepeatedView() {
        for (void* view : m_views)
            UnmapViewOfFile(view);
        if (m_section != nullptr)
            CloseHandle(m_section);
    }
    RepeatedView(const RepeatedView&) = delete;
    RepeatedView& operator=(const RepeatedView&) = delete;
    const void* Base() const { return m_base; }

  private:
    size_t m_chunk;
    HANDLE m_section = nullptr;
    std::vector<void*> m_views;
    const char* m_base = nullptr;
};

TEST(ConversionOverflow, Utf16ToUtf8MeasurePast4GiBGives534) {
    // 1,431,655,766 units of U+0800 need 3 bytes each: 4,294,967,298 bytes.
    const size_t chunk = size_t(16) << 20;
    const uint32_t units = 1431655766u;
    const size_t count = (static_cast<size_t>(units) * 2 + chunk - 1) / chunk;
    RepeatedView view(chunk, count, 0x0800);
    if (view.Base() == nullptr)
        GTEST_SKIP() << "could not map " << count << " views side by side";
    const auto* source = static_cast<const wchar_t*>(view.Base());
    SetLastError(kSentinel);
    EXPECT_EQ(Utf16ToUtf8(source, units, nullptr, 0), 0u);
    EXPECT_EQ(GetLastError(), 534u); // ERROR_ARITHMETIC_OVERFLOW
    char small[8];
    SetLastError(kSentinel);
    EXPECT_EQ(Utf16ToUtf8(source, units, small, sizeof small), 0u);
    EXPECT_EQ(GetLastError(), 122u); // the buffer runs out long before
}

// Utf8ToUtf16 cannot pass 0xFFFFFFFF units from a counted source (each unit
// takes at least one byte); only a zero-terminated source of over 4 GiB could,
// which would need over four billion steps here: left untested for time.

// ---------------------------------------------------------------------------
// Comparisons

TEST(Compare, CompareUtf8ReturnsThePlatformValues) {
    const LCID locale = LOCALE_USER_DEFAULT;
    struct Case {
        const char* a;
        int lengthA;
        const char* b;
        int lengthB;
        uint32_t flags;
        int expected;
    };
    const Case cases[] = {
        {"a", -1, "b", -1, 0, CSTR_LESS_THAN},
        {"b", -1, "a", -1, 0, CSTR_GREATER_THAN},
        {"abc", -1, "abc", -1, 0, CSTR_EQUAL},
        {"abc", 2, "abd", 2, 0, CSTR_EQUAL},
        {"abc", 3, "abd", 3, 0, CSTR_LESS_THAN},
        {"ABC", -1, "abc", -1, NORM_IGNORECASE, CSTR_EQUAL},
        {"\xC3\x84pfel", -1, "\xC3\xA4PFEL", -1, NORM_IGNORECASE, CSTR_EQUAL},
        {"", -1, "", -1, 0, CSTR_EQUAL},
        {"", 0, "a", -1, 0, CSTR_LESS_THAN},
        {"\xFF", -1, "a", -1, 0, 0}, // does not convert: failed
        {"a", -1, "b\xC3", -1, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << Hex(std::string(c.a)) << " vs " << Hex(std::string(c.b))
                                        << " flags " << c.flags);
        EXPECT_EQ(CompareUtf8(locale, c.flags, c.a, c.lengthA, c.b, c.lengthB), c.expected);
    }
}

TEST(Compare, CompareTextIsLocaleAwareWithAByteFallback) {
    struct Case {
        const char* a;
        const char* b;
        int sensitive;
        int insensitive;
    };
    const Case cases[] = {
        {"abc", "abc", 0, 0},
        {"abc", "ABC", -1, 0}, // linguistic order: lower case first
        {"a", "B", -1, -1},    // bytes would say 'a' > 'B'
        {"B", "a", 1, 1},
        {"install", "INSTALL", -1, 0},
        {"install", "install2", -1, -1},
        {"\xC3\xA4", "\xC3\x84", -1, 0},
        {"", "a", -1, -1},
        {nullptr, "", 0, 0},
        // Invalid UTF-8: the platform call fails and bytes are compared.
        {"a\xFF", "B\xFF", 1, -1},
        {"A\xFF", "a\xFF", -1, 0},
        {"\xFF", "\xFE", 1, 1},
        {"\xFE", "\xFF", -1, -1},
        {"x\xFF", "x", 1, 1},
        {"Z\x80", "z\x80", -1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << Hex(std::string(c.a ? c.a : "(null)")) << " vs " << Hex(std::string(c.b)));
        EXPECT_EQ(CompareText(c.a, c.b), c.sensitive);
        EXPECT_EQ(CompareTextEx(c.a, c.b, false), c.sensitive);
        EXPECT_EQ(CompareTextEx(c.a, c.b, true), c.insensitive);
    }
}

struct CompareCall {
    std::string a, b;
    bool ignoreCase = false;
    int calls = 0;
};
CompareCall s_compareCall;

int RecordingCompare(const char* a, const char* b, bool ignoreCase) {
    s_compareCall.a = a;
    s_compareCall.b = b;
    s_compareCall.ignoreCase = ignoreCase;
    ++s_compareCall.calls;
    return 42;
}

TEST(Compare, ProcessWideComparisonFunction) {
    s_compareCall = CompareCall{};
    SetCompareTextFunction(RecordingCompare);
    const int sensitive = CompareText("left", "right");
    const int insensitive = CompareTextEx("LEFT", "Right", true);
    SetCompareTextFunction(nullptr);
    EXPECT_EQ(sensitive, 42);
    EXPECT_EQ(insensitive, 42);
    EXPECT_EQ(s_compareCall.calls, 2);
    EXPECT_EQ(s_compareCall.a, "LEFT");
    EXPECT_EQ(s_compareCall.b, "Right");
    EXPECT_TRUE(s_compareCall.ignoreCase);
    // Removed again: the platform decides.
    EXPECT_EQ(CompareTextEx("LEFT", "left", true), 0);
    EXPECT_EQ(s_compareCall.calls, 2);
}

// ---------------------------------------------------------------------------
// Upper-casing

std::string Upper(std::string text) {
    UpperCaseUtf8(text.data());
    return text;
}

wchar_t PlatformUpper(wchar_t c) {
    return static_cast<wchar_t>(reinterpret_cast<ULONG_PTR>(
        CharUpperW(reinterpret_cast<LPWSTR>(static_cast<ULONG_PTR>(c)))));
}

TEST(UpperCase, AsciiAndSameLengthLetters) {
    struct Case {
        std::string in, out;
    };
    const Case cases[] = {
        {"", ""},
        {"korvantacloudus.exe", "KORVANTACLOUDUS.EXE"},
        {"MiXeD 123 _-[]{}", "MIXED 123 _-[]{}"},
        {"\xC3\xA4", "\xC3\x84"}, // ä -> Ä
        {"stra\xC3\x9F"
         "e",
         "STRA\xC3\x9F"
         "E"},                                    // ß has no one-letter upper case
        {"\xD0\xB4\xD0\xB0", "\xD0\x94\xD0\x90"}, // Cyrillic
        {"\xE1\xBC\x80", "\xE1\xBC\x88"},         // U+1F00 -> U+1F08, three bytes each
        {"\xE2\x82\xAC", "\xE2\x82\xAC"},         // not a letter
        {"\xF0\x90\x90\xA8", "\xF0\x90\x90\xA8"}, // a pair is not one unit: left alone
        {"\xC3\xA4x\xC3\xB6y", "\xC3\x84X\xC3\x96Y"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(Upper(c.in), c.out) << Hex(c.in);
}

TEST(UpperCase, LettersWhoseUpperCaseChangesLengthStay) {
    // Only upper cases of the same UTF-8 length are written back. Checked with
    // the platform first, so the case really exercises that branch.
    const wchar_t candidates[] = {L'\x0250', L'\x023F', L'\x0251', L'\x2C65', L'\x0131', L'\x017F'};
    int changing = 0;
    for (wchar_t c : candidates) {
        const wchar_t upper = PlatformUpper(c);
        const std::string in = Utf8Of(c);
        const std::string upperUtf8 = Utf8Of(upper);
        SCOPED_TRACE(Hex(std::wstring(1, c)) + " -> " + Hex(std::wstring(1, upper)));
        if (upperUtf8.size() != in.size()) {
            ++changing;
            EXPECT_EQ(Upper(in), in);
            EXPECT_EQ(Upper("a" + in + "b"), "A" + in + "B");
        } else {
            EXPECT_EQ(Upper(in), upperUtf8);
        }
    }
    EXPECT_GE(changing, 2); // U+0250 -> U+2C6F (2 -> 3 bytes), U+2C65 -> U+023A (3 -> 2)
}

TEST(UpperCase, StrayBytesArePassedOver) {
    struct Case {
        std::string in, out;
    };
    const Case cases[] = {
        {"a\x80"
         "b",
         "A\x80"
         "B"},
        {"\xBF\xBF"
         "c",
         "\xBF\xBF"
         "C"},
        {"\xC3", "\xC3"},
        {"\xC3"
         "a",
         "\xC3"
         "A"},
        {"\xE2\x82"
         "a",
         "\xE2\x82"
         "A"},
        {"\xC3\xA4\x80"
         "z",
         "\xC3\x84\x80"
         "Z"}, // a letter followed by a stray byte
        {"\xFF\xFE"
         "abc",
         "\xFF\xFE"
         "ABC"},
        {"\xF8\x80\x80\x80\x80"
         "q",
         "\xF8\x80\x80\x80\x80"
         "Q"},
        {"\xC1\xA1", "\xC1\xA1"}, // overlong 'a' stays: its upper case is one byte
        {"\xC0\x80"
         "a",
         "\xC0\x80"
         "A"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(Upper(c.in), c.out) << Hex(c.in);
    UpperCaseUtf8(nullptr); // no effect, no fault
}

// ---------------------------------------------------------------------------
// Formatting

TEST(Format, StrFormat) {
    EXPECT_STREQ(StrFormat("%d-%s", 42, "abc").Text(), "42-abc");
    EXPECT_STREQ(StrFormat("%u", 4294967295u).Text(), "4294967295");
    EXPECT_STREQ(StrFormat("%llu", 18446744073709551615ull).Text(), "18446744073709551615");
    EXPECT_STREQ(StrFormat("[%08lX]", 0x427ul).Text(), "[00000427]");
    EXPECT_STREQ(StrFormat("%5.1f|%-4s|%%", 3.14159, "x").Text(), "  3.1|x   |%");
    EXPECT_STREQ(StrFormat("%s-%05u", "Setup", 12u).Text(), "Setup-00012");
    EXPECT_EQ(StrFormat("%s", "").Block(), nullptr);
    EXPECT_EQ(StrFormat(nullptr).Block(), nullptr);
    const std::string long1(5000, 'L');
    const Str big = StrFormat("<%s>", long1.c_str());
    EXPECT_EQ(big.Length(), 5002u);
    EXPECT_EQ(big.Block()->length, 5002u);
    EXPECT_EQ(std::string(big.Text()), "<" + long1 + ">");
    EXPECT_EQ(big.Block()->count, 1);
    const Str utf8 = StrFormat("%s", "\xC3\xA4");
    EXPECT_EQ(utf8.Length(), 2u);
}

// ---------------------------------------------------------------------------
// Reference counting

struct Counted {
    int32_t count;
    int destroyed;
};

void DestroyCounted(Counted* object) {
    ++object->destroyed;
}

TEST(ReferenceTest, LinkUnlinkAndDestroyAtZero) {
    Counted object{1, 0};
    Reference::Link(&object);
    EXPECT_EQ(object.count, 2);
    EXPECT_EQ(Reference::Count(&object), 2);
    Reference::Unlink(&object);
    EXPECT_EQ(object.destroyed, 0);
    Reference::Unlink(&object);
    EXPECT_EQ(object.count, 0);
    EXPECT_EQ(object.destroyed, 1);
    Reference::Link(static_cast<Counted*>(nullptr));
    Reference::Unlink(static_cast<Counted*>(nullptr));
    EXPECT_EQ(Reference::Count(static_cast<Counted*>(nullptr)), 0);
}

// An object at the same address in this process and in the death-test child,
// so the expected message can name it.
Counted* FixedObject() {
    static Counted* s_object = [] {
        void* fixed = VirtualAlloc(reinterpret_cast<void*>(uintptr_t(0x000002A000000000)), 4096,
                                   MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
        static Counted fallback;
        return fixed != nullptr ? static_cast<Counted*>(fixed) : &fallback;
    }();
    return s_object;
}

std::string DeathPattern(const char* operation, int count) {
    char pointer[32];
    snprintf(pointer, sizeof pointer, "%p", static_cast<void*>(FixedObject()));
    const std::string countText =
        count < 0 ? "\\-" + std::to_string(-static_cast<int64_t>(count)) : std::to_string(count);
    return std::string("Reference::") + operation + ": " + pointer +
           ": Invalid reference count \\(" + countText + "\\)";
}

void UnlinkAt(int32_t count) {
    FixedObject()->count = count;
    Reference::Unlink(FixedObject());
}

void LinkAt(int32_t count) {
    FixedObject()->count = count;
    Reference::Link(FixedObject());
}

TEST(ReferenceDeathTest, BrokenCountsEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(UnlinkAt(0), DeathPattern("Unlink", -1));
    EXPECT_DEATH(UnlinkAt(-3), DeathPattern("Unlink", -4));
    EXPECT_DEATH(LinkAt(-5), DeathPattern("Link", -4));
    EXPECT_DEATH(LinkAt(0), DeathPattern("Link", 1));
    EXPECT_DEATH(LinkAt(INT32_MAX), DeathPattern("Link", INT32_MIN));
    // A string block: a count set to 0 by mistake, then released.
    EXPECT_DEATH(
        {
            Str s("abc");
            s.Block()->count = 0;
        },
        "Reference::Unlink: \\w+: Invalid reference count \\(\\-1\\)");
}

// ---------------------------------------------------------------------------
// Report records: with LOGTYPE=stdout a child run of this program writes its
// reports as records of named values.

TEST(StrReportChild, EmitReports) {
    if (testsupport::Env(L"KVT_STR_REPORT_CHILD").empty())
        GTEST_SKIP() << "runs only as the child of StrReports.RecordsCarryTheNamedValues";
    Str target = FakeLength("target", 0xFFFFFFF0u);
    target.Append(FakeLength("other", 0x20u));
    CheckWStrOverflow(0xFFFFFFFFu, 7u);
    AllocSpy spy;
    AllocStrBuffer(0xFFFFFFFFu, 0);
    AllocWStrBuffer(0x80000000u, 0);
}

std::vector<nlohmann::json> RecordsWithMessage(const std::string& out, const std::string& text) {
    std::vector<nlohmann::json> found;
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos)
            end = out.size();
        const std::string line = out.substr(start, end - start);
        start = end + 1;
        const nlohmann::json record = nlohmann::json::parse(line, nullptr, false);
        if (record.is_object() && record.contains("message") && record["message"].is_string() &&
            record["message"].get<std::string>().find(text) != std::string::npos)
            found.push_back(record);
    }
    return found;
}

// The value of a named field anywhere in the record, as text.
std::string FieldText(const nlohmann::json& record, const std::string& name) {
    if (record.is_object()) {
        for (auto it = record.begin(); it != record.end(); ++it) {
            if (it.key() == name)
                return it.value().is_string() ? it.value().get<std::string>() : it.value().dump();
            const std::string nested = FieldText(it.value(), name);
            if (!nested.empty())
                return nested;
        }
    }
    return {};
}

bool AnyTextContains(const nlohmann::json& value, const std::string& text) {
    if (value.is_string())
        return value.get<std::string>().find(text) != std::string::npos;
    if (value.is_structured())
        for (const nlohmann::json& item : value)
            if (AnyTextContains(item, text))
                return true;
    return false;
}

TEST(StrReports, RecordsCarryTheNamedValues) {
    wchar_t self[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(nullptr, self, MAX_PATH), 0u);
    const testsupport::ProcessResult child = testsupport::RunProcess(
        L"\"" + std::wstring(self) + L"\" --gtest_filter=StrReportChild.EmitReports",
        L"KVT_STR_REPORT_CHILD=1\nLOGTYPE=stdout");
    ASSERT_TRUE(child.started);
    EXPECT_EQ(child.exitCode, 0u) << child.out << child.err;
    struct Expected {
        const char* message;
        const char* prefix;
        const char* field1;
        const char* value1;
        const char* field2;
        const char* value2;
    };
    const Expected expected[] = {
        {"String overflow detected", "QELGUI-00002", "length1", "4294967280", "length2", "32"},
        {"String overflow detected", "QELGUI-00601", "length1", "4294967295", "length2", "7"},
        {"String allocation failed", "QELGUI-00001", "bytes", "4294967311", "codeunits",
         "4294967295"},
        {"String allocation failed", "QELGUI-00600", "bytes", "4294967312", "codeunits",
         "2147483648"},
    };
    for (const Expected& e : expected) {
        SCOPED_TRACE(e.prefix);
        const std::vector<nlohmann::json> records = RecordsWithMessage(child.out, e.prefix);
        ASSERT_EQ(records.size(), 1u) << child.out;
        const nlohmann::json& record = records[0];
        EXPECT_NE(record["message"].get<std::string>().find(e.message), std::string::npos);
        EXPECT_EQ(FieldText(record, "level"), "err");
        EXPECT_EQ(FieldText(record, e.field1), e.value1) << record.dump();
        EXPECT_EQ(FieldText(record, e.field2), e.value2) << record.dump();
        // The source location travels with the record.
        EXPECT_TRUE(AnyTextContains(record, "gui\\base\\source\\str")) << record.dump();
    }
}

} // namespace
