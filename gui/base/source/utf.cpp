// The UTF-16 <-> UTF-8 conversions of the string types, with the platform's
// contract (see str.h). Plain ASCII goes through in 16-byte blocks. Other text
// goes in stretches of up to 16 units: when the room left (the destination's
// capacity, or the 32-bit count when only measuring) holds a stretch's worst
// case, its units are converted without a check each; near the limit every
// unit is checked, in the platform's order, so results and errors are those
// of a unit-by-unit conversion.
#include <windows.h>

#include <cpuid.h>
#include <emmintrin.h>

#include <cstring>

#include "private/utf8.h"
#include "str.h"

namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;
constexpr uint64_t kStretch = 16;

// As documented for the platform: no source or count, a destination missing
// for a non-zero size, or the source itself as destination.
bool InvalidParameters(const void* source, uint32_t count, const void* destination,
                       uint32_t capacity) {
    if (source != nullptr && count != 0 && (destination != nullptr || capacity == 0) &&
        source != destination)
        return false;
    SetLastError(ERROR_INVALID_PARAMETER);
    return true;
}

uint32_t Fail(DWORD error) {
    SetLastError(error);
    return 0;
}

// The UTF-8 of one code point (a surrogate pair already combined).
inline uint32_t PutUtf8(unsigned char* p, uint32_t cp) {
    if (cp < 0x80) {
        p[0] = static_cast<unsigned char>(cp);
        return 1;
    }
    if (cp < 0x800) {
        p[0] = static_cast<unsigned char>(0xC0 | (cp >> 6));
        p[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        p[0] = static_cast<unsigned char>(0xE0 | (cp >> 12));
        p[1] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
        p[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        return 3;
    }
    p[0] = static_cast<unsigned char>(0xF0 | (cp >> 18));
    p[1] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
    p[2] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
    p[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 4;
}

// The code point of the unit(s) at p and how many units it takes; 0 for a
// high half without its low half, or a low half standing first.
inline uint32_t TakeUtf16(const uint16_t* p, const uint16_t* end, uint32_t& cp) {
    cp = p[0];
    if (cp - 0xD800u >= 0x800u)
        return 1;
    const uint32_t low = cp < 0xDC00 && p + 1 < end ? p[1] : 0;
    if (low - 0xDC00u >= 0x400u)
        return 0;
    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
    return 2;
}

inline uint32_t Utf8Length(uint32_t cp) {
    return cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
}

inline bool IsSurrogateFree(__m128i units) {
    const __m128i top = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xF800)));
    return _mm_movemask_epi8(_mm_cmpeq_epi16(top, _mm_set1_epi16(static_cast<short>(0xD800)))) == 0;
}

// Running sums of eight 16-bit lengths: where each unit's bytes start, and the total.
inline uint32_t Starts(__m128i length, uint16_t* starts) {
    __m128i sum = _mm_add_epi16(length, _mm_slli_si128(length, 2));
    sum = _mm_add_epi16(sum, _mm_slli_si128(sum, 4));
    sum = _mm_add_epi16(sum, _mm_slli_si128(sum, 8));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(starts), _mm_sub_epi16(sum, length));
    return static_cast<uint32_t>(_mm_extract_epi16(sum, 7));
}

// A character's bytes, taken from a little-endian word: a whole-word store
// while it ends within the block's output (later characters write over the
// excess), exact stores at the very end, so nothing past the output changes.
template <class Word>
inline void PutWord(unsigned char* out, uint32_t start, uint32_t next, uint32_t total, Word word) {
    if (start + sizeof(Word) <= total) {
        memcpy(out + start, &word, sizeof(Word));
        return;
    }
    for (uint32_t i = start; i < next; ++i, word >>= 8)
        out[i] = static_cast<unsigned char>(word);
}

