// Reference-counted UTF-8 and UTF-16 strings, conversions and comparisons.
#include "str.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <cwchar>

#include "alloc.h"
#include "private/utf8.h"
#include "report.h"

namespace {

const char kSourceFile[] = "gui\\base\\source\\str";
const char s_emptyText[1] = {0};

constexpr uint64_t kMax32 = 0xFFFFFFFFull;

// Capacity request for a string of `length` units that is about to grow: 32
// units of slack, then a sixteenth, then 512, so repeated appends stay in place.
uint32_t GrowthRequest(uint32_t length) {
    if (length < 512)
        return length + 32;
    if (length < 8192)
        return length + length / 16;
    if (length <= 0xFFFFFDFFu)
        return length + 512;
    return 0xFFFFFFFFu;
}

// Set while an allocation failure is being reported on this thread: formatting the
// report's fields allocates too, and a failure there must not report again (and
// so on without end) when memory is exhausted.
thread_local bool t_reportingAllocationFailure = false;

void ReportAllocationFailure(uint32_t line, uint32_t code, uint64_t bytes, uint32_t request) {
    if (t_reportingAllocationFailure)
        return;
    t_reportingAllocationFailure = true;
    const EventValue values[] = {
        {"bytes", StrFormat("%llu", static_cast<unsigned long long>(bytes)), true},
        {"codeunits", StrFormat("%u", request), true},
    };
    ReportLibraryError(kSourceFile, line, code, "String allocation failed", values, 2);
    t_reportingAllocationFailure = false;
}

void ReportOverflow(uint32_t line, uint32_t code, uint32_t length1, uint32_t length2) {
    const EventValue values[] = {
        {"length1", StrFormat("%u", length1), true},
        {"length2", StrFormat("%u", length2), true},
    };
    ReportLibraryError(kSourceFile, line, code, "String overflow detected", values, 2);
}

uint32_t MeasureStr(StrBlock* block) {
    if (block->length == 0 && block->text[0] != 0)
        block->length = static_cast<uint32_t>(strnlen(block->text, block->capacity));
    return block->length;
}

uint32_t MeasureWStr(WStrBlock* block) {
    if (block->length == 0 && block->text[0] != 0)
        block->length = static_cast<uint32_t>(wcsnlen(block->text, block->capacity));
    return block->length;
}

} // namespace

// ---------------------------------------------------------------------------
// Blocks

StrBlock* AllocStrBuffer(uint32_t request, uint32_t length) {
    if (request == 0)
        return nullptr;
    uint64_t rounded = (static_cast<uint64_t>(request) + 23) & ~7ull;
    if (rounded > 1024)
        rounded = (rounded | 15) + 1; // the next multiple of 16 strictly above
    uint64_t capacity = rounded - 13;
    if (capacity > kMax32)
        capacity = request;
    auto* block = static_cast<StrBlock*>(AllocParticle(capacity + 16));
    if (block == nullptr) {
        ReportAllocationFailure(__LINE__, 1, static_cast<uint64_t>(request) + 16, request);
        SetLastError(ERROR_OUTOFMEMORY);
        return nullptr;
    }
    block->count = 1;
    block->capacity = static_cast<uint32_t>(capacity);
    block->length = length;
    block->text[0] = 0;
    block->text[capacity] = 0; // a guard, so an unterminated Reserve buffer still measures
    return block;
}

wchar_t* AllocWStrBuffer(uint32_t request, uint32_t length) {
    if (request == 0)
        return nullptr;
    uint64_t rounded = (2 * static_cast<uint64_t>(request) + 23) & ~7ull;
    if (rounded > 1024)
        rounded = (rounded | 15) + 1;
    uint64_t capacity = (rounded - 14) / 2;
    if (capacity > kMax32)
        capacity = request;
    auto* block = static_cast<WStrBlock*>(AllocParticle(capacity * 2 + 16));
    if (block == nullptr) {
        ReportAllocationFailure(__LINE__, 600, static_cast<uint64_t>(request) * 2 + 16, request);
        SetLastError(ERROR_OUTOFMEMORY);
        return nullptr;
    }
    block->count = 1;
    block->capacity = static_cast<uint32_t>(capacity);
    block->length = length;
    block->text[0] = 0;
    block->text[capacity] = 0;
    return block->text;
}

