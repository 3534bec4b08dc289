// Counted strings: capacities, sharing, overflow and allocation reports, the
// UTF-8/UTF-16 conversions against the platform, comparisons and upper case.
#include <gtest/gtest.h>

#include <windows.h>

#include <bit>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "alloc.h"
#include "private/seams.h"
#include "report.h"
#include "str.h"
#include "testsupport.h"

namespace {

using testing::PrintToString;
using testsupport::Narrow;

// Reports in this program must not wait on message boxes.
struct NoReportBoxes : testing::Environment {
    void SetUp() override { SetInteractionAllowed(false, false); }
};
const testing::Environment* const s_noBoxes = testing::AddGlobalTestEnvironment(new NoReportBoxes);

constexpr DWORD kSentinel = 0xDEADBEEF;
constexpr uint32_t kTerminated = 0xFFFFFFFFu;

using Reports = testsupport::ReportLines;
void ExpectReport(const Reports& reports, const std::string& title, const char* name1,
                  uint64_t value1, const char* name2, uint64_t value2) {
    for (const std::string& text :
         {title, name1 + (": " + std::to_string(value1)), name2 + (": " + std::to_string(value2))})
        EXPECT_TRUE(reports.Contains(text)) << text;
}

// Allocations of at least `threshold` bytes fail and are recorded, so the sizes
// of multi-gigabyte requests are seen without the memory.
struct AllocSpy {
    static inline size_t threshold, lastFailed;
    static inline uint32_t failed, calls;
    explicit AllocSpy(size_t limit = size_t(1) << 31) {
        threshold = limit;
        lastFailed = failed = calls = 0;
        static const AllocSeams seams = {[](size_t bytes) {
                                             ++calls;
                                             return bytes >= threshold &&
                                                    (lastFailed = bytes, ++failed);
                                         },
                                         nullptr};
        SetAllocSeamsForTesting(&seams);
    }
    ~AllocSpy() { SetAllocSeamsForTesting(nullptr); }
};

TEST(StrCapacity, SizeClassesAndHugeRequestFailureReports) {
    const struct {
        bool wide;
        uint32_t first, last, capacity;
    } classes[] = {{false, 1, 8, 11},
                   {false, 9, 16, 19},
                   {false, 1001, 1008, 1011},
                   {false, 1009, 1016, 1027},
                   {false, 1017, 1024, 1043},
                   {true, 1, 4, 5},
                   {true, 5, 8, 9}};
    for (const auto& c : classes)
        for (uint32_t n = c.first; n <= c.last; ++n) {
            uint32_t capacity;
            if (c.wide) {
                wchar_t* text = AllocWStrBuffer(n, 0);
                capacity = WStrBlockOf(text)->capacity;
                ReleaseWStr(text);
            } else {
                StrBlock* block = AllocStrBuffer(n, 0);
                capacity = block->capacity;
                FreeStrBuffer(block);
            }
            EXPECT_EQ(capacity, c.capacity) << (c.wide ? "WStr " : "Str ") << n;
        }
    // The failed request's byte count shows the capacity: capacity + 16 or
    // capacity * 2 + 16. Where rounding would pass 0xFFFFFFFF, capacity = n.
    const struct {
        bool wide;
        uint32_t request;
        uint64_t capacity;
    } huge[] = {{false, 0xFFFFFFE8u, 0xFFFFFFF3u}, {false, 0xFFFFFFE9u, 0xFFFFFFE9u},
                {false, 0x80000000u, 0x80000013u}, {true, 0xFFFFFFF4u, 0xFFFFFFF9u},
                {true, 0xFFFFFFF5u, 0xFFFFFFF5u},  {true, 0xFFFFFFFFu, 0xFFFFFFFFu}};
    for (const auto& c : huge) {
        SCOPED_TRACE(testing::Message() << c.wide << " 0x" << std::hex << c.request);
        AllocSpy spy;
        Reports reports;
        SetLastError(kSentinel);
        EXPECT_EQ(c.wide ? static_cast<void*>(AllocWStrBuffer(c.request, 0))
                         : static_cast<void*>(AllocStrBuffer(c.request, 0)),
                  nullptr);
        EXPECT_EQ(GetLastError(), 14u);
        EXPECT_EQ(AllocSpy::failed, 1u);
        EXPECT_EQ(AllocSpy::lastFailed, c.wide ? c.capacity * 2 + 16 : c.capacity + 16);
        ExpectReport(reports,
                     std::string(c.wide ? "QELGUI-00600" : "QELGUI-00001") +
                         ": String allocation failed",
                     "bytes", uint64_t(c.request) * (c.wide ? 2 : 1) + 16, "codeunits", c.request);
    }
    // Every allocation fails, including the ones made to report the failure.
    AllocSpy spy(1);
    SetLastError(kSentinel);
    EXPECT_EQ(Str("abc").Block(), nullptr);
    EXPECT_EQ(GetLastError(), 14u);
    EXPECT_LT(AllocSpy::calls, 50u);
}

TEST(StrAppend, SharingLazyLengthSlackAndSelf) {
    Str a("abc"), b(a);
    StrBlock* shared = a.Block();
    ASSERT_TRUE(b.Append("d")); // room enough: only the sharing forces a new block
    EXPECT_NE(b.Block(), shared);
    EXPECT_EQ(shared->count, 1);
    EXPECT_STREQ(a.Text(), "abc");
    EXPECT_STREQ(b.Text(), "abcd");
    ASSERT_TRUE(a.Append("defg") && a.AppendChar('h') && a.Append(Str("ijk")) && a.Append(""));
    EXPECT_EQ(a.Block(), shared); // in place up to the capacity
    ASSERT_TRUE(a.AppendChar('l'));
    EXPECT_NE(a.Block(), shared);
    EXPECT_STREQ(a.Text(), "abcdefghijkl");
    // Text written through Reserve is measured at first use, once, and stored.
    Str s;
    strcpy(s.Reserve(20), "written directly");
    EXPECT_EQ(s.Block()->length, 0u);
    EXPECT_EQ(Str(s).Length(), 16u);
    EXPECT_EQ(s.Block()->length, 16u);
    strcpy(s.Reserve(20), "abc"); // Append measures an unmeasured value first
    StrBlock* block = s.Block();
    ASSERT_TRUE(s.Append("def"));
    EXPECT_EQ(s.Block(), block);
    EXPECT_TRUE(s == "abcdef");
    // Slack: new + 32 below 512; new + new/16 below 8192; new + 512 above; rounded.
    const struct {
        uint32_t initial, added, capacity;
    } cases[] = {{0, 1, 43},        {500, 12, 547},       {1000, 500, 1619},
                 {8000, 192, 8723}, {10000, 5000, 15523}, {100000, 100, 100627}};
    for (const auto& c : cases) {
        Str grown(std::string(c.initial, 'a').c_str());
        ASSERT_TRUE(grown.Append(std::string(c.added, 'b').c_str()));
        EXPECT_EQ(grown.Capacity(), c.capacity) << c.initial << " + " << c.added;
        EXPECT_EQ(grown.Text(), std::string(c.initial, 'a') + std::string(c.added, 'b'));
    }
    Str self("ab"); // appending itself; the first growth fills the new block before the old goes
    std::string expected = "ab";
    for (int i = 0; i < 11; ++i, expected += expected)
        ASSERT_TRUE(i % 2 ? self.Append(self.Text()) : self.Append(self));
    EXPECT_EQ(self.Text(), expected);
}

TEST(StrAppend, OverflowIsReportedAndLeavesTheTarget) {
    // bytes 0: the sum overflows. Otherwise it goes to the allocator, which is
    // asked for new + 512, or 0xFFFFFFFF above 0xFFFFFDFF.
    const struct {
        uint32_t length1, length2;
        uint64_t bytes;
    } cases[] = {{0xFFFFFFF0u, 0x20u, 0},
                 {0xFFFFFFFFu, 1u, 0},
                 {1u, 0xFFFFFFFFu, 0},
                 {0xFFFFFCF0u, 0x10u, 0xFFFFFF23},
                 {0xFFFFFDF0u, 0x10u, 0x10000000F},
                 {0xFFFFFFF0u, 0x0Fu, 0x10000000F}};
    const auto fake = [](const char* text, uint32_t length) { // a block claiming a false length
        Str s;
        strcpy(s.Reserve(16), text);
        s.Block()->length = length;
        return s;
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.length1 << " + " << c.length2);
        Str target = fake("target", c.length1);
        StrBlock* block = target.Block();
        AllocSpy spy;
        Reports reports;
        SetLastError(kSentinel);
        EXPECT_FALSE(target.Append(fake("other", c.length2)));
        EXPECT_EQ(GetLastError(), 14u);
        EXPECT_TRUE(target.Block() == block && block->count == 1);
        EXPECT_EQ(target.Length(), c.length1);
        EXPECT_STREQ(target.Text(), "target");
        EXPECT_EQ(AllocSpy::lastFailed, c.bytes);
        EXPECT_EQ(reports.Contains("String allocation failed"), c.bytes != 0);
        EXPECT_EQ(reports.Contains("String overflow detected"), c.bytes == 0);
        if (c.bytes != 0)
            continue;
        ExpectReport(reports, "QELGUI-00002: String overflow detected", "length1", c.length1,
                     "length2", c.length2);
        // The raw-text form checks the same sum before it reads the text.
        EXPECT_FALSE(target.Append("zz", c.length2));
        EXPECT_EQ(target.Block(), block);
    }
}