// Stores the words of n characters at their starts. With more text to come
// (three units at least, each one byte or more) whole words are stored, the
// excess of the last ones being written over later; otherwise the block ends
// exactly.
template <class Word>
inline void PutWords(unsigned char* out, const uint16_t* starts, const Word* words, uint32_t n,
                     uint32_t total, bool moreToCome) {
    if (moreToCome && n == 8) {
        for (uint32_t k = 0; k < 8; ++k)
            memcpy(out + starts[k], &words[k], sizeof(Word));
        return;
    }
    for (uint32_t k = 0; k < n; ++k)
        PutWord(out, starts[k], starts[k + 1], total, words[k]);
}

// The first n (1 to 8) of eight units without a surrogate among them, the
// rest zero: their byte count, or nothing written and a count above `room`
// when they do not fit.
template <bool kWrite>
[[gnu::always_inline]] inline uint32_t EncodeBlock(__m128i c, uint32_t n, unsigned char* out,
                                                   uint64_t room, bool moreToCome) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i one =
        _mm_cmpeq_epi16(_mm_and_si128(c, _mm_set1_epi16(static_cast<short>(0xFF80))), zero);
    const __m128i upTo2 =
        _mm_cmpeq_epi16(_mm_and_si128(c, _mm_set1_epi16(static_cast<short>(0xF800))), zero);
    const __m128i last = _mm_or_si128(_mm_and_si128(c, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
    const __m128i lead2 = _mm_or_si128(_mm_srli_epi16(c, 6), _mm_set1_epi16(0xC0));
    const int ones = _mm_movemask_epi8(one);
    const int upTo2s = _mm_movemask_epi8(upTo2);
    if (ones == 0 && upTo2s == 0xFFFF && n == 8) { // two bytes each
        if (room < 16)
            return 17;
        if constexpr (kWrite)
            _mm_storeu_si128(
                reinterpret_cast<__m128i*>(out),
                _mm_unpacklo_epi8(_mm_packus_epi16(lead2, lead2), _mm_packus_epi16(last, last)));
        return 16;
    }
    alignas(16) uint16_t starts[9];
    const __m128i length = _mm_add_epi16(_mm_add_epi16(_mm_set1_epi16(3), one), upTo2);
    // Zero units past n count one byte each.
    const uint32_t total = Starts(length, starts) - (8 - n);
    if (total > room || !kWrite)
        return total;
    starts[n] = static_cast<uint16_t>(total);
    const __m128i two = _mm_or_si128(lead2, _mm_slli_epi16(last, 8));
    if (upTo2s == 0xFFFF) { // one or two bytes each
        alignas(16) uint16_t words[8];
        _mm_store_si128(reinterpret_cast<__m128i*>(words),
                        _mm_or_si128(_mm_and_si128(one, c), _mm_andnot_si128(one, two)));
        PutWords(out, starts, words, n, total, moreToCome);
        return total;
    }
    const __m128i middle = _mm_or_si128(_mm_and_si128(_mm_srli_epi16(c, 6), _mm_set1_epi16(0x3F)),
                                        _mm_set1_epi16(0x80));
    const __m128i three = _mm_or_si128(_mm_or_si128(_mm_srli_epi16(c, 12), _mm_set1_epi16(0xE0)),
                                       _mm_slli_epi16(middle, 8));
    const __m128i low = _mm_or_si128(
        _mm_and_si128(one, c), _mm_andnot_si128(one, _mm_or_si128(_mm_and_si128(upTo2, two),
                                                                  _mm_andnot_si128(upTo2, three))));
    const __m128i high = _mm_andnot_si128(upTo2, last);
    alignas(16) uint32_t words[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(words), _mm_unpacklo_epi16(low, high));
    _mm_store_si128(reinterpret_cast<__m128i*>(words + 4), _mm_unpackhi_epi16(low, high));
    PutWords(out, starts, words, n, total, moreToCome);
    return total;
}

// Byte shuffling (SSSE3's pshufb) gathers the bytes of eight units below
// 0x800 in one step. It is used where the processor has it; written as an
// instruction of its own, so that the rest of the library stays SSE2 code.
inline __m128i ShuffleBytes(__m128i bytes, __m128i indexes) {
    __asm__("pshufb %1, %0" : "+x"(bytes) : "xm"(indexes));
    return bytes;
}

bool ProcessorShufflesBytes() {
    // 0 unknown, 1 no, 2 yes; asked once, any thread may be first.
    static int s_known = 0;
    int known = __atomic_load_n(&s_known, __ATOMIC_RELAXED);
    if (known == 0) {
        unsigned eax, ebx, ecx, edx;
        known = __get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_SSSE3) ? 2 : 1;
        __atomic_store_n(&s_known, known, __ATOMIC_RELAXED);
    }
    return known == 2;
}