uint64_t StrBlockBytes(const StrBlock* block) {
    return static_cast<uint64_t>(block->capacity) + 16;
}

uint64_t WStrBlockBytes(const WStrBlock* block) {
    return static_cast<uint64_t>(block->capacity) * 2 + 16;
}

void FreeStrBuffer(StrBlock* block) {
    if (block != nullptr)
        FreeParticle(StrBlockBytes(block), block);
}

void DestroyCounted(StrBlock* block) {
    FreeStrBuffer(block);
}

void DestroyCounted(WStrBlock* block) {
    if (block != EmptyWStr())
        FreeParticle(WStrBlockBytes(block), block);
}

void ReleaseWStr(wchar_t* text) {
    if (text == nullptr)
        return;
    WStrBlock* block = WStrBlockOf(text);
    if (block != EmptyWStr())
        Reference::Unlink(block);
}

const char* EmptyText() {
    return s_emptyText;
}

namespace {
INIT_ONCE s_emptyWStrOnce = INIT_ONCE_STATIC_INIT;
WStrBlock* s_emptyWStr = nullptr;
// Used only when even the first allocation fails: header plus one zero unit.
alignas(8) unsigned char s_emptyWStrFallback[16] = {1};

BOOL CALLBACK CreateEmptyWStr(PINIT_ONCE, PVOID, PVOID*) {
    wchar_t* text = AllocWStrBuffer(1, 0);
    WStrBlock* block =
        text != nullptr ? WStrBlockOf(text) : reinterpret_cast<WStrBlock*>(s_emptyWStrFallback);
    // One extra link, so that the shared block's count never reaches zero.
    Reference::Link(block);
    // Published complete: other threads read it without the one-time lock.
    __atomic_store_n(&s_emptyWStr, block, __ATOMIC_RELEASE);
    return TRUE;
}
} // namespace

WStrBlock* EmptyWStr() {
    WStrBlock* block = __atomic_load_n(&s_emptyWStr, __ATOMIC_ACQUIRE);
    if (block == nullptr) {
        LastErrorKeeper keep;
        InitOnceExecuteOnce(&s_emptyWStrOnce, CreateEmptyWStr, nullptr, nullptr);
        block = __atomic_load_n(&s_emptyWStr, __ATOMIC_ACQUIRE);
    }
    return block;
}

bool CheckWStrOverflow(uint32_t length1, uint32_t length2) {
    if (static_cast<uint64_t>(length1) + length2 <= kMax32)
        return false;
    ReportOverflow(__LINE__, 601, length1, length2);
    SetLastError(ERROR_OUTOFMEMORY);
    return true;
}

void ReportStrOverflow(uint32_t length1, uint32_t length2) {
    ReportOverflow(__LINE__, 2, length1, length2);
    SetLastError(ERROR_OUTOFMEMORY);
}

// ---------------------------------------------------------------------------
// Str

uint32_t Str::Length() const {
    return m_block ? MeasureStr(m_block) : 0;
}

void Str::Assign(const char* text) {
    if (text == nullptr || text[0] == 0) {
        Clear();
        return;
    }
    const size_t length = strlen(text);
    if (length > kMax32) {
        ReportStrOverflow(0, 0);
        return;
    }
    Assign(text, static_cast<uint32_t>(length));
}

void Str::Assign(const char* text, uint32_t length) {
    if (text == nullptr || length == 0) {
        Clear();
        return;
    }
    StrBlock* block = AllocStrBuffer(length, length);
    if (block != nullptr) {
        memcpy(block->text, text, length);
        block->text[length] = 0;
    }
    Reference::Unlink(m_block);
    m_block = block;
}

