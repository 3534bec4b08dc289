// The JSON string writer: the edge cases in one table, then random texts held
// against nlohmann::json.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "json.h"

namespace {

using nlohmann::json;

std::string Bytes(const Str& s) {
    return std::string(s.Text(), s.Length());
}
const char kUntouched[] = "untouched";

struct Case {
    const char* text; // null: a null text
    const char* expected;
    const char* message = nullptr; // the description of a malformed character; null: success
    const char* writer = nullptr;  // the writer's value before
    bool append = false;
    const char* errorBefore = kUntouched; // null: no error Str passed
};

// clang-format off
const Case kCases[] = {
    {"say \"hi\"", "\"say \\\"hi\\\"\""}, {"C:\\dir\\x", "\"C:\\\\dir\\\\x\""},
    {"a\tb", "\"a\\tb\""}, {"\b\n\f\r", "\"\\b\\n\\f\\r\""},
    {"\x01x\x0b\x1f", "\"\\u0001x\\u000b\\u001f\""},
    {"a\x7f", "\"a\x7f\""}, {"a/b", "\"a/b\""},                  // 0x7F and '/' pass
    {"caf\xc3\xa9!", "\"caf\\u00e9!\""}, {"\xe0\xa0\x80\xef\xbf\xbf", "\"\\u0800\\uffff\""},
    {"\xf0\x9f\x98\x80", "\"\\ud83d\\ude00\""}, {"\xf4\x8f\xbf\xbf", "\"\\udbff\\udfff\""},
    {"ab\xc0\x80z", "\"ab\"", kJsonUtf8Length},                   // overlong forms
    {"\t\xe0\x9f\xbf", "\"\\t\"", kJsonUtf8Length, nullptr, false, nullptr},
    {"x\xf0\x8f\xbf\xbf", "\"x\"", kJsonUtf8Length},
    {"\xc3\xa9\xed\xa0\x80", "\"\\u00e9\"", kJsonUtf8Surrogate},
    {"\xf0\x8d\xa0\x80", "\"\"", kJsonUtf8Surrogate},              // overlong surrogate: surrogate
    {"a\xf4\x90\x80\x80", "\"a\"", kJsonUtf8Range},
    {"ok\xf8\x88\x80\x80\x80", "\"ok\"", kJsonUtf8Invalid},         // five bytes and more
    {"\xf0\x80\x80\x80\x80\x80\x80\x80", "\"\"", kJsonUtf8Invalid},
    {"\xe9" "abc", "\"\\uffe9abc\""}, {"x\xf0", "\"x\\ufff0\""},   // bytes that stand alone
    {"\x80" "A", "\"\\uff80A\""}, {"\xbf" "a\xff", "\"\\uffbfa\\uffff\""},
    {"\x80\xbf", "\"\"", kJsonUtf8Length},                        // the second continues the first
    {"\xe9\x80x", "\"\\u0240x\""},                                // length from the bytes present
    {"\xc3\x80\x80\x80", "\"\\udac0\\udc00\""},
    {"xyA\x80", "\"xy\"", kJsonUtf8Length},                       // ASCII lead of a continuation
    {"0123456789abcdeA\x80", "\"0123456789abcde\"", kJsonUtf8Length}, // ... ending 16 bytes
    {"\xe6\x9b\xb4\xe6\x96\xb0\xe3\x83\x91\xe3\x83\x83\xed\xa0\x80", // five of three bytes
     "\"\\u66f4\\u65b0\\u30d1\\u30c3\"", kJsonUtf8Surrogate},
    {"\xe6\x9b\xb4\xd0\x80\x80\xe3\x83\x91\xe3\x83\x83\xe3\x83\x83", "\"\\u66f4\"",
     kJsonUtf8Length},
    {"", "\"\""}, {nullptr, "\"\""},
    {"\xc0\x80", "\"\"", kJsonUtf8Length, nullptr, false, kJsonUtf8Length}, // message kept as is
    {"\xed\xbf\xbf", "\"\"", kJsonUtf8Surrogate, nullptr, false, kJsonUtf8Length},
    {"\xf4\x90\x80\x80", "\"\"", kJsonUtf8Range, nullptr, false, nullptr},
    {"x", "{\"a\":\"x\"", nullptr, "{\"a\":", true},
    {"x\xc0\x80", "[\"x\"", kJsonUtf8Length, "[", true},
    {"x", "\"x\"", nullptr, "{\"a\":", false}, {nullptr, "\"\"", nullptr, "old", false},
    {nullptr, "old\"\"", nullptr, "old", true},
};
// clang-format on

TEST(WriteJsonString, EdgeCases) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.text));
        Str writer(c.writer);
        const Str shared = writer; // a shared block must not change
        Str error(c.errorBefore);
        const StrBlock* errorBlock = error.Block();
        EXPECT_EQ(WriteJsonString(c.text, writer, c.errorBefore ? &error : nullptr, c.append),
                  c.message == nullptr);
        EXPECT_EQ(Bytes(writer), c.expected);
        EXPECT_STREQ(shared.Text(), c.writer ? c.writer : "");
        if (c.errorBefore != nullptr) {
            EXPECT_STREQ(error.Text(), c.message ? c.message : c.errorBefore);
            EXPECT_TRUE(!(error == c.errorBefore) || error.Block() == errorBlock) << "reassigned";
        }
    }
    // The same texts with 24 escape-heavy ASCII bytes before and after them,
    // so that they also meet the writer's 16-byte paths (a prefix only where
    // it cannot turn into the lead of a character).
    const std::string pad = "0123456\"ab\\\x7f\x01"
                            "cdefghijklm",
                      padded = "0123456\\\"ab\\\\\x7f\\u0001cdefghijklm";
    for (const Case& c : kCases) {
        if (c.text == nullptr || c.append || (c.text[0] & 0xC0) == 0x80)
            continue;
        SCOPED_TRACE("padded " + testing::PrintToString(c.text));
        const std::string body = std::string(c.expected).substr(1, strlen(c.expected) - 2);
        Str writer;
        WriteJsonString((pad + c.text + pad).c_str(), writer, nullptr, false);
        EXPECT_EQ(Bytes(writer), "\"" + padded + body + (c.message ? "" : padded) + "\"");
    }
    // The text may lie inside the writer itself.
    Str writer("a\"b\xc3\xa9");
    EXPECT_TRUE(WriteJsonString(writer.Text(), writer, nullptr, true));
    EXPECT_EQ(Bytes(writer), "a\"b\xc3\xa9\"a\\\"b\\u00e9\"");
    EXPECT_TRUE(WriteJsonString(writer.Text() + 1, writer, nullptr, false));
    EXPECT_EQ(Bytes(writer), "\"\\\"b\\u00e9\\\"a\\\\\\\"b\\\\u00e9\\\"\"");
    // With names and numbers, a record.
    Str record("{");
    EXPECT_TRUE(WriteJsonName("max", record) && WriteJsonNumber(18446744073709551615ull, record));
    EXPECT_TRUE(record.Append(",") && WriteJsonName("n", record) && WriteJsonNumber(0, record));
    EXPECT_TRUE(record.Append(",") && WriteJsonName("t", record));
    EXPECT_TRUE(WriteJsonString("\xe2\x82\xac", record, nullptr, true) && record.Append("}"));
    EXPECT_EQ(Bytes(record), "{\"max\":18446744073709551615,\"n\":0,\"t\":\"\\u20ac\"}");
}