// ---- Utf16ToUtf8 / Utf8ToUtf16 against WideCharToMultiByte / MultiByteToWideChar

struct Outcome {
    uint32_t result;
    DWORD error;
    std::string data; // what was written, when it succeeded
    bool guardIntact;
};
std::string Show(const Outcome& o) {
    return std::to_string(o.result) + "/" + std::to_string(o.error) + " " + PrintToString(o.data) +
           (o.guardIntact ? "" : " written past the capacity");
}

// Out is the output unit: char for Utf16ToUtf8, wchar_t for Utf8ToUtf16.
template <class Out, class In>
Outcome Convert(bool platform, const In* source, uint32_t count, uint32_t capacity) {
    const Out fill = Out(sizeof(Out) == 1 ? 0xCC : 0xCCCC);
    std::vector<Out> buffer(capacity + 16, fill);
    SetLastError(kSentinel);
    uint32_t r;
    if constexpr (sizeof(Out) == 1)
        r = platform ? WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, source, int(count),
                                           buffer.data(), int(capacity), nullptr, nullptr)
                     : Utf16ToUtf8(source, count, buffer.data(), capacity);
    else
        r = platform ? MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, source, int(count),
                                           buffer.data(), int(capacity))
                     : Utf8ToUtf16(source, count, buffer.data(), capacity);
    Outcome o{r, GetLastError(), {}, true};
    if (r != 0 && capacity != 0)
        o.data.assign(reinterpret_cast<const char*>(buffer.data()), r * sizeof(Out));
    // Nothing past the capacity; on success, nothing past the result either.
    for (size_t i = r != 0 && capacity != 0 ? r : capacity; i < buffer.size(); ++i)
        o.guardIntact = o.guardIntact && buffer[i] == fill;
    return o;
}

