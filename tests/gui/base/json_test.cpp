// The JSON string writer: the listed edge cases in one table, then random texts
// checked against nlohmann::json and against a naive transcription of the rules.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "json.h"

namespace {

using nlohmann::json;

std::string Bytes(const Str& s) {
    return std::string(s.Text(), s.Length());
}

bool IsPrintableAscii(const std::string& s) {
    for (unsigned char c : s)
        if (c < 0x20 || c > 0x7F)
            return false;
    return true;
}

// ---------------------------------------------------------------------------
// Edge cases

struct Case {
    const char* name;
    const char* text; // null: a null text
    const char* writerBefore;
    bool append;
    const char* errorBefore; // null: no error Str passed
    const char* expected;
    bool ok;
    const char* errorAfter; // what the error Str holds afterwards
};

const char kUntouched[] = "untouched";

const Case kCases[] = {
    {"quote", "say \"hi\"", nullptr, false, kUntouched, "\"say \\\"hi\\\"\"", true, kUntouched},
    {"backslash", "C:\\dir\\x", nullptr, false, kUntouched, "\"C:\\\\dir\\\\x\"", true, kUntouched},
    {"tab", "a\tb", nullptr, false, kUntouched, "\"a\\tb\"", true, kUntouched},
    {"short escapes", "\b\n\f\r", nullptr, false, kUntouched, "\"\\b\\n\\f\\r\"", true, kUntouched},
    {"control bytes", "\x01x\x0b\x1f", nullptr, false, kUntouched, "\"\\u0001x\\u000b\\u001f\"",
     true, kUntouched},
    {"0x7F passes", "a\x7f", nullptr, false, kUntouched, "\"a\x7f\"", true, kUntouched},
    {"slash passes", "a/b", nullptr, false, kUntouched, "\"a/b\"", true, kUntouched},
    {"U+00E9", "caf\xc3\xa9!", nullptr, false, kUntouched, "\"caf\\u00e9!\"", true, kUntouched},
    {"U+0800 U+FFFF", "\xe0\xa0\x80\xef\xbf\xbf", nullptr, false, kUntouched, "\"\\u0800\\uffff\"",
     true, kUntouched},
    {"U+1F600", "\xf0\x9f\x98\x80", nullptr, false, kUntouched, "\"\\ud83d\\ude00\"", true,
     kUntouched},
    {"U+10FFFF", "\xf4\x8f\xbf\xbf", nullptr, false, kUntouched, "\"\\udbff\\udfff\"", true,
     kUntouched},
    {"C0 80 overlong zero", "ab\xc0\x80z", nullptr, false, kUntouched, "\"ab\"", false,
     kJsonUtf8Length},
    {"overlong three bytes", "\t\xe0\x9f\xbf", nullptr, false, nullptr, "\"\\t\"", false, nullptr},
    {"overlong four bytes", "x\xf0\x8f\xbf\xbf", nullptr, false, kUntouched, "\"x\"", false,
     kJsonUtf8Length},
    {"ED A0 80 surrogate", "\xc3\xa9\xed\xa0\x80", nullptr, false, kUntouched, "\"\\u00e9\"", false,
     kJsonUtf8Surrogate},
    // Overlong and a surrogate at once: the surrogate test comes first.
    {"overlong surrogate", "\xf0\x8d\xa0\x80", nullptr, false, kUntouched, "\"\"", false,
     kJsonUtf8Surrogate},
    {"F4 90 80 80 beyond range", "a\xf4\x90\x80\x80", nullptr, false, kUntouched, "\"a\"", false,
     kJsonUtf8Range},
    {"5-byte length", "ok\xf8\x88\x80\x80\x80", nullptr, false, kUntouched, "\"ok\"", false,
     kJsonUtf8Invalid},
    {"many continuation bytes", "\xf0\x80\x80\x80\x80\x80\x80\x80", nullptr, false, kUntouched,
     "\"\"", false, kJsonUtf8Invalid},
    {"lone E9 then ASCII",
     "\xe9"
     "abc",
     nullptr, false, kUntouched, "\"\\uffe9abc\"", true, kUntouched},
    {"lone lead at the end", "x\xf0", nullptr, false, kUntouched, "\"x\\ufff0\"", true, kUntouched},
    {"stray continuation at the start",
     "\x80"
     "A",
     nullptr, false, kUntouched, "\"\\uff80A\"", true, kUntouched},
    // The first stray byte takes the second as its continuation: an overlong form.
    {"two stray continuation bytes", "\x80\xbf", nullptr, false, kUntouched, "\"\"", false,
     kJsonUtf8Length},
    {"stray byte alone",
     "\xbf"
     "a\xff",
     nullptr, false, kUntouched, "\"\\uffbfa\\uffff\"", true, kUntouched},
    // The length comes from the continuation bytes present, not from the lead.
    {"E9 80 is two bytes", "\xe9\x80x", nullptr, false, kUntouched, "\"\\u0240x\"", true,
     kUntouched},
    {"C3 80 80 80 is four bytes", "\xc3\x80\x80\x80", nullptr, false, kUntouched,
     "\"\\udac0\\udc00\"", true, kUntouched},
    // An ASCII byte followed by a continuation byte is a (overlong) two-byte character.
    {"ASCII lead of a continuation", "xyA\x80", nullptr, false, kUntouched, "\"xy\"", false,
     kJsonUtf8Length},
    {"empty text", "", nullptr, false, kUntouched, "\"\"", true, kUntouched},
    {"null text", nullptr, nullptr, false, kUntouched, "\"\"", true, kUntouched},
    {"error Str keeps that very message", "\xc0\x80", nullptr, false, kJsonUtf8Length, "\"\"",
     false, kJsonUtf8Length},
    {"error Str replaced", "\xed\xbf\xbf", nullptr, false, kJsonUtf8Length, "\"\"", false,
     kJsonUtf8Surrogate},
    {"no error Str", "\xf4\x90\x80\x80", nullptr, false, nullptr, "\"\"", false, nullptr},
    {"append", "x", "{\"a\":", true, kUntouched, "{\"a\":\"x\"", true, kUntouched},
    {"append after error", "x\xc0\x80", "[", true, kUntouched, "[\"x\"", false, kJsonUtf8Length},
    {"reset", "x", "{\"a\":", false, kUntouched, "\"x\"", true, kUntouched},
    {"reset with null text", nullptr, "old", false, kUntouched, "\"\"", true, kUntouched},
    {"append null text", nullptr, "old", true, kUntouched, "old\"\"", true, kUntouched},
};

TEST(WriteJsonString, EdgeCases) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.name);
        Str writer(c.writerBefore);
        const Str shared = writer; // a shared block must not change
        Str error(c.errorBefore);
        const StrBlock* errorBlock = error.Block();
        const bool ok = WriteJsonString(c.text, writer, c.errorBefore ? &error : nullptr, c.append);
        EXPECT_EQ(ok, c.ok);
        EXPECT_EQ(Bytes(writer), c.expected);
        EXPECT_STREQ(shared.Text(), c.writerBefore ? c.writerBefore : "");
        if (c.errorBefore != nullptr) {
            EXPECT_STREQ(error.Text(), c.errorAfter);
            if (strcmp(c.errorBefore, c.errorAfter) == 0) {
                EXPECT_EQ(error.Block(), errorBlock) << "the error Str was reassigned";
            }
        }
    }
}