// Any value below 2^21 in the UTF-8 form, surrogates included.
std::string Utf8Of(uint32_t v) {
    if (v < 0x80)
        return std::string(1, char(v));
    const int n = v < 0x800 ? 2 : v < 0x10000 ? 3 : 4;
    std::string out(n, 0);
    for (int i = n - 1; i > 0; --i, v >>= 6)
        out[i] = char(0x80 | (v & 0x3F));
    out[0] = char(((0xFF00 >> n) & 0xFF) | v);
    return out;
}

// A character other than NUL and the surrogates, from every length and plane.
uint32_t RandomCodePoint(std::mt19937& rng) {
    static const uint32_t kEdges[] = {1,      0x1F,    0x20,    0x22,     0x5C,    0x7F,
                                      0x80,   0x7FF,   0x800,   0xD7FF,   0xE000,  0xFFFD,
                                      0xFFFF, 0x10000, 0x1F600, 0x10FFFF, 0x100000};
    const uint32_t starts[] = {1, 0x20, 0x80, 0x800, 0xE000, 0x10000},
                   sizes[] = {0x7F, 0x5F, 0x780, 0xD000, 0x2000, 0x100000};
    const uint32_t range = rng() % 7;
    return range == 6 ? kEdges[rng() % std::size(kEdges)] : starts[range] + rng() % sizes[range];
}