char* Str::Reserve(uint32_t n) {
    StrBlock* block = AllocStrBuffer(n == 0 ? 1 : n, 0);
    if (block == nullptr)
        return nullptr;
    Reference::Unlink(m_block);
    m_block = block;
    return block->text;
}

bool Str::Append(const Str& other) {
    return Append(other.Text(), other.Length());
}

bool Str::Append(const char* text) {
    return text == nullptr ? true : Append(text, static_cast<uint32_t>(strnlen(text, kMax32)));
}

bool Str::Append(const char* text, uint32_t length2) {
    if (text == nullptr || length2 == 0)
        return true;
    const uint32_t length1 = Length();
    if (static_cast<uint64_t>(length1) + length2 > kMax32) {
        ReportStrOverflow(length1, length2);
        return false;
    }
    const uint32_t total = length1 + length2;
    if (m_block != nullptr && Reference::Count(m_block) < 2 && m_block->capacity >= total) {
        if (length2 == 1)
            m_block->text[length1] = text[0];
        else
            memmove(m_block->text + length1, text, length2);
        m_block->text[total] = 0;
        m_block->length = total;
        return true;
    }
    StrBlock* block = AllocStrBuffer(GrowthRequest(total), total);
    if (block == nullptr)
        return false;
    if (length1 != 0)
        memcpy(block->text, m_block->text, length1);
    memcpy(block->text + length1, text, length2);
    block->text[total] = 0;
    Reference::Unlink(m_block);
    m_block = block;
    return true;
}

Str Str::FromUtf16(const wchar_t* text) {
    if (text == nullptr)
        return Str();
    const size_t n = wcslen(text);
    return FromUtf16(text, n > kMax32 ? 0xFFFFFFFFu : static_cast<uint32_t>(n));
}

Str Str::FromUtf16(const WStr& text) {
    return FromUtf16(text.Text(), text.Length());
}

Str Str::FromUtf16Char(wchar_t unit) {
    return unit == 0 ? Str() : FromUtf16(&unit, 1);
}

Str Str::FromUtf16(const wchar_t* text, uint32_t n) {
    Str result;
    if (text == nullptr || n == 0 || n == 0xFFFFFFFFu)
        return result;
    const uint32_t slack = n < 4 ? 1 : (n < 8 ? n / 2 : n / 8);
    const uint64_t request = static_cast<uint64_t>(n) + slack;
    result.m_block =
        AllocStrBuffer(request > kMax32 ? 0xFFFFFFFFu : static_cast<uint32_t>(request), n);
    if (result.m_block != nullptr) {
        const uint32_t written =
            Utf16ToUtf8(text, n, result.m_block->text, result.m_block->capacity);
        if (written != 0) {
            result.m_block->text[written] = 0;
            if (written != n)
                result.m_block->length = written;
            SetLastError(0);
            return result;
        }
    }
    // Too small (or invalid): measure, then convert once more into a fitting block.
    const uint32_t needed = Utf16ToUtf8(text, n, nullptr, 0);
    if (needed == 0) {
        LastErrorKeeper keep; // the conversion's error, not the release's
        result.Clear();
        return result;
    }
    if (result.m_block == nullptr || result.m_block->capacity < needed) {
        StrBlock* block = AllocStrBuffer(needed, needed);
        Reference::Unlink(result.m_block);
        result.m_block = block;
        if (block == nullptr)
            return result;
    }
    const uint32_t written = Utf16ToUtf8(text, n, result.m_block->text, result.m_block->capacity);
    if (written == 0) {
        LastErrorKeeper keep;
        result.Clear();
        return result;
    }
    result.m_block->text[written] = 0;
    result.m_block->length = written;
    SetLastError(0);
    return result;
}

bool Str::operator==(const Str& other) const {
    const uint32_t length = Length();
    return length == other.Length() && memcmp(Text(), other.Text(), length) == 0;
}

bool Str::operator==(const char* other) const {
    return strcmp(Text(), other == nullptr ? "" : other) == 0;
}

// ---------------------------------------------------------------------------
// WStr

WStr::WStr() : m_text(EmptyWStr()->text) {}