TEST(Conversion, DecoderLeniencies) {
    // Overlong forms and encoded surrogates are accepted by design; the
    // platform refuses each of them.
    const std::wstring nul(1, L'\0');
    // clang-format off
    const std::pair<std::string, std::wstring> cases[] = {
        {"\xC0\x80", nul}, {"\xE0\x80\x80", nul}, {"\xF0\x80\x80\x80", nul}, {"\xC1\x81", L"A"},
        {"\xE0\x9F\xBF", L"\x7FF"}, {"\xF0\x8F\xBF\xBF", L"\xFFFF"}, {"\xED\xA0\x80", L"\xD800"},
        {"\xED\xBF\xBF", L"\xDFFF"}, {"\xED\xA0\xBD\xED\xB8\x80", L"\xD83D\xDE00"},
        {"a\xC0\x80z", L"a" + nul + L"z"}};
    // clang-format on
    for (const auto& [utf8, wide] : cases) {
        SCOPED_TRACE(PrintToString(utf8));
        const uint32_t count = uint32_t(utf8.size());
        const Outcome ours = Convert<wchar_t>(false, utf8.data(), count, 16);
        EXPECT_EQ(ours.error, kSentinel);
        EXPECT_EQ(ours.data,
                  std::string(reinterpret_cast<const char*>(wide.data()), wide.size() * 2));
        EXPECT_EQ(Convert<wchar_t>(false, utf8.data(), count, 0).result, wide.size());
        const WStr w = WStr::FromUtf8(utf8.data(), count);
        EXPECT_EQ(std::wstring(w.Text(), w.Length()), wide);
        EXPECT_EQ(Show(Convert<wchar_t>(true, utf8.data(), count, 16)), "0/1113 \"\"");
    }
    wchar_t terminated[4] = {}; // an overlong NUL does not end a terminated source
    EXPECT_EQ(Utf8ToUtf16("\xC0\x80Z", kTerminated, terminated, 4), 3u);
    EXPECT_EQ(std::wstring(terminated, 3), nul + L"Z" + nul);
}