// For every set of one-byte units among eight (bit k: unit k), the byte
// positions to gather from their interleaved (first, second) byte pairs, and
// how many bytes that makes.
struct Gathers {
    alignas(16) uint8_t index[256][16];
    uint8_t length[256];
    constexpr Gathers() : index(), length() {
        for (int ones = 0; ones < 256; ++ones) {
            int n = 0;
            for (int k = 0; k < 8; ++k) {
                index[ones][n++] = static_cast<uint8_t>(2 * k);
                if ((ones >> k & 1) == 0)
                    index[ones][n++] = static_cast<uint8_t>(2 * k + 1);
            }
            length[ones] = static_cast<uint8_t>(n);
            for (int i = n; i < 16; ++i)
                index[ones][i] = 0x80;
        }
    }
};
constexpr Gathers kGathers;

// Which of eight units take one byte (bit k: unit k).
inline uint32_t OneByteUnits(__m128i c) {
    const __m128i one = _mm_cmpeq_epi16(
        _mm_and_si128(c, _mm_set1_epi16(static_cast<short>(0xFF80))), _mm_setzero_si128());
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(one, one)) & 0xFF);
}

// The UTF-8 length of eight units below 0x800.
inline uint32_t Below800Length(__m128i c) {
    return kGathers.length[OneByteUnits(c)];
}

// Eight units below 0x800 as one 16-byte store, up to 8 bytes of it past
// their UTF-8 (which the caller has room for and writes over later).
inline uint32_t PutBelow800(__m128i c, unsigned char* out) {
    const __m128i one = _mm_cmpeq_epi16(
        _mm_and_si128(c, _mm_set1_epi16(static_cast<short>(0xFF80))), _mm_setzero_si128());
    const __m128i lead = _mm_or_si128(_mm_srli_epi16(c, 6), _mm_set1_epi16(0xC0));
    const __m128i first = _mm_or_si128(_mm_and_si128(one, c), _mm_andnot_si128(one, lead));
    const __m128i second =
        _mm_or_si128(_mm_and_si128(c, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
    const __m128i pairs =
        _mm_unpacklo_epi8(_mm_packus_epi16(first, first), _mm_packus_epi16(second, second));
    const auto ones = static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(one, one)) & 0xFF);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                     ShuffleBytes(pairs, _mm_load_si128(reinterpret_cast<const __m128i*>(
                                             kGathers.index[ones]))));
    return kGathers.length[ones];
}

// Copies up to 16 bytes with two overlapping stores at most, nothing past them.
inline void PutExactly(unsigned char* out, const unsigned char* bytes, uint32_t length) {
    if (length >= 8) {
        memcpy(out, bytes, 8);
        memcpy(out + length - 8, bytes + length - 8, 8);
    } else if (length >= 4) {
        memcpy(out, bytes, 4);
        memcpy(out + length - 4, bytes + length - 4, 4);
    } else {
        for (uint32_t i = 0; i < length; ++i)
            out[i] = bytes[i];
    }
}

