// JSON text pieces for the structured-value writer and the event records.
//
// Every text value goes through WriteJsonString: a double-quoted literal with
// everything outside printable ASCII escaped, checking the UTF-8 as it goes.
#pragma once

#include <cstdint>

#include "str.h"

// The five descriptions of a malformed sequence, one of which lands in the error text.
inline constexpr char kJsonUtf8Invalid[] = "invalid utf-8 character";
inline constexpr char kJsonUtf8Sequence[] = "invalid utf-8 character (UTF8CharNextA error)";
inline constexpr char kJsonUtf8Range[] = "invalid utf-8 character (not in unicode range)";
inline constexpr char kJsonUtf8Surrogate[] =
    "invalid utf-8 character (invalid code point, surrogate halves)";
inline constexpr char kJsonUtf8Length[] = "invalid utf-8 character (encoding length)";

// Appends the literal of `text` (null is the empty text) to `writer`, which is
// first reset to empty when `append` is false. Printable ASCII (0x20..0x7F)
// passes unchanged except '"' and '\'; everything else becomes an escape:
// characters as \uXXXX (a surrogate pair above U+FFFF), a byte that stands
// alone (a stray continuation byte, a lead byte without continuation) as
// \uff80..\uffff. A character's length is its lead byte plus the continuation
// bytes that follow it. The first malformed character ends the literal: the
// closing quote is still written, `error` (when given) receives its
// description unless it already holds it, and the result is false.
// False also when the writer could not grow (last error 14).
bool WriteJsonString(const char* text, Str& writer, Str* error, bool append);

// Appends the decimal digits of `value`.
bool WriteJsonNumber(uint64_t value, Str& writer);

// Appends a member name and its colon: "name":
bool WriteJsonName(const char* name, Str& writer);