// Whether a complete overlong form or encoded surrogate starts anywhere in the
// bytes: there the decoder is lenient on purpose and the platform strict.
bool HasLenientSequence(const std::string& bytes, bool terminated) {
    const size_t n = terminated ? strlen(bytes.c_str()) : bytes.size();
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    for (size_t i = 0; i < n; ++i) {
        const uint32_t length = std::countl_one(p[i]);
        uint32_t cp = p[i] & (0x7F >> length), k = 1;
        for (; k < length && i + k < n && (p[i + k] & 0xC0) == 0x80; ++k)
            cp = cp << 6 | (p[i + k] & 0x3F);
        const uint32_t shortest = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
        if (length >= 2 && length <= 4 && k == length &&
            (cp < shortest || (cp >= 0xD800 && cp <= 0xDFFF)))
            return true;
    }
    return false;
}

// Each source, counted and terminated, measured and at capacities around the
// size, gives the platform's result, output and last error; Str::FromUtf16 and
// WStr::FromUtf8 give the same text, or nothing with 1113. Tolerated: invalid
// input with a short buffer (1113 or 122 on either side), and Wine 8's
// MultiByteToWideChar storing the high half of a pair into the last unit and
// succeeding, where the documented contract (and we) fail with 122.
template <class Out, class In>
void ExpectSameAsPlatform(const std::vector<std::basic_string<In>>& sources, uint32_t minimum) {
    uint32_t compared = 0;
    std::string mismatches;
    const auto mismatch = [&](const std::basic_string<In>& source, const std::string& what) {
        if (mismatches.size() < 4000)
            mismatches += PrintToString(source) + what + "\n";
    };
    const auto shortOrInvalid = [](DWORD e) { return e == 122 || e == 1113; };
    for (const auto& source : sources)
        for (const bool terminated : {false, true}) {
            if constexpr (sizeof(In) == 1)
                if (HasLenientSequence(source, terminated))
                    continue;
            const uint32_t count = terminated ? kTerminated : uint32_t(source.size());
            const uint32_t m = Convert<Out>(true, source.c_str(), count, 0).result;
            const uint32_t capacities[] = {
                0, 1, m, m + 3, m > 1 ? m - 1 : 0, uint32_t(source.size()) * 3 + 4};
            for (size_t i = 0; i < std::size(capacities); ++i) {
                const uint32_t capacity = capacities[i];
                if (i != 0 && capacity == 0)
                    continue;
                ++compared;
                const Outcome ours = Convert<Out>(false, source.c_str(), count, capacity);
                const Outcome platform = Convert<Out>(true, source.c_str(), count, capacity);
                uint16_t last = 0;
                if (sizeof(Out) == 2 && platform.data.size() >= 2)
                    memcpy(&last, platform.data.data() + platform.data.size() - 2, 2);
                if (Show(ours) != Show(platform) &&
                    !(ours.guardIntact && capacity != 0 && ours.result == 0 &&
                      ((m == 0 && platform.result == 0 && shortOrInvalid(ours.error) &&
                        shortOrInvalid(platform.error)) ||
                       (ours.error == 122 && platform.result == capacity &&
                        (m == 0 || m > capacity) && last >= 0xD800 && last <= 0xDBFF))))
                    mismatch(source, (terminated ? " +NUL into " : " into ") +
                                         std::to_string(capacity) + ": ours " + Show(ours) +
                                         ", platform " + Show(platform));
            }
            if (terminated || source.empty())
                continue;
            const Outcome full = Convert<Out>(true, source.c_str(), count, m);
            std::string value;
            SetLastError(kSentinel);
            if constexpr (sizeof(Out) == 1) {
                const Str s = Str::FromUtf16(source.c_str(), count);
                value.assign(s.Text(), s.Length());
            } else {
                const WStr w = WStr::FromUtf8(source.c_str(), count);
                value.assign(reinterpret_cast<const char*>(w.Text()), w.Length() * 2);
            }
            if (value != full.data || (m == 0 && GetLastError() != 1113))
                mismatch(source,
                         " as a value: " + PrintToString(value) + ", platform " + Show(full));
        }
    EXPECT_EQ(mismatches, "");
    EXPECT_GE(compared, minimum);
}