// The last n (1 to 7) units of the text at p, followed by zero units: from
// the eight that end the text when the text has eight, else one by one.
inline __m128i LastUnits(const uint16_t* p, uint32_t n, const uint16_t* begin) {
    if (p + n - 8 >= begin) {
        const __m128i last = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + n - 8));
        switch (8 - n) { // shifts by whole units, toward the start
        case 1:
            return _mm_srli_si128(last, 2);
        case 2:
            return _mm_srli_si128(last, 4);
        case 3:
            return _mm_srli_si128(last, 6);
        case 4:
            return _mm_srli_si128(last, 8);
        case 5:
            return _mm_srli_si128(last, 10);
        case 6:
            return _mm_srli_si128(last, 12);
        default:
            return _mm_srli_si128(last, 14);
        }
    }
    alignas(16) uint16_t padded[8] = {};
    for (uint32_t k = 0; k < n; ++k) // a loop, not a call: n is small
        padded[k] = p[k];
    return _mm_load_si128(reinterpret_cast<const __m128i*>(padded));
}

// Converts (kWrite) or measures [p, end); limit is the capacity, or kMax32 when measuring.
template <bool kWrite, bool kShuffle = false>
uint32_t EncodeUtf8(const uint16_t* p, const uint16_t* end, unsigned char* out, uint64_t limit) {
    const __m128i nonAscii = _mm_set1_epi16(static_cast<short>(0xFF80));
    const uint16_t* const begin = p;
    uint64_t needed = 0;
    while (p < end) {
        const uint64_t room = limit - needed;
        const auto left = static_cast<uint64_t>(end - p);
        const uint32_t n = left < 8 ? static_cast<uint32_t>(left) : 8;
        __m128i units;
        if (n == 8) {
            units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        } else { // the end of the text, padded with zero units
            units = LastUnits(p, n, begin);
        }
        if (_mm_movemask_epi8(
                _mm_cmpeq_epi16(_mm_and_si128(units, nonAscii), _mm_setzero_si128())) == 0xFFFF &&
            room >= n) {
            if constexpr (kWrite) {
                const __m128i bytes = _mm_packus_epi16(units, units);
                if (n == 8) {
                    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + needed), bytes);
                } else {
                    alignas(16) unsigned char packed[16];
                    _mm_store_si128(reinterpret_cast<__m128i*>(packed), bytes);
                    PutExactly(out + needed, packed, n);
                }
            }
            p += n;
            needed += n;
            continue;
        }
        // The units after these (one byte each at least) must cover the
        // excess of the 16-byte store.
        if (kShuffle && n == 8 && room >= 16 &&
            _mm_movemask_epi8(
                _mm_cmpeq_epi16(_mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xF800))),
                                _mm_setzero_si128())) == 0xFFFF &&
            (left >= 16 || left - 8 >= 16 - Below800Length(units))) {
            needed += PutBelow800(units, out + needed);
            p += 8;
            continue;
        }
        if (IsSurrogateFree(units)) {
            // Whole-word stores may pass the block by three bytes.
            const bool spill = left >= 11 && room >= 28;
            const uint32_t bytes = EncodeBlock<kWrite>(units, n, out + needed, room, spill);
            if (bytes <= room) {
                p += n;
                needed += bytes;
                continue;
            }
        }
        // A surrogate ahead, or the limit near: one character with every check.
        uint32_t cp;
        const uint32_t taken = TakeUtf16(p, end, cp);
        if (taken == 0)
            return Fail(ERROR_NO_UNICODE_TRANSLATION);
        const uint32_t bytes = Utf8Length(cp);
        if (needed + bytes > kMax32)
            return Fail(ERROR_ARITHMETIC_OVERFLOW);
        if (kWrite && needed + bytes > limit)
            return Fail(ERROR_INSUFFICIENT_BUFFER);
        if constexpr (kWrite)
            PutUtf8(out + needed, cp);
        needed += bytes;
        p += taken;
    }
    return static_cast<uint32_t>(needed);
}

inline uint32_t PutUtf16(uint16_t* out, uint32_t cp) {
    if (cp < 0x10000) {
        out[0] = static_cast<uint16_t>(cp);
        return 1;
    }
    out[0] = static_cast<uint16_t>(0xD800 + ((cp - 0x10000) >> 10));
    out[1] = static_cast<uint16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    return 2;
}