WStr::WStr(const wchar_t* text) : WStr() {
    if (text != nullptr) {
        const size_t n = wcslen(text);
        Assign(text, n > kMax32 ? 0 : static_cast<uint32_t>(n));
    }
}

WStr::WStr(const wchar_t* text, uint32_t length) : WStr() {
    Assign(text, length);
}

WStr::WStr(WStr&& other) noexcept : m_text(other.m_text) {
    other.m_text = EmptyWStr()->text;
}

WStr& WStr::operator=(const WStr& other) {
    LinkText(other.m_text);
    ReleaseWStr(m_text);
    m_text = other.m_text;
    return *this;
}

WStr& WStr::operator=(WStr&& other) noexcept {
    if (this != &other) {
        ReleaseWStr(m_text);
        m_text = other.m_text;
        other.m_text = EmptyWStr()->text;
    }
    return *this;
}

void WStr::LinkText(wchar_t* text) {
    WStrBlock* block = WStrBlockOf(text);
    if (block != EmptyWStr())
        Reference::Link(block);
}

uint32_t WStr::Length() const {
    return MeasureWStr(WStrBlockOf(m_text));
}

void WStr::Assign(const wchar_t* text, uint32_t length) {
    wchar_t* fresh = EmptyWStr()->text;
    if (text != nullptr && length != 0) {
        wchar_t* buffer = AllocWStrBuffer(length, length);
        if (buffer != nullptr) {
            memcpy(buffer, text, static_cast<size_t>(length) * 2);
            buffer[length] = 0;
            fresh = buffer;
        }
    }
    ReleaseWStr(m_text);
    m_text = fresh;
}

wchar_t* WStr::Reserve(uint32_t n) {
    wchar_t* buffer = AllocWStrBuffer(n == 0 ? 1 : n, 0);
    if (buffer == nullptr)
        return nullptr;
    ReleaseWStr(m_text);
    m_text = buffer;
    return buffer;
}

bool WStr::Append(const wchar_t* text) {
    return text == nullptr ? true : Append(text, static_cast<uint32_t>(wcsnlen(text, kMax32)));
}

bool WStr::Append(const wchar_t* text, uint32_t length2) {
    if (text == nullptr || length2 == 0)
        return true;
    const uint32_t length1 = Length();
    if (CheckWStrOverflow(length1, length2))
        return false;
    const uint32_t total = length1 + length2;
    WStrBlock* block = WStrBlockOf(m_text);
    if (block != EmptyWStr() && Reference::Count(block) < 2 && block->capacity >= total) {
        memmove(m_text + length1, text, static_cast<size_t>(length2) * 2);
        m_text[total] = 0;
        block->length = total;
        return true;
    }
    wchar_t* buffer = AllocWStrBuffer(GrowthRequest(total), total);
    if (buffer == nullptr)
        return false;
    memcpy(buffer, m_text, static_cast<size_t>(length1) * 2);
    memcpy(buffer + length1, text, static_cast<size_t>(length2) * 2);
    buffer[total] = 0;
    ReleaseWStr(m_text);
    m_text = buffer;
    return true;
}

WStr WStr::FromUtf8(const char* text, uint32_t length) {
    WStr result;
    if (text == nullptr || length == 0)
        return result;
    wchar_t* buffer = AllocWStrBuffer(length, 0);
    if (buffer == nullptr)
        return result;
    const uint32_t written = Utf8ToUtf16(text, length, buffer, WStrBlockOf(buffer)->capacity);
    if (written == 0) {
        LastErrorKeeper keep;
        ReleaseWStr(buffer);
        return result;
    }
    buffer[written] = 0;
    WStrBlockOf(buffer)->length = written;
    ReleaseWStr(result.m_text);
    result.m_text = buffer;
    return result;
}

// ---------------------------------------------------------------------------
// Comparison

