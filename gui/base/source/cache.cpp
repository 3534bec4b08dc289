// The memory-mapped file cache: a file, or a block of plain memory, as one
// contiguous buffer, mapped whole and grown by remapping.
#include "cache.h"

#include <cstring>

#include "handles.h"
#include "private/seams.h"
#include "private/system.h"
#include "report.h"

namespace {

SeamSlot<CacheSeams> s_seams;
const char kSourceFile[] = "gui\\base\\source\\cache";
constexpr uint32_t kCacheEventCategory = 2;
constexpr DWORD kTouchFailed = 0x8003001D; // STG_E_WRITEFAULT

bool MemoryOnly(const CacheFile* cache) {
    return cache->file == CacheMemoryOnly() && cache->map == CacheMemoryOnly();
}

bool Writable(uint32_t mode) {
    return mode == kCacheCreate || mode == kCacheUpdate;
}

// One event of the cache's table: the failing call's text and the values given.
void ReportCacheFailure(uint32_t event, const char* what, const EventValue* more = nullptr,
                        uint32_t count = 0) {
    LastErrorKeeper keep;
    EventValue values[3] = {{"error", FormatSystemError(keep.Saved()), false}};
    for (uint32_t i = 0; i < count && i < 2; ++i)
        values[1 + i] = more[i];
    const Str message = StrFormat("Memory mapped file operation failed (%s)", what);
    ReportLibraryError(kSourceFile, __LINE__, event, message.Text(), values, 1 + count,
                       kCacheEventCategory);
}

void ReportMapFailure(uint32_t event, const char* what, uint32_t mode) {
    const EventValue values[] = {{"mode", StrFormat("%u", mode), true}, {"init", Str("2"), true}};
    ReportCacheFailure(event, what, values, 2);
}

void ReportGrowFailure(uint32_t event, const char* what, uint64_t position, uint64_t amount) {
    const EventValue values[] = {
        {"pos", StrFormat("%llu", (unsigned long long)position), true},
        {"amount_bytes", StrFormat("%llu", (unsigned long long)amount), true}};
    ReportCacheFailure(event, what, values, 2);
}

void ClearView(CacheFile* cache) {
    cache->base = cache->position = nullptr;
    cache->capacity = 0;
}

// Reads the whole file into a page-file-backed mapping of its size.
bool MapTemporaryCopy(CacheFile* cache, uint64_t size) {
    HANDLE map =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE,
                           static_cast<DWORD>(size >> 32), static_cast<DWORD>(size), nullptr);
    if (map == nullptr)
        return ReportCacheFailure(203, "create temporary map"), false;
    auto* view = static_cast<uint8_t*>(MapViewOfFile(map, FILE_MAP_WRITE, 0, 0, 0));
    if (view == nullptr) {
        ReportCacheFailure(208, "create temporary view");
        LastErrorKeeper keep;
        CloseHandle(map);
        return false;
    }
    LARGE_INTEGER start = {};
    bool read = SetFilePointerEx(cache->file, start, nullptr, FILE_BEGIN) != FALSE;
    for (uint64_t done = 0; read && done < size;) {
        DWORD got = 0;
        const DWORD chunk = static_cast<DWORD>(size - done > 0x40000000 ? 0x40000000 : size - done);
        read = ReadFile(cache->file, view + done, chunk, &got, nullptr) && got != 0;
        done += got;
    }
    if (!read) {
        ReportCacheFailure(210, "read file to temporary view");
        LastErrorKeeper keep;
        UnmapViewOfFile(view);
        CloseHandle(map);
        return false;
    }
    cache->map = map;
    cache->base = cache->position = view;
    cache->capacity = size;
    cache->copy = true;
    cache->writable = false;
    return true;
}

bool CopyGuarded(void* destination, const void* source, size_t bytes) {
    struct Copy {
        void* destination;
        const void* source;
        size_t bytes;
    } copy = {destination, source, bytes};
    return RunGuarded("CacheFile", InPageErrorFilter, [&copy] {
        const CacheSeams* seams = s_seams.Get();
        if (seams != nullptr && seams->copyView != nullptr)
            seams->copyView(copy.destination, copy.source, copy.bytes);
        else
            memcpy(copy.destination, copy.source, copy.bytes);
    });
}

} // namespace

