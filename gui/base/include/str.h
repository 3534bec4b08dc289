// Reference-counted, immutable-when-shared strings: Str holds UTF-8 bytes,
// WStr holds UTF-16 units for the platform's wide interfaces. A null Str is
// the empty string. Text written through Reserve is measured at first use.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "private/strblock.h"

class WStr;

class Str {
  public:
    Str() = default;
    explicit Str(const char* text) { Assign(text); }
    Str(const char* text, uint32_t length) { Assign(text, length); }
    Str(const Str& other) : m_block(other.m_block) { Reference::Link(m_block); }
    Str(Str&& other) noexcept : m_block(other.m_block) { other.m_block = nullptr; }
    ~Str() { Reference::Unlink(m_block); }
    Str& operator=(const Str& other) {
        Reference::Link(other.m_block);
        Reference::Unlink(m_block);
        m_block = other.m_block;
        return *this;
    }
    Str& operator=(Str&& other) noexcept {
        if (this != &other) {
            Reference::Unlink(m_block);
            m_block = other.m_block;
            other.m_block = nullptr;
        }
        return *this;
    }

    const char* Text() const { return m_block ? m_block->text : EmptyText(); }
    uint32_t Length() const;
    bool IsEmpty() const { return Length() == 0; }
    uint32_t Capacity() const { return m_block ? m_block->capacity : 0; }
    StrBlock* Block() const { return m_block; }
    // The text to change in place: null unless this handle is its one holder.
    char* MutableText() {
        return m_block && Reference::Count(m_block) < 2 ? m_block->text : nullptr;
    }

    // Replaces the value by a copy of a zero-terminated text; null or empty gives null.
    void Assign(const char* text);
    void Assign(const char* text, uint32_t length);
    // Replaces the value by a new block of capacity request max(n, 1) and hands
    // out its text (zero first unit); null when allocation failed.
    char* Reserve(uint32_t n);
    // Appends in place while unshared and within capacity, else into a new block
    // with growth slack. False when the sum overflows or allocation failed.
    bool Append(const Str& other);
    bool Append(const char* text, uint32_t length);
    bool Append(const char* text);
    bool AppendChar(char c) { return Append(&c, 1); }
    void Clear() { *this = Str(); }

    static Str FromUtf16(const wchar_t* text);
    static Str FromUtf16(const wchar_t* text, uint32_t count);
    static Str FromUtf16(const WStr& text);
    static Str FromUtf16Char(wchar_t unit);

    bool operator==(const Str& other) const;
    bool operator==(const char* other) const;

  private:
    StrBlock* m_block = nullptr;
};

class WStr {
  public:
    WStr();
    explicit WStr(const wchar_t* text);
    WStr(const wchar_t* text, uint32_t length);
    WStr(const WStr& other) : m_text(other.m_text) { LinkText(m_text); }
    WStr(WStr&& other) noexcept;
    ~WStr() { ReleaseWStr(m_text); }
    WStr& operator=(const WStr& other);
    WStr& operator=(WStr&& other) noexcept;

    const wchar_t* Text() const { return m_text; }
    wchar_t* MutableText() { return m_text; }
    uint32_t Length() const;
    bool IsEmpty() const { return Length() == 0; }
    uint32_t Capacity() const { return WStrBlockOf(m_text)->capacity; }
    WStrBlock* Block() const { return WStrBlockOf(m_text); }

    void Assign(const wchar_t* text, uint32_t length);
    wchar_t* Reserve(uint32_t n);
    bool Append(const wchar_t* text, uint32_t length);
    bool Append(const wchar_t* text);
    bool Append(const WStr& other) { return Append(other.Text(), other.Length()); }

    static WStr FromUtf8(const char* text, uint32_t length);
    static WStr FromUtf8(const Str& text) { return FromUtf8(text.Text(), text.Length()); }

  private:
    static void LinkText(wchar_t* text);
    wchar_t* m_text;
};

// Conversions with the platform's contract: null source or count 0 gives last
// error 87; count 0xFFFFFFFF means zero-terminated, terminator included;
// capacity 0 measures; invalid input 1113; overflow 534; too small 122.
// The decoder accepts overlong forms and encoded surrogates.
uint32_t Utf16ToUtf8(const wchar_t* source, uint32_t count, char* destination, uint32_t capacity);
uint32_t Utf8ToUtf16(const char* source, uint32_t count, wchar_t* destination, uint32_t capacity);

// Locale-aware comparisons: -1, 0 or 1.
int CompareText(const char* a, const char* b);
int CompareTextEx(const char* a, const char* b, bool ignoreCase);
// CompareStringW over both texts converted to UTF-16: 1 less, 2 equal, 3 greater, 0 failed.
int CompareUtf8(uint32_t locale, uint32_t flags, const char* a, int lengthA, const char* b,
                int lengthB);
using CompareTextFunction = int (*)(const char* a, const char* b, bool ignoreCase);
void SetCompareTextFunction(CompareTextFunction function);

// In-place upper-casing of UTF-8: ASCII directly, other letters through
// CharUpperW, written back only when the UTF-8 length stays the same.
void UpperCaseUtf8(char* text);

// The unsigned decimal number at `text`: one digit or more, at most `maximum`.
// Returns the position after the digits, or null (value unchanged) when there
// is no digit or the number is above maximum.
const char* ParseDecimal(const char* text, uint64_t maximum, uint64_t& value);

// printf-style formatting into a Str (C99 conversions); empty when the format
// fails, also by a fault on a bad argument, which the library's guard reports.
Str StrFormat(const char* format, ...) __attribute__((format(gnu_printf, 1, 2)));
Str StrFormatV(const char* format, va_list arguments);
// The same into a WStr: "%s" takes a narrow text, "%ls" a wide one.
WStr WStrFormat(const wchar_t* format, ...);
WStr WStrFormatV(const wchar_t* format, va_list arguments);