std::wstring Utf16Of(uint32_t cp) {
    if (cp < 0x10000)
        return std::wstring(1, wchar_t(cp));
    return {wchar_t(0xD800 + ((cp - 0x10000) >> 10)), wchar_t(0xDC00 + ((cp - 0x10000) & 0x3FF))};
}

const uint32_t kBoundaries[] = {0x01,   0x7F,   0x80,    0x7FF,   0x800,   0xD7FF,   0xE000,
                                0xFFFD, 0xFFFF, 0x10000, 0x1F600, 0xFFFFF, 0x100000, 0x10FFFF};

TEST(ConversionDifferential, RandomAgainstPlatform) {
    std::mt19937 r(20240705);
    const auto codePoint = [&r] {
        const uint32_t starts[] = {0, 0x80, 0x800, 0xE000, 0x10000},
                       sizes[] = {0x80, 0x780, 0xD000, 0x2000, 0x100000}, range = r() % 6;
        return range == 5 ? kBoundaries[r() % std::size(kBoundaries)]
                          : starts[range] + r() % sizes[range];
    };
    std::vector<std::wstring> wide(12000);
    std::vector<std::string> narrow(12000);
    for (std::wstring& source : wide)
        for (uint32_t i = r() % 24; i > 0; --i)
            source += r() % 40 == 0 ? std::wstring(1, wchar_t(0xD800 + r() % 0x800)) // a lone half
                                    : Utf16Of(codePoint());
    // Valid UTF-8 mostly: now and then cut short, with a broken or stray continuation, any byte.
    for (std::string& source : narrow)
        for (uint32_t i = r() % 12; i > 0; --i) {
            std::string valid = Narrow(Utf16Of(codePoint()));
            const size_t tail = valid.size() > 1 ? 1 + r() % (valid.size() - 1) : 0;
            const uint32_t kind = r() % 12;
            source += kind == 0           ? valid.substr(0, tail ? tail : 1)
                      : kind == 1 && tail ? valid.replace(tail, 1, r() % 2 ? "A" : "\xC3")
                      : kind == 2         ? std::string(1, char(0x80 + r() % 0x40))
                      : kind == 3         ? std::string(1, char(r() % 256))
                                          : valid;
        }
    ExpectSameAsPlatform<char>(wide, 100000);
    ExpectSameAsPlatform<wchar_t>(narrow, 60000);
}