void SetCacheSeamsForTesting(const CacheSeams* seams) {
    s_seams.Set(seams);
}

int InPageErrorFilter(const char*, _EXCEPTION_POINTERS* exceptionPointers, int disposition) {
    const EXCEPTION_RECORD* record =
        exceptionPointers != nullptr ? exceptionPointers->ExceptionRecord : nullptr;
    if (record == nullptr || record->ExceptionCode != STATUS_IN_PAGE_ERROR)
        return EXCEPTION_CONTINUE_SEARCH;
    LastErrorKeeper keep;
    ReportAndConfirm(kCategoryBase, kSeverityError, kSourceFile, __LINE__,
                     StrFormat("Exception 0x%08X (STATUS_IN_PAGE_ERROR) at address %p",
                               static_cast<unsigned>(record->ExceptionCode),
                               record->ExceptionAddress)
                         .Text());
    return disposition;
}

bool MapFile(CacheFile* cache, uint32_t mode) {
    if (MemoryOnly(cache))
        return false;
    LARGE_INTEGER size;
    if (!GetFileSizeEx(cache->file, &size))
        return false;
    cache->mode = mode;
    cache->size = static_cast<uint64_t>(size.QuadPart);
    if (size.QuadPart == 0)
        return true;
    const bool write = Writable(mode);
    const auto createMap = s_seams.Pick(&CacheSeams::createFileMapping, &CreateFileMappingW);
    cache->map =
        createMap(cache->file, nullptr, write ? PAGE_READWRITE : PAGE_READONLY,
                  static_cast<DWORD>(cache->size >> 32), static_cast<DWORD>(cache->size), nullptr);
    if (cache->map == nullptr) {
        ReportMapFailure(202, "create map", mode);
    } else {
        cache->base = static_cast<uint8_t*>(
            MapViewOfFile(cache->map, write ? FILE_MAP_WRITE : FILE_MAP_READ, 0, 0, 0));
        if (cache->base != nullptr) {
            cache->capacity = cache->size;
            cache->writable = write;
            cache->position = cache->base + (mode == kCacheAppend ? cache->size : 0);
            return true;
        }
        ReportMapFailure(207, "create view", mode);
    }
    if (mode == kCacheAppend || cache->noCopy)
        return false;
    if (cache->map != nullptr) {
        LastErrorKeeper keep;
        CloseHandle(cache->map);
        cache->map = nullptr;
    }
    return MapTemporaryCopy(cache, cache->size);
}

bool Grow(CacheFile* cache, uint64_t amount, uint64_t position) {
    if (position + amount < position)
        return false;
    uint64_t growth = amount < kCacheGrowth ? kCacheGrowth : amount;
    if (position + growth < position)
        growth = ~uint64_t(0) - position;
    const uint64_t newSize = position + growth;
    if (MemoryOnly(cache)) {
        void* block = cache->base == nullptr
                          ? HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, newSize)
                          : HeapReAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, cache->base, newSize);
        if (block == nullptr)
            return false;
        cache->base = static_cast<uint8_t*>(block);
        cache->position = cache->base + position;
        cache->capacity = newSize;
        cache->dirty = cache->writable = true;
        return true;
    }
    if (cache->copy) // the temporary copy cannot reach the file
        return SetLastError(ERROR_NOT_SUPPORTED), false;
    if (cache->base != nullptr && !UnmapViewOfFile(cache->base))
        return false;
    ClearView(cache);
    if (cache->map != nullptr && !CloseHandle(cache->map))
        return false;
    cache->map =
        CreateFileMappingW(cache->file, nullptr, PAGE_READWRITE, static_cast<DWORD>(newSize >> 32),
                           static_cast<DWORD>(newSize), nullptr);
    uint8_t* view = cache->map != nullptr
                        ? static_cast<uint8_t*>(MapViewOfFile(cache->map, FILE_MAP_WRITE, 0, 0, 0))
                        : nullptr;
    if (view == nullptr) {
        ReportGrowFailure(205, "create view", position, amount);
        LastErrorKeeper keep;
        if (cache->map != nullptr)
            CloseHandle(cache->map);
        cache->map = nullptr;
        return false;
    }
    cache->base = view;
    // Commits the file's new space now, where a full disk can still be reported.
    static const uint8_t kZero = 0;
    if (!CopyGuarded(view + newSize - 1, &kZero, 1)) {
        SetLastError(kTouchFailed);
        ReportGrowFailure(211, "write view", position, amount);
        return false;
    }
    cache->capacity = newSize;
    cache->position = view + position;
    cache->dirty = cache->writable = true;
    return true;
}

