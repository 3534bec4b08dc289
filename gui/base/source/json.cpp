// JSON string literals and the small pieces of a record around them.
#include "json.h"

#include <emmintrin.h>

#include <cstddef>
#include <cstring>
#include <utility>

namespace {

const char kHexDigits[] = "0123456789abcdef";
constexpr uint64_t kMax32 = 0xFFFFFFFFull;

// Escapes are collected here and handed to the writer in pieces; one
// character writes at most 12 bytes (a surrogate pair).
constexpr uint32_t kPendingBytes = 2048;
constexpr uint32_t kLongestEscape = 12;

// Smallest value that needs n bytes, to tell an overlong form (n = 2..4).
constexpr uint32_t kShortestValue[5] = {0, 0, 0x80, 0x800, 0x10000};

bool IsRunByte(unsigned char c) {
    return c >= 0x20 && c < 0x80 && c != '"' && c != '\\';
}

bool IsContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

// strlen, 16 bytes at a time: the runtime's own goes byte by byte under Wine
// and took longer than the whole literal. Aligned loads never cross into the
// next page, so reading past the terminator within one is harmless.
size_t MeasureText(const char* text) {
    const uintptr_t offset = reinterpret_cast<uintptr_t>(text) & 15;
    const auto* block = reinterpret_cast<const __m128i*>(text - offset);
    const __m128i zero = _mm_setzero_si128();
    unsigned mask =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_load_si128(block), zero)));
    mask &= ~0u << offset;
    while (mask == 0) {
        ++block;
        mask =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_load_si128(block), zero)));
    }
    return static_cast<size_t>(reinterpret_cast<const char*>(block) + __builtin_ctz(mask) - text);
}

// First byte at or after p that ends a run of printable ASCII. Bytes from 0x80
// up compare below 0x20 as signed bytes, so one comparison covers both ends.
const unsigned char* ScanRun(const unsigned char* p, const unsigned char* end) {
    const __m128i space = _mm_set1_epi8(0x20);
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    while (end - p >= 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i stop = _mm_or_si128(
            _mm_cmplt_epi8(bytes, space),
            _mm_or_si128(_mm_cmpeq_epi8(bytes, quote), _mm_cmpeq_epi8(bytes, backslash)));
        const int mask = _mm_movemask_epi8(stop);
        if (mask != 0)
            return p + __builtin_ctz(static_cast<unsigned>(mask));
        p += 16;
    }
    while (p < end && IsRunByte(*p))
        ++p;
    return p;
}

// Makes room for `extra` more bytes in an unshared block of the writer.
// Str::Append grows long strings by a fixed slack, which would make a long
// literal quadratic; grow by half the length instead.
bool EnsureRoom(Str& writer, uint64_t extra) {
    const uint32_t length = writer.Length();
    const StrBlock* block = writer.Block();
    if (block != nullptr && Reference::Count(block) < 2 && block->capacity - length >= extra)
        return true;
    uint64_t request = length + extra;
    const uint64_t grown = length + length / 2 + 32;
    if (request < grown)
        request = grown;
    if (request > kMax32)
        request = length + extra;
    if (request > kMax32) {
        ReportStrOverflow(length, extra > kMax32 ? 0xFFFFFFFFu : static_cast<uint32_t>(extra));
        return false;
    }
    Str fresh;
    if (fresh.Reserve(static_cast<uint32_t>(request)) == nullptr ||
        !fresh.Append(writer.Text(), length))
        return false;
    writer = std::move(fresh);
    return true;
}

bool Emit(Str& writer, const char* piece, uint64_t length) {
    // One more byte than asked for: the closing quote usually follows.
    return EnsureRoom(writer, length + 1) && writer.Append(piece, static_cast<uint32_t>(length));
}

// Two lower-case hexadecimal digits for every byte value.
struct HexPairs {
    char pair[256][2];
    constexpr HexPairs() : pair() {
        for (int i = 0; i < 256; ++i) {
            pair[i][0] = kHexDigits[i >> 4];
            pair[i][1] = kHexDigits[i & 15];
        }
    }
};
constexpr HexPairs kHexPairs;

[[gnu::always_inline]] inline char* PutUnit(char* out, uint32_t unit) {
    out[0] = '\\';
    out[1] = 'u';
    memcpy(out + 2, kHexPairs.pair[(unit >> 8) & 0xFF], 2);
    memcpy(out + 4, kHexPairs.pair[unit & 0xFF], 2);
    return out + 6;
}

// A byte that forms a character on its own and is not part of a run.
char* PutByte(char* out, unsigned char byte) {
    char short_form = 0;
    switch (byte) {
    case 8:
        short_form = 'b';
        break;
    case 9:
        short_form = 't';
        break;
    case 10:
        short_form = 'n';
        break;
    case 12:
        short_form = 'f';
        break;
    case 13:
        short_form = 'r';
        break;
    case '"':
        short_form = '"';
        break;
    case '\\':
        short_form = '\\';
        break;
    default:
        // The signed byte's low 16 bits: a stray byte from 0x80 up gives \uff80..\uffff.
        return PutUnit(out, static_cast<uint16_t>(static_cast<int8_t>(byte)));
    }
    out[0] = '\\';
    out[1] = short_form;
    return out + 2;
}

} // namespace

