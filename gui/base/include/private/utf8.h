// The UTF-8 sequence decoder of the string conversions, shared with the
// upper-casing. (The JSON writer and the comparison judge sequences by rules of
// their own on purpose.)
#pragma once

#include <cstdint>

// Decodes the sequence at p; end is one past the last byte that may be read,
// or null for zero-terminated text (a terminator is never a continuation byte).
// Returns the sequence's length with its value in codePoint, or 0 when it is
// invalid: a lead byte from 0x80 to 0xBF or from 0xF8 up, a sequence cut short,
// a byte that is not 10xxxxxx where a continuation must be, a value from
// 0x110000 up. Overlong forms and encoded surrogates are accepted by design.
inline uint32_t DecodeUtf8Sequence(const unsigned char* p, const unsigned char* end,
                                   uint32_t& codePoint) {
    const unsigned char lead = p[0];
    if (lead < 0x80) {
        codePoint = lead;
        return 1;
    }
    if (lead < 0xC0 || lead >= 0xF8)
        return 0;
    const uint32_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (end != nullptr && end - p < static_cast<intptr_t>(length))
        return 0;
    uint32_t value = lead & (0x7Fu >> length);
    for (uint32_t k = 1; k < length; ++k) {
        if ((p[k] & 0xC0) != 0x80)
            return 0;
        value = (value << 6) | (p[k] & 0x3Fu);
    }
    if (value >= 0x110000)
        return 0;
    codePoint = value;
    return length;
}
