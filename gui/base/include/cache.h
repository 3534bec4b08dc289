// The memory-mapped file cache: a file, or a block of plain memory, as one
// contiguous buffer. A file is mapped whole; reads and writes go through a
// current position in the view; the buffer grows by remapping larger. A file
// that cannot be mapped is copied into a temporary page-file-backed mapping.
// Every failing system call is reported as an event of "QELGUI" with its own
// number, and its last error is kept for the caller.
#pragma once

#include <windows.h>

#include <cstdint>

#include "str.h"

struct _EXCEPTION_POINTERS;

// Open modes: 8 and 9 map for writing, every other mode read-only; 2 starts at
// the end of the data and never takes the temporary copy.
inline constexpr uint32_t kCacheRead = 0;   // an existing file
inline constexpr uint32_t kCacheAppend = 2; // existing or new; writes go after the data
inline constexpr uint32_t kCacheCreate = 8; // a new or emptied file
inline constexpr uint32_t kCacheUpdate = 9; // existing or new, written from the start

// Growth quantum: a buffer never grows by less.
inline constexpr uint64_t kCacheGrowth = 512 * 1024;

// The value of both handles of a memory-only buffer.
inline HANDLE CacheMemoryOnly() {
    return reinterpret_cast<HANDLE>(1);
}

struct CacheFile {
    HANDLE file = nullptr;       // the open file, or CacheMemoryOnly()
    HANDLE map = nullptr;        // the mapping (or temporary copy), or CacheMemoryOnly()
    uint8_t* base = nullptr;     // start of the view (of the heap block when memory-only)
    uint8_t* position = nullptr; // where the next read or write happens
    uint64_t capacity = 0;       // bytes in the view
    bool dirty = false;          // grown or written
    uint64_t size = 0;           // bytes of data: the file's, or up to the furthest write
    uint32_t mode = 0;
    bool noCopy = false;   // the temporary copy is forbidden
    bool copy = false;     // the buffer is the temporary copy of a file that would not map
    bool writable = false; // the view may be written
};

// Opens (by mode) and maps a file; false with the failing call's last error.
bool OpenCache(CacheFile* cache, const Str& path, uint32_t mode, bool noCopy = false);
// A memory-only buffer: nothing until the first Grow.
void OpenMemoryCache(CacheFile* cache);
// Maps the cache's open file whole; true also for an empty file, which is not mapped.
bool MapFile(CacheFile* cache, uint32_t mode);
// Makes room for `amount` more bytes after `position` (bytes from the start),
// at least the growth quantum; remaps a file, which extends it on disk.
bool Grow(CacheFile* cache, uint64_t amount, uint64_t position);

// Copies up to `bytes` from the current position; `*done` bytes were read (0 at
// the end of the data).
bool ReadCache(CacheFile* cache, void* data, uint32_t bytes, uint32_t* done);
// Copies `bytes` to the current position, growing the buffer when needed. The
// temporary copy is not written (ERROR_NOT_SUPPORTED): it could not reach the file.
bool WriteCache(CacheFile* cache, const void* data, uint32_t bytes);
// Moves the current position; not past the end of the data (ERROR_NEGATIVE_SEEK).
bool SeekCache(CacheFile* cache, uint64_t offset);
// Writes the view's changed pages and the file's buffers to disk.
bool FlushCache(CacheFile* cache);
// Unmaps and closes; a written file is cut back to its data. False when any
// step failed (the first failure's last error); the record is empty either way.
bool CloseCache(CacheFile* cache);

// The filter of the cache's guarded view accesses: handles an in-page error
// (0xC0000006: a page of the file could not be read or written) with a report,
// passes anything else on.
int InPageErrorFilter(const char* context, _EXCEPTION_POINTERS* exceptionPointers, int disposition);