template <bool kWrite>
uint32_t DecodeUtf8(const unsigned char* p, const unsigned char* end, uint16_t* out,
                    uint64_t limit) {
    uint64_t needed = 0;
    while (p < end) {
        const uint64_t room = limit - needed;
        const auto left = static_cast<uint64_t>(end - p);
        if (left >= 16 && room >= 16) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            if (_mm_movemask_epi8(bytes) == 0) {
                if constexpr (kWrite) {
                    const __m128i zero = _mm_setzero_si128();
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + needed),
                                     _mm_unpacklo_epi8(bytes, zero));
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + needed + 8),
                                     _mm_unpackhi_epi8(bytes, zero));
                }
                p += 16;
                needed += 16;
                continue;
            }
        }
        const uint64_t stretch = left < kStretch ? left : kStretch;
        uint32_t cp;
        if (room >= stretch + 3) { // never more units than bytes taken
            for (const unsigned char* stop = p + stretch; p < stop;) {
                if (*p < 0x80) {
                    // Four ASCII bytes at once where there are four.
                    uint32_t four;
                    if (end - p >= 4 && (memcpy(&four, p, 4), (four & 0x80808080u) == 0)) {
                        if constexpr (kWrite)
                            _mm_storel_epi64(reinterpret_cast<__m128i*>(out + needed),
                                             _mm_unpacklo_epi8(_mm_cvtsi32_si128(int(four)),
                                                               _mm_setzero_si128()));
                        needed += 4;
                        p += 4;
                        continue;
                    }
                    if constexpr (kWrite)
                        out[needed] = *p;
                    ++needed;
                    ++p;
                    continue;
                }
                const uint32_t length = DecodeUtf8Sequence(p, end, cp);
                if (length == 0)
                    return Fail(ERROR_NO_UNICODE_TRANSLATION);
                if constexpr (kWrite)
                    needed += PutUtf16(out + needed, cp);
                else
                    needed += cp >= 0x10000 ? 2 : 1;
                p += length;
            }
            continue;
        }
        const uint32_t length = DecodeUtf8Sequence(p, end, cp);
        if (length == 0)
            return Fail(ERROR_NO_UNICODE_TRANSLATION);
        const uint32_t units = cp >= 0x10000 ? 2 : 1;
        if (needed + units > kMax32)
            return Fail(ERROR_ARITHMETIC_OVERFLOW);
        if (kWrite && needed + units > limit)
            return Fail(ERROR_INSUFFICIENT_BUFFER);
        if constexpr (kWrite)
            PutUtf16(out + needed, cp);
        needed += units;
        p += length;
    }
    return static_cast<uint32_t>(needed);
}

} // namespace

uint32_t Utf16ToUtf8(const wchar_t* source, uint32_t count, char* destination, uint32_t capacity) {
    if (InvalidParameters(source, count, destination, capacity))
        return 0;
    // A count of 0xFFFFFFFF: zero-terminated, the terminator converted too.
    const uint64_t n = count > 0xFFFFFFFEu ? wcslen(source) + 1 : count;
    const auto* in = reinterpret_cast<const uint16_t*>(source);
    auto* out = reinterpret_cast<unsigned char*>(destination);
    if (capacity == 0)
        return EncodeUtf8<false>(in, in + n, nullptr, kMax32);
    return ProcessorShufflesBytes() ? EncodeUtf8<true, true>(in, in + n, out, capacity)
                                    : EncodeUtf8<true>(in, in + n, out, capacity);
}

uint32_t Utf8ToUtf16(const char* source, uint32_t count, wchar_t* destination, uint32_t capacity) {
    if (InvalidParameters(source, count, destination, capacity))
        return 0;
    // An overlong NUL (C0 80) is no terminator: only a zero byte ends the text.
    const uint64_t n = count > 0xFFFFFFFEu ? strlen(source) + 1 : count;
    const auto* in = reinterpret_cast<const unsigned char*>(source);
    auto* out = reinterpret_cast<uint16_t*>(destination);
    return capacity == 0 ? DecodeUtf8<false>(in, in + n, nullptr, kMax32)
                         : DecodeUtf8<true>(in, in + n, out, capacity);
}