// The text may be the writer's own text.
TEST(WriteJsonString, TextInsideWriter) {
    Str writer("a\"b\xc3\xa9");
    EXPECT_TRUE(WriteJsonString(writer.Text(), writer, nullptr, true));
    EXPECT_EQ(Bytes(writer), "a\"b\xc3\xa9\"a\\\"b\\u00e9\"");
    EXPECT_TRUE(WriteJsonString(writer.Text() + 1, writer, nullptr, false));
    EXPECT_EQ(Bytes(writer), "\"\\\"b\\u00e9\\\"a\\\\\\\"b\\\\u00e9\\\"\"");
}

TEST(WriteJsonString, RecordPieces) {
    Str record("{");
    EXPECT_TRUE(WriteJsonName("bytes", record));
    EXPECT_TRUE(WriteJsonNumber(0, record));
    record.AppendChar(',');
    EXPECT_TRUE(WriteJsonName("max", record));
    EXPECT_TRUE(WriteJsonNumber(18446744073709551615ull, record));
    record.AppendChar(',');
    EXPECT_TRUE(WriteJsonName("text", record));
    EXPECT_TRUE(WriteJsonString("a\"\xe2\x82\xac", record, nullptr, true));
    record.AppendChar('}');
    EXPECT_EQ(Bytes(record),
              "{\"bytes\":0,\"max\":18446744073709551615,\"text\":\"a\\\"\\u20ac\"}");
    const json parsed = json::parse(Bytes(record), nullptr, false);
    ASSERT_TRUE(parsed.is_object());
    EXPECT_EQ(parsed["max"].get<uint64_t>(), 18446744073709551615ull);
    EXPECT_EQ(parsed["text"].get<std::string>(), "a\"\xe2\x82\xac");
}