// Property for any bytes: a closed literal of printable ASCII that nlohmann
// parses; true with the bytes decoded exactly when nlohmann takes them as UTF-8
// (stray bytes are written leniently, so false is not "nlohmann refuses"); false
// with one of the five descriptions. Valid UTF-8 is written as nlohmann writes it
// with ensure_ascii, except that 0x7F stays unescaped.
TEST(WriteJsonString, RandomBytesAgainstNlohmann) {
    std::mt19937 rng(424242);
    int accepted = 0, lenient = 0, refused = 0;
    for (int round = 0; round < 5000; ++round) {
        std::string text;
        const int flavour = round % 3; // valid UTF-8; with lone lead bytes; anything
        // Now and then a long text, so that pieces cross the writer's internal buffer.
        for (uint32_t n = round % 100 == 0 ? 1500 : rng() % 25; n > 0; --n) {
            const uint32_t kind = flavour == 0 ? 5 : flavour == 1 ? (rng() % 4 ? 5 : 1) : rng() % 8;
            text += kind == 0   ? std::string(1, char(0x80 + rng() % 0x40)) // a stray continuation
                    : kind == 1 ? std::string(1, char(0xC0 + rng() % 0x40)) // a lead, or worse
                    : kind == 2 ? Utf8Of(0xD800 + rng() % 0x800)            // an encoded surrogate
                    : kind == 3 ? Utf8Of(0x110000 + rng() % 0xF0000)        // beyond the range
                    : kind == 4 ? std::string(1, char(1 + rng() % 0xFF))
                                : Utf8Of(RandomCodePoint(rng));
        }
        SCOPED_TRACE(json(text).dump(-1, ' ', true, json::error_handler_t::replace));
        const bool append = round % 2 == 1;
        Str writer(append ? "{\"m\":" : "stale");
        Str error;
        const bool ok = WriteJsonString(text.c_str(), writer, &error, append);
        std::string literal = Bytes(writer);
        ASSERT_TRUE(!append || literal.rfind("{\"m\":", 0) == 0) << literal;
        literal.erase(0, append ? 5 : 0);
        ASSERT_TRUE(literal.size() >= 2 && literal.front() == '"' && literal.back() == '"');
        ASSERT_TRUE(std::all_of(literal.begin(), literal.end(), [](unsigned char c) {
            return c >= 0x20 && c <= 0x7F;
        })) << literal;
        const json parsed = json::parse(literal, nullptr, false);
        ASSERT_TRUE(parsed.is_string()) << literal;
        bool valid = true;
        try {
            (void)json(text).dump();
        } catch (const json::type_error&) {
            valid = false;
        }
        ASSERT_EQ(valid, ok && parsed.get<std::string>() == text) << literal;
        if (valid) {
            std::string expected = json(text).dump(-1, ' ', true);
            for (size_t at; (at = expected.find("\\u007f")) != std::string::npos;)
                expected.replace(at, 6, "\x7f");
            ASSERT_EQ(literal, expected);
        }
        bool known = ok;
        for (const char* m : {kJsonUtf8Invalid, kJsonUtf8Sequence, kJsonUtf8Range,
                              kJsonUtf8Surrogate, kJsonUtf8Length})
            known = known || error == m;
        EXPECT_TRUE(known && error.IsEmpty() == ok) << error.Text();
        (valid ? accepted : ok ? lenient : refused)++;
    }
    EXPECT_GT(accepted, 1000); // the generator reaches all three outcomes in earnest
    EXPECT_GT(lenient, 1000);
    EXPECT_GT(refused, 1000);
}

} // namespace