bool WriteJsonString(const char* text, Str& writer, Str* error, bool append) {
    // The text may lie in the writer's own block: hold that block, so growing
    // or resetting the writer cannot free it under us.
    Str held;
    if (text != nullptr && writer.Block() != nullptr && text >= writer.Text() &&
        text <= writer.Text() + writer.Capacity())
        held = writer;
    if (!append) {
        // A record writer is reset for every record: keep an unshared block and
        // its capacity rather than allocate anew (and touch fresh pages) each time.
        StrBlock* block = writer.Block();
        if (block != nullptr && Reference::Count(block) < 2) {
            block->length = 0;
            block->text[0] = 0;
        } else {
            writer.Clear();
        }
    }

    const auto* p = reinterpret_cast<const unsigned char*>(text != nullptr ? text : "");
    const size_t total = MeasureText(reinterpret_cast<const char*>(p));
    const unsigned char* const end = p + total;
    // Enough for the whole literal when the text is plain printable ASCII.
    if (!EnsureRoom(writer, static_cast<uint64_t>(total) + 2))
        return false;

    char pending[kPendingBytes];
    char* out = pending;
    *out++ = '"';
    const char* message = nullptr;
    while (p < end) {
        if (IsRunByte(*p)) {
            const unsigned char* run = p;
            p = ScanRun(p + 1, end);
            // A byte followed by continuation bytes is the lead of a longer character.
            if (p < end && IsContinuation(*p))
                --p;
            const size_t length = static_cast<size_t>(p - run);
            const size_t room = static_cast<size_t>(pending + kPendingBytes - out);
            if (length <= 16 && room >= 16 && end - run >= 16) {
                // Short runs between escapes are the common case in log text:
                // one 16-byte copy instead of a call; the excess is overwritten.
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                                 _mm_loadu_si128(reinterpret_cast<const __m128i*>(run)));
                out += length;
            } else if (length <= room) {
                memcpy(out, run, length);
                out += length;
            } else if (!Emit(writer, pending, static_cast<uint64_t>(out - pending)) ||
                       !Emit(writer, reinterpret_cast<const char*>(run), length)) {
                return false;
            } else {
                out = pending;
            }
            if (p == end)
                break;
        }
        if (pending + kPendingBytes - out < static_cast<ptrdiff_t>(kLongestEscape)) {
            if (!Emit(writer, pending, static_cast<uint64_t>(out - pending)))
                return false;
            out = pending;
        }

        // The character: its lead byte and every continuation byte after it
        // (the terminator stops the count; five are as bad as more).
        const unsigned char lead = *p;
        uint32_t n = 1;
        while (n < 5 && IsContinuation(p[n]))
            ++n;
        if (n == 1) {
            out = PutByte(out, lead);
            ++p;
            continue;
        }
        if (n >= 5) {
            message = kJsonUtf8Invalid;
            break;
        }
        uint32_t value = lead & (n == 2 ? 0x1Fu : n == 3 ? 0x0Fu : 0x07u);
        for (uint32_t i = 1; i < n; ++i) {
            if (!IsContinuation(p[i])) {
                message = kJsonUtf8Sequence;
                break;
            }
            value = value * 64 + (p[i] & 0x3Fu);
        }
        if (message != nullptr)
            break;
        if (value >= 0x110000) {
            message = kJsonUtf8Range;
            break;
        }
        if (value >= 0xD800 && value <= 0xDFFF) {
            message = kJsonUtf8Surrogate;
            break;
        }
        if (value < kShortestValue[n]) {
            message = kJsonUtf8Length;
            break;
        }
        if (value < 0x10000) {
            out = PutUnit(out, value);
        } else {
            out = PutUnit(out, 0xD800 + ((value - 0x10000) >> 10));
            out = PutUnit(out, 0xDC00 + ((value - 0x10000) & 0x3FF));
        }
        p += n;
    }

    if (message != nullptr && error != nullptr && !(*error == message))
        error->Assign(message);
    if (out == pending + kPendingBytes) {
        if (!Emit(writer, pending, kPendingBytes))
            return false;
        out = pending;
    }
    *out++ = '"';
    if (!Emit(writer, pending, static_cast<uint64_t>(out - pending)))
        return false;
    return message == nullptr;
}

bool WriteJsonNumber(uint64_t value, Str& writer) {
    char digits[20];
    char* first = digits + sizeof digits;
    do {
        *--first = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return writer.Append(first, static_cast<uint32_t>(digits + sizeof digits - first));
}

bool WriteJsonName(const char* name, Str& writer) {
    return WriteJsonString(name, writer, nullptr, true) && writer.AppendChar(':');
}