// Each insert alone and at every position of a base text, every prefix of the base.
template <class C>
std::vector<std::basic_string<C>> Adversarial(const std::basic_string<C>& base,
                                              std::vector<std::basic_string<C>> inserts) {
    std::vector<std::basic_string<C>> sources;
    for (size_t n = 1; n <= base.size(); ++n)
        sources.push_back(base.substr(0, n));
    for (const auto& insert : inserts) {
        sources.push_back(insert);
        for (size_t at = 0; at <= base.size(); ++at)
            sources.push_back(base.substr(0, at) + insert + base.substr(at));
    }
    return sources;
}

TEST(ConversionDifferential, AdversarialAgainstPlatform) {
    const std::wstring nul(1, L'\0');
    // clang-format off
    std::vector<std::wstring> wide = {L"\xD800", L"\xDBFF", L"\xDC00", L"\xDFFF", L"\xDC00\xD800",
                                      L"\xD800\xD800\xDC00", nul, L"\xD800" + nul + L"\xDC00"};
    std::vector<std::string> narrow = {
        "\x80", "\xBF", "\xC2", "\xDF", "\xE2\x82", "\xEF\xBF", "\xF0\x9F\x98", "\xF0",
        "\xF4\x8F\xBF", "\xF8", "\xF8\x80\x80\x80", "\xFB\xBF\xBF\xBF", "\xFB\xBF\xBF\xBF\xBF",
        "\xFC", "\xFE", "\xFF", "\xF5\x80\x80\x80", "\xF7\xBF\xBF\xBF", "\xF4\x90\x80\x80",
        "\xC2\xC2", "\xE2\x28\xA1", "\xE2\x82\x28", std::string(1, '\0'),
        std::string("\xC3\0\xA4", 3)};
    // clang-format on
    for (const uint32_t cp : kBoundaries) {
        wide.push_back(Utf16Of(cp));
        narrow.push_back(Narrow(Utf16Of(cp)));
    }
    // Runs of one script (ASCII, Cyrillic, Latin with accents, CJK), which the
    // converters take eight units at a time, at every alignment.
    for (const wchar_t* run : {L"C:\\ProgramData\\Korvanta\\Update.msi",
                               L"\x41E\x431\x43D\x43E\x432\x43B\x435\x43D\x438\x435 \x43F\x430",
                               L"J\xFCrgen M\xFCller, Donn\xE9\x65s \xDC\x62\x65rpr\xFC\x66ung",
                               L"\x66F4\x65B0\x30D1\x30C3\x30B1\x30FC\x30B8\x306E\x7F72\x540D"}) {
        wide.push_back(run);
        narrow.push_back(Narrow(run));
    }
    ExpectSameAsPlatform<char>(Adversarial<wchar_t>(L"a\xE4\x20AC\xD83D\xDE00z", wide), 1000);
    ExpectSameAsPlatform<wchar_t>(
        Adversarial<char>("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z", narrow), 1000);
}

// ---- Comparisons and upper case