bool OpenCache(CacheFile* cache, const Str& path, uint32_t mode, bool noCopy) {
    *cache = CacheFile{};
    cache->noCopy = noCopy;
    const WStr wide = WStr::FromUtf8(path);
    const DWORD disposition = mode == kCacheCreate ? CREATE_ALWAYS
                              : mode == kCacheRead ? OPEN_EXISTING
                                                   : OPEN_ALWAYS;
    const DWORD access =
        GENERIC_READ | (Writable(mode) || mode == kCacheAppend ? GENERIC_WRITE : 0);
    cache->file = CreateFileW(wide.Text(), access, FILE_SHARE_READ, nullptr, disposition,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (cache->file == INVALID_HANDLE_VALUE) {
        cache->file = nullptr;
        return false;
    }
    if (MapFile(cache, mode))
        return true;
    LastErrorKeeper keep;
    CloseCache(cache);
    return false;
}

void OpenMemoryCache(CacheFile* cache) {
    *cache = CacheFile{};
    cache->file = cache->map = CacheMemoryOnly();
    cache->writable = true;
}

bool ReadCache(CacheFile* cache, void* data, uint32_t bytes, uint32_t* done) {
    *done = 0;
    const uint64_t at = cache->base != nullptr ? uint64_t(cache->position - cache->base) : 0;
    const uint64_t left = cache->size > at ? cache->size - at : 0;
    const uint32_t n = static_cast<uint32_t>(left < bytes ? left : bytes);
    if (n == 0)
        return true;
    if (!CopyGuarded(data, cache->position, n))
        return false;
    cache->position += n;
    *done = n;
    return true;
}

bool WriteCache(CacheFile* cache, const void* data, uint32_t bytes) {
    if (cache->copy || (!cache->writable && cache->mode != kCacheAppend && !MemoryOnly(cache)))
        return SetLastError(ERROR_NOT_SUPPORTED), false;
    const uint64_t at = cache->base != nullptr ? uint64_t(cache->position - cache->base) : 0;
    if (at + bytes > cache->capacity && !Grow(cache, at + bytes - cache->capacity, cache->capacity))
        return false;
    cache->position = cache->base + at;
    if (!CopyGuarded(cache->position, data, bytes))
        return false;
    cache->position += bytes;
    cache->dirty = true;
    if (at + bytes > cache->size)
        cache->size = at + bytes;
    return true;
}

bool SeekCache(CacheFile* cache, uint64_t offset) {
    if (offset > cache->size)
        return SetLastError(ERROR_NEGATIVE_SEEK), false;
    cache->position = cache->base + offset;
    return true;
}

bool FlushCache(CacheFile* cache) {
    if (MemoryOnly(cache) || cache->copy || cache->base == nullptr || !cache->writable)
        return true;
    return FlushViewOfFile(cache->base, 0) && FlushFileBuffers(cache->file);
}

bool CloseCache(CacheFile* cache) {
    bool ok = true;
    DWORD firstError = 0;
    const auto step = [&](bool done) {
        if (!done && ok)
            ok = false, firstError = GetLastError();
    };
    if (MemoryOnly(cache)) {
        if (cache->base != nullptr)
            step(HeapFree(GetProcessHeap(), 0, cache->base) != FALSE);
    } else {
        if (cache->base != nullptr)
            step(UnmapViewOfFile(cache->base) != FALSE);
        if (cache->map != nullptr)
            step(CloseHandle(cache->map) != FALSE);
        // Growth extends the file by whole quanta: cut it back to the data.
        if (cache->file != nullptr && cache->dirty && !cache->copy) {
            LARGE_INTEGER end;
            end.QuadPart = static_cast<LONGLONG>(cache->size);
            step(SetFilePointerEx(cache->file, end, nullptr, FILE_BEGIN) &&
                 SetEndOfFile(cache->file));
        }
        if (cache->file != nullptr)
            step(CloseHandle(cache->file) != FALSE);
    }
    *cache = CacheFile{};
    SetLastError(firstError);
    return ok;
}
