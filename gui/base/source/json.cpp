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
constexpr uint32_t kLongestEscape = 12 + 2; // a surrogate pair, and a word's excess

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

// The bytes that end a run of printable ASCII, one bit each. Bytes from 0x80
// up compare below 0x20 as signed bytes, so one comparison covers both ends.
inline int StopMask(__m128i bytes) {
    const __m128i stop = _mm_or_si128(_mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20)),
                                      _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')),
                                                   _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))));
    return _mm_movemask_epi8(stop);
}

// First byte at or after p that ends a run of printable ASCII.
const unsigned char* ScanRun(const unsigned char* p, const unsigned char* end) {
    while (end - p >= 16) {
        const int mask = StopMask(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
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

// Escapes are written by whole 8-byte words; the bytes past an escape are
// written over by what follows (the pending buffer keeps room for them).
constexpr uint64_t kBackslashU = '\\' | 'u' << 8;

// Two lower-case hexadecimal digits for every byte value, as a 16-bit word.
struct HexPairs {
    uint16_t pair[256];
    constexpr HexPairs() : pair() {
        for (int i = 0; i < 256; ++i)
            pair[i] = static_cast<uint16_t>(kHexDigits[i >> 4] | kHexDigits[i & 15] << 8);
    }
};
constexpr HexPairs kHexPairs;

[[gnu::always_inline]] inline char* PutUnit(char* out, uint32_t unit) {
    const uint64_t word = kBackslashU | uint64_t(kHexPairs.pair[(unit >> 8) & 0xFF]) << 16 |
                          uint64_t(kHexPairs.pair[unit & 0xFF]) << 32;
    memcpy(out, &word, 8);
    return out + 6;
}

// The escape of every byte that forms a character on its own: a run byte
// itself, the short forms; \u and four digits of the signed byte's low 16
// bits for the others, so a stray byte from 0x80 up gives \uff80..\uffff.
struct ByteEscapes {
    uint64_t word[256];
    uint8_t length[256];
    constexpr ByteEscapes() : word(), length() {
        const char shortForms[][2] = {{8, 'b'},  {9, 't'},   {10, 'n'},   {12, 'f'},
                                      {13, 'r'}, {'"', '"'}, {'\\', '\\'}};
        for (int b = 0; b < 256; ++b) {
            const auto unit = static_cast<uint16_t>(static_cast<int8_t>(b));
            word[b] = kBackslashU | uint64_t(kHexPairs.pair[unit >> 8]) << 16 |
                      uint64_t(kHexPairs.pair[unit & 0xFF]) << 32;
            length[b] = 6;
        }
        for (int b = 0x20; b < 0x80; ++b) { // run bytes stand for themselves
            word[b] = static_cast<uint64_t>(b);
            length[b] = 1;
        }
        for (const auto& form : shortForms) {
            word[static_cast<unsigned char>(form[0])] =
                '\\' | uint64_t(static_cast<unsigned char>(form[1])) << 8;
            length[static_cast<unsigned char>(form[0])] = 2;
        }
    }
};
constexpr ByteEscapes kByteEscapes;

inline char* PutByte(char* out, unsigned char byte) {
    memcpy(out, &kByteEscapes.word[byte], 8);
    return out + kByteEscapes.length[byte];
}

// The (up to) four bytes after p, as far as the text goes, zero-filled.
inline uint32_t BytesAfter(const unsigned char* p, const unsigned char* end) {
    uint32_t next = 0;
    if (end - p > 4) { // the terminator at most among them
        memcpy(&next, p + 1, 4);
        return next;
    }
    for (uint32_t i = 0; p + 1 + i < end; ++i)
        next |= uint32_t(p[1 + i]) << (8 * i);
    return next;
}

// How many of those bytes continue the character (4: four or more).
inline uint32_t Continuations(uint32_t next) {
    const uint32_t stops = (next & 0xC0C0C0C0u) ^ 0x80808080u; // zero bytes continue
    return stops == 0 ? 4 : static_cast<uint32_t>(__builtin_ctz(stops)) / 8;
}

// Writes the character of n bytes (2 to 4) at p: its lead's low 5, 4 or 3
// bits by the length found, 6 bits of each continuation byte. Returns the
// description of a malformed one instead, tested in the order: range,
// surrogate halves, overlong form.
inline const char* PutCharacter(char*& out, unsigned char lead, uint32_t next, uint32_t n) {
    const uint32_t b1 = next & 0x3F, b2 = (next >> 8) & 0x3F, b3 = (next >> 16) & 0x3F;
    uint32_t value;
    switch (n) {
    case 2:
        value = (lead & 0x1Fu) << 6 | b1;
        if (value < 0x80)
            return kJsonUtf8Length;
        break;
    case 3:
        value = (lead & 0x0Fu) << 12 | b1 << 6 | b2;
        if (value - 0xD800 < 0x800)
            return kJsonUtf8Surrogate;
        if (value < 0x800)
            return kJsonUtf8Length;
        break;
    default:
        value = (lead & 0x07u) << 18 | b1 << 12 | b2 << 6 | b3;
        if (value >= 0x110000)
            return kJsonUtf8Range;
        if (value - 0xD800 < 0x800)
            return kJsonUtf8Surrogate;
        if (value < 0x10000)
            return kJsonUtf8Length;
        out = PutUnit(out, 0xD800 + ((value - 0x10000) >> 10));
        out = PutUnit(out, 0xDC00 + ((value - 0x10000) & 0x3FF));
        return nullptr;
    }
    out = PutUnit(out, value);
    return nullptr;
}

// One character other than a run: the byte at p and the n - 1 continuation
// bytes after it (the terminator stops the count; five are as bad as more).
inline const char* PutOne(const unsigned char* p, const unsigned char* end, uint32_t n,
                          char*& out) {
    if (n == 1) {
        out = PutByte(out, *p);
        return nullptr;
    }
    if (n >= 5)
        return kJsonUtf8Invalid;
    return PutCharacter(out, *p, BytesAfter(p, end), n);
}

// The value of a character of n (2 to 4) bytes, computed without a branch;
// `bad` tells whether it is malformed in any of the three ways.
inline uint32_t Decode(unsigned char lead, uint32_t next, uint32_t n, bool& bad) {
    const uint32_t b1 = next & 0x3F, b2 = (next >> 8) & 0x3F, b3 = (next >> 16) & 0x3F;
    const uint32_t v2 = (lead & 0x1Fu) << 6 | b1;
    const uint32_t v3 = (lead & 0x0Fu) << 12 | b1 << 6 | b2;
    const uint32_t v4 = (lead & 0x07u) << 18 | b1 << 12 | b2 << 6 | b3;
    const uint32_t value = n == 2 ? v2 : n == 3 ? v3 : v4;
    bad = (value >= 0x110000) | (value - 0xD800 < 0x800) | (value < kShortestValue[n]);
    return value;
}

// Five characters of three bytes at p, written when none is malformed.
inline bool PutFiveOfThree(const unsigned char* p, char*& out) {
    uint32_t values[5];
    bool bad = false;
    for (uint32_t k = 0; k < 5; ++k, p += 3) {
        const uint32_t value = (p[0] & 0x0Fu) << 12 | (p[1] & 0x3Fu) << 6 | (p[2] & 0x3Fu);
        bad |= (value - 0xD800 < 0x800) | (value < 0x800);
        values[k] = value;
    }
    if (bad) // found again, with its description, one by one
        return false;
    for (const uint32_t value : values)
        out = PutUnit(out, value);
    return true;
}

// Writes the characters from p on (the first one even when it starts with a
// run byte: one followed by continuation bytes) until a run of two bytes or
// more starts, the text ends, the pending bytes pass `full` or a character is
// malformed (its description is returned). A single run byte among them is
// written as it is. Where 20 bytes or more are left, the characters' bounds
// come from a 16-byte window at once (every byte that is no continuation byte
// starts one), so that finding the next one does not wait for this one.
const char* PutCharacters(const unsigned char*& p, const unsigned char* end, char*& out,
                          const char* full) {
    const unsigned char* const first = p;
    while (end - p >= 20) {
        const __m128i window = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        // 0x80..0xBF are the bytes below -64 as signed bytes.
        const auto continuing =
            static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmplt_epi8(window, _mm_set1_epi8(-64))));
        uint32_t starts = (~continuing & 0xFFFF) | 1;
        // Five characters of three bytes each, the common case of East Asian
        // text, without finding their bounds one by one.
        if (starts == 0x9249 && out + 5 * 6 + 2 <= full + kLongestEscape &&
            PutFiveOfThree(p, out)) {
            p += 15;
            continue;
        }
        uint32_t at = 0;
        for (uint32_t rest; (rest = starts & (starts - 1)) != 0; starts = rest) {
            const auto next = static_cast<uint32_t>(__builtin_ctz(rest));
            const uint32_t n = next - at;
            const unsigned char lead = p[at];
            if (n == 1) {
                if (!IsRunByte(lead)) {
                    out = PutByte(out, lead);
                } else if (IsRunByte(p[next]) && p + at != first) {
                    p += at; // a run: the caller copies it whole
                    return nullptr;
                } else {
                    *out++ = static_cast<char>(lead);
                }
            } else {
                uint32_t following;
                memcpy(&following, p + at + 1, 4);
                bool bad;
                const uint32_t value = Decode(lead, following, n, bad);
                if (n >= 5 || bad) {
                    p += at;
                    return n >= 5 ? kJsonUtf8Invalid : PutCharacter(out, lead, following, n);
                }
                if (value < 0x10000) {
                    out = PutUnit(out, value);
                } else {
                    out = PutUnit(out, 0xD800 + ((value - 0x10000) >> 10));
                    out = PutUnit(out, 0xDC00 + ((value - 0x10000) & 0x3FF));
                }
            }
            at = next;
            if (out > full) {
                p += at;
                return nullptr;
            }
        }
        if (at == 0) // sixteen bytes and more in one character
            return kJsonUtf8Invalid;
        p += at;
    }
    while (p < end && (p == first || (!IsRunByte(*p) && out <= full))) {
        const uint32_t n = 1 + Continuations(BytesAfter(p, end));
        if (const char* message = PutOne(p, end, n, out))
            return message;
        p += n;
    }
    return nullptr;
}

// A record writer is reset for every record: keep an unshared block and its
// capacity rather than allocate anew (and touch fresh pages) each time.
void ResetWriter(Str& writer) {
    StrBlock* block = writer.Block();
    if (block != nullptr && Reference::Count(block) < 2) {
        block->length = 0;
        block->text[0] = 0;
    } else {
        writer.Clear();
    }
}

// Sixteen ASCII bytes at p, none the lead of a longer character (16 bytes and
// the next one readable, room for 16 escapes): copied whole when they are all
// run bytes, else byte by byte through the escape table. False for others.
inline bool PutAsciiBlock(const unsigned char*& p, char*& out) {
    if (IsContinuation(p[16]))
        return false;
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    if (StopMask(bytes) == 0) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
        out += 16;
    } else if (_mm_movemask_epi8(bytes) == 0) {
        for (int i = 0; i < 16; ++i)
            out = PutByte(out, p[i]);
    } else {
        return false;
    }
    p += 16;
    return true;
}

} // namespace

bool WriteJsonString(const char* text, Str& writer, Str* error, bool append) {
    // The text may lie in the writer's own block: hold that block, so growing
    // or resetting the writer cannot free it under us.
    Str held;
    if (text != nullptr && writer.Block() != nullptr && text >= writer.Text() &&
        text <= writer.Text() + writer.Capacity())
        held = writer;
    if (!append)
        ResetWriter(writer);

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
        if (end - p >= 16 && pending + kPendingBytes - out >= 16 * 6 + 2 && PutAsciiBlock(p, out))
            continue;
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

        // An escaped ASCII byte on its own (the common case between runs of
        // escape-heavy text) needs no more than its table entry.
        if (*p < 0x80 && !IsContinuation(p[1])) {
            out = PutByte(out, *p++);
            continue;
        }
        message = PutCharacters(p, end, out, pending + kPendingBytes - kLongestEscape);
        if (message != nullptr)
            break;
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