TEST(Compare, LocaleAwareWithAByteFallback) {
    EXPECT_EQ(CompareUtf8(LOCALE_USER_DEFAULT, 0, "abc", 2, "abd", 2), CSTR_EQUAL);
    EXPECT_EQ(CompareUtf8(LOCALE_USER_DEFAULT, 0, "a", -1, "b\xC3", -1), 0); // does not convert
    // Linguistic order (lower case first, 'a' before 'B'); for invalid UTF-8 the
    // platform call fails and bytes are compared.
    const struct {
        const char *a, *b;
        int sensitive, insensitive;
    } cases[] = {{"abc", "ABC", -1, 0},     {"a", "B", -1, -1},
                 {"B", "a", 1, 1},          {"\xC3\xA4", "\xC3\x84", -1, 0},
                 {"", "a", -1, -1},         {nullptr, "", 0, 0},
                 {"a\xFF", "B\xFF", 1, -1}, {"A\xFF", "a\xFF", -1, 0},
                 {"\xFF", "\xFE", 1, 1},    {"x\xFF", "x", 1, 1},
                 {"Z\x80", "z\x80", -1, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(PrintToString(c.a) + " vs " + PrintToString(c.b));
        EXPECT_EQ(CompareText(c.a, c.b), c.sensitive);
        EXPECT_EQ(CompareTextEx(c.a, c.b, false), c.sensitive);
        EXPECT_EQ(CompareTextEx(c.a, c.b, true), c.insensitive);
    }
}

TEST(UpperCase, SameLengthLettersOnlyAndStrayBytesPassedOver) {
    const auto upper = [](std::string text) { return UpperCaseUtf8(text.data()), text; };
    // Not letters, no one-letter upper case (U+00DF), a pair (not one unit),
    // stray bytes, an overlong 'a' (its upper case would be one byte): unchanged.
    // clang-format off
    const std::pair<std::string, std::string> cases[] = {
        {"MiXeD 123 _-[]{}.exe", "MIXED 123 _-[]{}.EXE"},
        {"\xC3\xA4x\xD0\xB4", "\xC3\x84X\xD0\x94"},
        {"\xE1\xBC\x80", "\xE1\xBC\x88"}, {"stra\xC3\x9Fs", "STRA\xC3\x9FS"},
        {"\xF0\x90\x90\xA8", "\xF0\x90\x90\xA8"}, {"\xC1\xA1", "\xC1\xA1"},
        {"\xC3z\xE2\x82z\xC3\xA4\x80z", "\xC3Z\xE2\x82Z\xC3\x84\x80Z"},
        {"\xFF\xFEq\xF8\x80\x80\x80\x80q", "\xFF\xFEQ\xF8\x80\x80\x80\x80Q"}};
    // clang-format on
    for (const auto& [in, out] : cases)
        EXPECT_EQ(upper(in), out) << PrintToString(in);
    UpperCaseUtf8(nullptr);
    // Upper cases of another UTF-8 length stay as they are. The platform is asked
    // first, so the branch is really taken: U+0250 -> U+2C6F, U+2C65 -> U+023A.
    int changing = 0;
    for (const wchar_t c : {L'\x0250', L'\x2C65', L'\x0131', L'\x017F'}) {
        const std::string in = Narrow(std::wstring(1, c)),
                          up = Narrow(std::wstring(
                              1, LOWORD(CharUpperW(reinterpret_cast<LPWSTR>(uintptr_t(c))))));
        changing += up.size() != in.size();
        EXPECT_EQ(upper("a" + in + "b"), "A" + (up.size() != in.size() ? in : up) + "B")
            << PrintToString(in);
    }
    EXPECT_GE(changing, 2);
}

// ---- Reference counting: a broken count ends the process, naming the object.

struct Counted {
    int32_t count;
};
void DestroyCounted(Counted*) {}

// An object at the same address here and in the death-test child.
Counted* FixedObject() {
    static Counted fallback;
    static void* fixed = VirtualAlloc(reinterpret_cast<void*>(uintptr_t(0x2A000000000)), 4096,
                                      MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    return fixed ? static_cast<Counted*>(fixed) : &fallback;
}

void Broken(bool link, int32_t count) {
    FixedObject()->count = count;
    link ? Reference::Link(FixedObject()) : Reference::Unlink(FixedObject());
}

TEST(ReferenceDeathTest, BrokenCountsEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char pointer[32];
    snprintf(pointer, sizeof pointer, "%p", static_cast<void*>(FixedObject()));
    const auto pattern = [&](const char* operation, const char* count) {
        return std::string("Reference::") + operation + ": " + pointer +
               ": Invalid reference count \\(" + count + "\\)";
    };
    EXPECT_DEATH(Broken(false, 0), pattern("Unlink", "\\-1"));
    EXPECT_DEATH(Broken(true, 0), pattern("Link", "1"));
    EXPECT_DEATH(Broken(true, INT32_MAX), pattern("Link", "\\-2147483648"));
    EXPECT_DEATH(
        {
            Str s("abc");
            s.Block()->count = 0; // set to 0 by mistake, then released
        },
        "Reference::Unlink: \\w+: Invalid reference count \\(\\-1\\)");
}

} // namespace
