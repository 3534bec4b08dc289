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
    const auto continues = [](unsigned char c) { return (c & 0xC0) == 0x80; };
    const unsigned char lead = p[0];
    if (lead < 0x80) {
        codePoint = lead;
        return 1;
    }
    if (lead < 0xC0 || lead >= 0xF8)
        return 0;
    // Each length spelled out: a continuation byte is read only after the one
    // before it proved to be one, so a terminator stops the reading.
    if (lead < 0xE0) {
        if ((end != nullptr && end - p < 2) || !continues(p[1]))
            return 0;
        codePoint = (lead & 0x1Fu) << 6 | (p[1] & 0x3Fu);
        return 2;
    }
    if (lead < 0xF0) {
        if ((end != nullptr && end - p < 3) || !continues(p[1]) || !continues(p[2]))
            return 0;
        codePoint = (lead & 0x0Fu) << 12 | (p[1] & 0x3Fu) << 6 | (p[2] & 0x3Fu);
        return 3;
    }
    if ((end != nullptr && end - p < 4) || !continues(p[1]) || !continues(p[2]) || !continues(p[3]))
        return 0;
    const uint32_t value =
        (lead & 0x07u) << 18 | (p[1] & 0x3Fu) << 12 | (p[2] & 0x3Fu) << 6 | (p[3] & 0x3Fu);
    if (value >= 0x110000)
        return 0;
    codePoint = value;
    return 4;
}