namespace {
CompareTextFunction s_compareText = nullptr;

int CompareBytes(const char* a, const char* b, bool ignoreCase) {
    const auto* x = reinterpret_cast<const unsigned char*>(a);
    const auto* y = reinterpret_cast<const unsigned char*>(b);
    for (;; ++x, ++y) {
        int cx = *x;
        int cy = *y;
        if (ignoreCase) {
            if (cx >= 'A' && cx <= 'Z')
                cx += 'a' - 'A';
            if (cy >= 'A' && cy <= 'Z')
                cy += 'a' - 'A';
        }
        if (cx != cy)
            return cx < cy ? -1 : 1;
        if (cx == 0)
            return 0;
    }
}
} // namespace

void SetCompareTextFunction(CompareTextFunction function) {
    s_compareText = function;
}

int CompareUtf8(uint32_t locale, uint32_t flags, const char* a, int lengthA, const char* b,
                int lengthB) {
    if (a == nullptr)
        a = "";
    if (b == nullptr)
        b = "";
    const uint32_t na =
        lengthA < 0 ? static_cast<uint32_t>(strlen(a)) : static_cast<uint32_t>(lengthA);
    const uint32_t nb =
        lengthB < 0 ? static_cast<uint32_t>(strlen(b)) : static_cast<uint32_t>(lengthB);
    const WStr wa = WStr::FromUtf8(a, na);
    const WStr wb = WStr::FromUtf8(b, nb);
    // A text that does not convert cannot be compared by the platform.
    if ((na != 0 && wa.IsEmpty()) || (nb != 0 && wb.IsEmpty()))
        return 0;
    return CompareStringW(locale, flags, wa.Text(), static_cast<int>(wa.Length()), wb.Text(),
                          static_cast<int>(wb.Length()));
}

int CompareText(const char* a, const char* b) {
    return CompareTextEx(a, b, false);
}

int CompareTextEx(const char* a, const char* b, bool ignoreCase) {
    if (s_compareText != nullptr)
        return s_compareText(a, b, ignoreCase);
    if (a == nullptr)
        a = "";
    if (b == nullptr)
        b = "";
    LCID locale = GetThreadLocale();
    if (locale == 0)
        locale = LOCALE_USER_DEFAULT;
    switch (CompareUtf8(locale, ignoreCase ? NORM_IGNORECASE : 0, a, -1, b, -1)) {
    case CSTR_LESS_THAN:
        return -1;
    case CSTR_EQUAL:
        return 0;
    case CSTR_GREATER_THAN:
        return 1;
    default:
        return CompareBytes(a, b, ignoreCase);
    }
}

// ---------------------------------------------------------------------------
// Upper-casing and formatting

void UpperCaseUtf8(char* text) {
    if (text == nullptr)
        return;
    auto* p = reinterpret_cast<unsigned char*>(text);
    while (*p != 0) {
        if (*p < 0x80) {
            if (*p >= 'a' && *p <= 'z')
                *p = static_cast<unsigned char>(*p - ('a' - 'A'));
            ++p;
            continue;
        }
        // A broken sequence, or a stray byte, is passed over one byte at a time.
        uint32_t cp = 0;
        const uint32_t length = DecodeUtf8Sequence(p, nullptr, cp);
        if (length == 0) {
            ++p;
            continue;
        }
        if (cp < 0x10000 && IsCharAlphaW(static_cast<wchar_t>(cp))) {
            const auto upper = static_cast<wchar_t>(reinterpret_cast<ULONG_PTR>(
                CharUpperW(reinterpret_cast<LPWSTR>(static_cast<ULONG_PTR>(cp)))));
            char encoded[4];
            if (Utf16ToUtf8(&upper, 1, encoded, sizeof encoded) == length)
                memcpy(p, encoded, length);
        }
        p += length;
    }
}

const char* ParseDecimal(const char* text, uint64_t maximum, uint64_t& value) {
    uint64_t number = 0;
    const char* p = text;
    for (; *p >= '0' && *p <= '9'; ++p) {
        const uint64_t digit = static_cast<uint64_t>(*p - '0');
        if (number > (maximum - digit) / 10 || digit > maximum)
            return nullptr;
        number = number * 10 + digit;
    }
    if (p == text)
        return nullptr;
    value = number;
    return p;
}
