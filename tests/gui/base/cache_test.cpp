// The mapped-file cache on real files; the mapping call and the guarded view
// copy are replaced only to reach what cannot be produced at will (a file that
// will not map, a page that cannot be brought in).
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "cache.h"
#include "private/seams.h"
#include "report.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

struct NoReportBoxes : testing::Environment {
    void SetUp() override { SetInteractionAllowed(false, false); }
};
const testing::Environment* const s_noBoxes = testing::AddGlobalTestEnvironment(new NoReportBoxes);

uint64_t FileSize(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    return GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)
               ? (uint64_t(data.nFileSizeHigh) << 32) | data.nFileSizeLow
               : ~uint64_t(0);
}

HANDLE WINAPI RefuseMapping(HANDLE, LPSECURITY_ATTRIBUTES, DWORD, DWORD, DWORD, LPCWSTR) {
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
}

void InPageFault(void*, const void*, size_t) {
    RaiseException(STATUS_IN_PAGE_ERROR, 0, 0, nullptr);
}

} // namespace

TEST(Cache, MapsGrowsAndCutsBack) {
    ScratchDir dir(L"cache");
    const std::wstring empty = dir.Join(L"empty"), grown = dir.Join(L"grown");
    ASSERT_TRUE(WriteFileBytes(empty, ""));
    CacheFile cache;
    ASSERT_TRUE(OpenCache(&cache, Str(Narrow(empty).c_str()), kCacheRead));
    EXPECT_TRUE(cache.base == nullptr && cache.map == nullptr && cache.capacity == 0)
        << "an empty file maps with no view";
    EXPECT_TRUE(CloseCache(&cache));

    ASSERT_TRUE(OpenCache(&cache, Str(Narrow(grown).c_str()), kCacheCreate));
    ASSERT_TRUE(Grow(&cache, 1, 0));
    EXPECT_EQ(cache.capacity, kCacheGrowth) << "growing by 1 byte grows by 512 KiB";
    EXPECT_EQ(FileSize(grown), kCacheGrowth) << "and extends the file";
    ASSERT_TRUE(WriteCache(&cache, "0123456789", 10) && FlushCache(&cache));
    EXPECT_TRUE(CloseCache(&cache));
    std::string text;
    EXPECT_TRUE(ReadFileBytes(grown, text) && text == "0123456789") << "cut back to the data";

    ASSERT_TRUE(OpenCache(&cache, Str(Narrow(grown).c_str()), kCacheAppend));
    EXPECT_EQ(cache.position - cache.base, 10) << "append starts at the end";
    EXPECT_TRUE(CloseCache(&cache));

    OpenMemoryCache(&cache);
    ASSERT_TRUE(WriteCache(&cache, "abc", 3));
    EXPECT_TRUE(cache.file == CacheMemoryOnly() && cache.capacity == kCacheGrowth);
    EXPECT_FALSE(MapFile(&cache, kCacheRead)) << "a memory-only buffer is never mapped";
    char back[4] = {};
    uint32_t done = 0;
    ASSERT_TRUE(SeekCache(&cache, 0) && ReadCache(&cache, back, 4, &done));
    EXPECT_EQ(std::string(back, done), "abc");
    EXPECT_TRUE(CloseCache(&cache));
}

TEST(Cache, FailuresAreReportedAndTheTemporaryCopyServes) {
    ScratchDir dir(L"cache");
    const std::wstring path = dir.Join(L"data");
    ASSERT_TRUE(WriteFileBytes(path, "mapped or copied"));
    CacheFile cache;
    static const CacheSeams refuse = {RefuseMapping, nullptr};
    SetCacheSeamsForTesting(&refuse);
    for (const uint32_t mode : {kCacheRead, kCacheAppend}) {
        SCOPED_TRACE(mode);
        ReportLines reports;
        const bool opened = OpenCache(&cache, Str(Narrow(path).c_str()), mode);
        EXPECT_TRUE(
            reports.Contains("QELGUI-00202: Memory mapped file operation failed (create map)"))
            << reports.Take();
        EXPECT_EQ(opened, mode != kCacheAppend) << "append never takes the temporary copy";
        char text[32] = {};
        uint32_t done = 0;
        EXPECT_TRUE(!opened || (cache.copy && ReadCache(&cache, text, sizeof text, &done) &&
                                std::string(text, done) == "mapped or copied"));
        CloseCache(&cache);
    }
    SetCacheSeamsForTesting(nullptr);

    // A page that cannot be brought in: the access fails, reported, not the process.
    static const CacheSeams faulting = {nullptr, InPageFault};
    ASSERT_TRUE(OpenCache(&cache, Str(Narrow(path).c_str()), kCacheUpdate));
    SetCacheSeamsForTesting(&faulting);
    ReportLines reports;
    char text[8];
    uint32_t done = 0;
    EXPECT_FALSE(ReadCache(&cache, text, sizeof text, &done));
    EXPECT_TRUE(reports.Contains("Exception 0xC0000006 (STATUS_IN_PAGE_ERROR) at address"))
        << reports.Take();
    SetLastError(0);
    EXPECT_FALSE(Grow(&cache, 1, cache.capacity));
    EXPECT_EQ(GetLastError(), 0x8003001Du) << "a faulting touch of the new space";
    EXPECT_TRUE(reports.Contains("QELGUI-00211: Memory mapped file operation failed (write view)"))
        << reports.Take();
    SetCacheSeamsForTesting(nullptr);
    CloseCache(&cache);
    EXCEPTION_RECORD other = {};
    other.ExceptionCode = EXCEPTION_ACCESS_VIOLATION;
    EXCEPTION_POINTERS pointers = {&other, nullptr};
    EXPECT_EQ(InPageErrorFilter("CacheFile", &pointers, 1), 0) << "any other fault passes on";
}