// ---------------------------------------------------------------------------
// Random texts

void AppendUtf8(std::string& out, uint32_t v) {
    if (v < 0x80) {
        out += static_cast<char>(v);
    } else if (v < 0x800) {
        out += static_cast<char>(0xC0 | (v >> 6));
        out += static_cast<char>(0x80 | (v & 0x3F));
    } else if (v < 0x10000) {
        out += static_cast<char>(0xE0 | (v >> 12));
        out += static_cast<char>(0x80 | ((v >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (v & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (v >> 18));
        out += static_cast<char>(0x80 | ((v >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((v >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (v & 0x3F));
    }
}

// A code point other than 0 and the surrogates, from every encoding length and plane.
uint32_t RandomCodePoint(std::mt19937& rng) {
    auto in = [&](uint32_t low, uint32_t high) {
        return std::uniform_int_distribution<uint32_t>(low, high)(rng);
    };
    switch (in(0, 5)) {
    case 0:
        return in(1, 0x7F);
    case 1:
        return in(0x20, 0x7E);
    case 2:
        return in(0x80, 0x7FF);
    case 3: {
        const uint32_t v = in(0x800, 0xFFFF - 0x800);
        return v < 0xD800 ? v : v + 0x800;
    }
    case 4:
        return in(0x10000, 0x10FFFF);
    default: {
        // Boundaries of every range.
        static const uint32_t kEdges[] = {1,      0x1F,    0x20,    0x22,     0x5C,    0x7F,
                                          0x80,   0x7FF,   0x800,   0xD7FF,   0xE000,  0xFFFD,
                                          0xFFFF, 0x10000, 0x1F600, 0x10FFFF, 0x100000};
        return kEdges[in(0, sizeof kEdges / sizeof kEdges[0] - 1)];
    }
    }
}

// A literal as nlohmann writes it with ensure_ascii, except that 0x7F stays unescaped.
std::string NlohmannLiteral(const std::string& text) {
    const std::string dumped = json(text).dump(-1, ' ', true);
    std::string out;
    for (size_t i = 0; i < dumped.size(); ++i) {
        if (dumped[i] == '\\' && dumped.compare(i, 6, "\\u007f") == 0) {
            out += '\x7f';
            i += 5;
        } else if (dumped[i] == '\\') {
            out += dumped.substr(i, 2);
            ++i;
        } else {
            out += dumped[i];
        }
    }
    return out;
}

TEST(WriteJsonString, RandomValidUtf8MatchesNlohmann) {
    std::mt19937 rng(20240701);
    std::uniform_int_distribution<int> count(0, 60);
    Str writer;
    for (int round = 0; round < 4000; ++round) {
        std::string text;
        // Now and then a long text, so that pieces cross the writer's internal buffer.
        const int n = round % 50 == 0 ? 2000 : count(rng);
        for (int i = 0; i < n; ++i)
            AppendUtf8(text, RandomCodePoint(rng));
        SCOPED_TRACE(::testing::Message() << "round " << round);
        Str error;
        ASSERT_TRUE(WriteJsonString(text.c_str(), writer, &error, false)) << error.Text();
        EXPECT_TRUE(error.IsEmpty());
        const std::string literal = Bytes(writer);
        ASSERT_TRUE(IsPrintableAscii(literal));
        const json parsed = json::parse(literal, nullptr, false);
        ASSERT_TRUE(parsed.is_string()) << literal;
        ASSERT_EQ(parsed.get<std::string>(), text);
        ASSERT_EQ(literal, NlohmannLiteral(text));
    }
}

// A naive transcription of the rules, one byte at a time, to hold the fast
// writer (runs, buffering, growth) against.
bool ReferenceLiteral(const std::string& text, std::string& out, std::string& message) {
    static const char hex[] = "0123456789abcdef";
    auto unit = [&](uint32_t u) {
        out += "\\u";
        for (int shift = 12; shift >= 0; shift -= 4)
            out += hex[(u >> shift) & 15];
    };
    out = "\"";
    const auto* p = reinterpret_cast<const unsigned char*>(text.c_str());
    while (*p != 0) {
        size_t n = 1;
        while ((p[n] & 0xC0) == 0x80)
            ++n;
        if (n == 1) {
            const unsigned char b = *p++;
            if (b >= 0x20 && b <= 0x7F && b != '"' && b != '\\')
                out += static_cast<char>(b);
            else if (b == 8)
                out += "\\b";
            else if (b == 9)
                out += "\\t";
            else if (b == 10)
                out += "\\n";
            else if (b == 12)
                out += "\\f";
            else if (b == 13)
                out += "\\r";
            else if (b == '"')
                out += "\\\"";
            else if (b == '\\')
                out += "\\\\";
            else
                unit(static_cast<uint16_t>(static_cast<int8_t>(b)));
            continue;
        }
        if (n >= 5) {
            message = kJsonUtf8Invalid;
            break;
        }
        uint32_t v = p[0] & (n == 2 ? 0x1F : n == 3 ? 0x0F : 0x07);
        for (size_t i = 1; i < n; ++i)
            v = v * 64 + (p[i] & 0x3F);
        if (v >= 0x110000)
            message = kJsonUtf8Range;
        else if (v >= 0xD800 && v <= 0xDFFF)
            message = kJsonUtf8Surrogate;
        else if (v < (n == 2 ? 0x80u : n == 3 ? 0x800u : 0x10000u))
            message = kJsonUtf8Length;
        if (!message.empty())
            break;
        if (v < 0x10000) {
            unit(v);
        } else {
            unit(0xD800 + ((v - 0x10000) >> 10));
            unit(0xDC00 + ((v - 0x10000) & 0x3FF));
        }
        p += n;
    }
    out += '"';
    return message.empty();
}

// Random bytes, weighted towards the interesting ones. Flavour 0 gives valid UTF-8
// only, 1 adds lone lead bytes (written leniently), 2 anything.
std::string RandomBytes(std::mt19937& rng, int flavour, int pieces) {
    auto in = [&](uint32_t low, uint32_t high) {
        return std::uniform_int_distribution<uint32_t>(low, high)(rng);
    };
    std::string text;
    for (int i = 0; i < pieces; ++i) {
        const uint32_t kind = in(0, 9);
        if ((flavour == 0 && kind <= 2) || (flavour == 1 && kind <= 1) ||
            (flavour < 2 && (kind == 6 || kind == 7))) {
            AppendUtf8(text, RandomCodePoint(rng));
            continue;
        }
        switch (kind) {
        case 0:
            text += static_cast<char>(in(1, 0xFF));
            break;
        case 1:
            text += static_cast<char>(in(0x80, 0xBF));
            break; // continuation
        case 2:
            text += static_cast<char>(in(0xC0, 0xFF));
            break; // lead (or worse)
        case 3:
            text += "\"\\\t\x7f"[in(0, 3)];
            break;
        case 4:
            text.append(in(1, 40), static_cast<char>(in(0x20, 0x7E)));
            break;
        case 5:
            text += static_cast<char>(in(1, 0x1F));
            break;
        case 6:
            AppendUtf8(text, in(0xD800, 0xDFFF));
            break; // encoded surrogate
        case 7:
            AppendUtf8(text, in(0x110000, 0x1FFFFF) & 0x1FFFFF);
            break;
        default:
            AppendUtf8(text, RandomCodePoint(rng));
            break;
        }
    }
    return text;
}

bool NlohmannAcceptsUtf8(const std::string& text) {
    try {
        (void)json(text).dump();
        return true;
    } catch (const json::type_error&) {
        return false;
    }
}

// Property for any bytes: the writer returns a closed literal of printable ASCII that
// nlohmann parses. Because stray bytes are written leniently (true, \uff80..\uffff)
// and a character's length follows the continuation bytes present, "false" is not
// the same as "nlohmann rejects the bytes". What holds exactly is:
//     nlohmann accepts the bytes as UTF-8  <=>  true, and the literal decodes to the bytes;
// and false implies one of the five messages. The output must also equal the naive
// transcription, byte for byte, with or without a leading record.
TEST(WriteJsonString, RandomBytes) {
    std::mt19937 rng(424242);
    std::uniform_int_distribution<int> count(0, 24);
    int accepted = 0, lenient = 0, refused = 0;
    for (int round = 0; round < 5000; ++round) {
        const std::string text = RandomBytes(rng, round % 3, round % 100 == 0 ? 1500 : count(rng));
        SCOPED_TRACE(::testing::Message()
                     << "round " << round << " text "
                     << json(text).dump(-1, ' ', true, json::error_handler_t::replace));
        const bool append = round % 2 == 1;
        Str writer(append ? "{\"m\":" : "stale");
        Str error;
        const bool ok = WriteJsonString(text.c_str(), writer, &error, append);
        std::string literal = Bytes(writer);
        if (append) {
            ASSERT_EQ(literal.compare(0, 5, "{\"m\":"), 0);
            literal.erase(0, 5);
        }
        ASSERT_GE(literal.size(), 2u);
        ASSERT_EQ(literal.front(), '"');
        ASSERT_EQ(literal.back(), '"');
        ASSERT_TRUE(IsPrintableAscii(literal)) << literal;
        const json parsed = json::parse(literal, nullptr, false);
        ASSERT_TRUE(parsed.is_string()) << literal;

        const bool valid = NlohmannAcceptsUtf8(text);
        ASSERT_EQ(valid, ok && parsed.get<std::string>() == text) << literal;
        if (ok) {
            EXPECT_TRUE(error.IsEmpty());
        } else {
            const char* const messages[] = {kJsonUtf8Invalid, kJsonUtf8Sequence, kJsonUtf8Range,
                                            kJsonUtf8Surrogate, kJsonUtf8Length};
            bool known = false;
            for (const char* m : messages)
                known = known || error == m;
            EXPECT_TRUE(known) << error.Text();
        }
        (valid ? accepted : ok ? lenient : refused)++;

        std::string expected, message;
        const bool expectedOk = ReferenceLiteral(text, expected, message);
        ASSERT_EQ(ok, expectedOk);
        ASSERT_EQ(literal, expected);
        ASSERT_STREQ(error.Text(), message.c_str());
    }
    // The generator must reach all three outcomes in earnest.
    EXPECT_GT(accepted, 1000);
    EXPECT_GT(lenient, 1000);
    EXPECT_GT(refused, 1000);
}

} // namespace
