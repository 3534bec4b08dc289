// Reporting: the report line (header columns, line splitting, chunking at the
// 1,024-byte limit), the severity mask and suppression, the caller's last error,
// system error texts, interactive reports and their message box, events (echo,
// records on stdout/stderr, the log type, the event-source cache) and what the
// trace sink does with a finished line (debugger output, standard error, the
// trace viewer's pipe and the shared header-flags word).
//
// The program re-invokes itself with "--report-child <mode>" for what needs a
// process of its own: the log type is read once per process, and an answer of
// No to "Continue?" ends the process.
#include <gtest/gtest.h>

#include <windows.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "locks.h"
#include "report.h"
#include "testsupport.h"
#include "trace.h"

// The reporting code's message-box seam (defined beside MessageBoxThread).

using namespace testsupport;

namespace {

const char kEventLogKey[] = "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application";

std::wstring SelfPath() {
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::wstring(path, n);
}

std::string ModuleBaseNameReference() {
    std::wstring name = SelfPath();
    name = name.substr(name.find_last_of(L"\\/") + 1);
    const size_t dot = name.rfind(L'.');
    if (dot != std::wstring::npos)
        name.resize(dot);
    return Narrow(name);
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

// The platform's text for a code, trimmed, without going through the code under test.
std::string PlatformText(DWORD code) {
    wchar_t* buffer = nullptr;
    const DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                       FORMAT_MESSAGE_IGNORE_INSERTS,
                                   nullptr, code, 0, reinterpret_cast<LPWSTR>(&buffer), 0, nullptr);
    std::wstring text(buffer != nullptr ? buffer : L"", n);
    LocalFree(buffer);
    while (!text.empty() && iswspace(text.back()))
        text.pop_back();
    while (!text.empty() && iswspace(text.front()))
        text.erase(0, 1);
    // Line breaks inside the text become one blank each.
    std::wstring folded;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool lineEnd = text[i] == L'\r' || text[i] == L'\n';
        if (!lineEnd)
            folded += text[i];
        else if (i == 0 || !(text[i - 1] == L'\r' || text[i - 1] == L'\n'))
            folded += L' ';
    }
    return Narrow(folded);
}

std::string Expected(DWORD code, const std::string& text) {
    char tail[64];
    snprintf(tail, sizeof tail, " (0x%08lX/%lu)", static_cast<unsigned long>(code),
             static_cast<unsigned long>(code));
    return (text.empty() ? std::string("Unknown error") : text) + tail;
}

// ---------------------------------------------------------------------------
// Captured report lines

std::mutex s_captureMutex;
std::vector<std::string> s_lines;
std::vector<uint32_t> s_destinations;

bool CaptureLine(const char* line, uint32_t destinations) {
    std::lock_guard<std::mutex> lock(s_captureMutex);
    s_lines.push_back(line);
    s_destinations.push_back(destinations);
    return true;
}

std::vector<std::string> TakeLines() {
    std::lock_guard<std::mutex> lock(s_captureMutex);
    std::vector<std::string> lines;
    lines.swap(s_lines);
    s_destinations.clear();
    return lines;
}

// ---------------------------------------------------------------------------
// Scripted message boxes (the hook runs on the box's own thread)

struct BoxCall {
    std::string text;
    std::string caption;
    uint32_t style;
    uint32_t callerInDialog; // the reporting thread's in-dialog count meanwhile
};

struct BoxAnswer {
    int answer;
    bool shift;
    bool control;
    DWORD delayMs;
};

std::mutex s_boxMutex;
std::vector<BoxCall> s_boxCalls;
std::deque<BoxAnswer> s_boxScript; // empty: OK
ThreadReportState* volatile s_boxCaller = nullptr;
bool s_boxPrints = false; // child processes print each box to stdout

int ScriptedBox(const char* text, const char* caption, uint32_t style, bool* shift, bool* control) {
    BoxAnswer answer{IDOK, false, false, 0};
    {
        std::lock_guard<std::mutex> lock(s_boxMutex);
        ThreadReportState* caller = s_boxCaller;
        s_boxCalls.push_back({text, caption, style, caller != nullptr ? caller->inDialog : 0u});
        if (!s_boxScript.empty()) {
            answer = s_boxScript.front();
            s_boxScript.pop_front();
        }
    }
    if (s_boxPrints) {
        printf("#BOX %05X %s\n", style, text);
        fflush(stdout);
    }
    SetLastError(ERROR_ACCESS_DENIED); // the box's thread, not the caller's
    if (answer.delayMs != 0)
        Sleep(answer.delayMs);
    *shift = answer.shift;
    *control = answer.control;
    return answer.answer;
}

std::vector<BoxCall> TakeBoxes() {
    std::lock_guard<std::mutex> lock(s_boxMutex);
    std::vector<BoxCall> calls;
    calls.swap(s_boxCalls);
    return calls;
}

void ScriptBoxes(std::initializer_list<BoxAnswer> answers) {
    std::lock_guard<std::mutex> lock(s_boxMutex);
    s_boxScript.assign(answers.begin(), answers.end());
}

// ---------------------------------------------------------------------------
// Debugger output, observed in-process: OutputDebugStringA raises
// DBG_PRINTEXCEPTION_C, which a vectored handler sees before anyone else.

std::mutex s_debugMutex;
std::vector<std::string> s_debugStrings;

LONG CALLBACK DebugStringHandler(EXCEPTION_POINTERS* info) {
    const EXCEPTION_RECORD* record = info->ExceptionRecord;
    if (record->ExceptionCode == DBG_PRINTEXCEPTION_C && record->NumberParameters >= 2) {
        const auto length = static_cast<size_t>(record->ExceptionInformation[0]);
        const char* text = reinterpret_cast<const char*>(record->ExceptionInformation[1]);
        std::lock_guard<std::mutex> lock(s_debugMutex);
        s_debugStrings.emplace_back(text, length > 0 ? length - 1 : 0);
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

class DebugOutput {
  public:
    DebugOutput() : m_handler(AddVectoredExceptionHandler(1, DebugStringHandler)) {
        std::lock_guard<std::mutex> lock(s_debugMutex);
        s_debugStrings.clear();
    }
    ~DebugOutput() { RemoveVectoredExceptionHandler(m_handler); }
    DebugOutput(const DebugOutput&) = delete;
    DebugOutput& operator=(const DebugOutput&) = delete;
    // The strings that contain `marker`.
    std::vector<std::string> With(const std::string& marker) const {
        std::lock_guard<std::mutex> lock(s_debugMutex);
        std::vector<std::string> found;
        for (const std::string& s : s_debugStrings)
            if (s.find(marker) != std::string::npos)
                found.push_back(s);
        return found;
    }

  private:
    void* m_handler;
};

// ---------------------------------------------------------------------------
// Fixture: every test starts with this thread's defaults, captured lines and
// scripted boxes, and leaves the process-wide switches as it found them.

class Report : public ::testing::Test {
  protected:
    void SetUp() override {
        m_saved = *GetThreadReportState();
        ThreadReportState* state = GetThreadReportState();
        state->suppressCount = 0;
        state->severityMask = 4095;
        state->headerFlagsOverride = false;
        state->indent = 0;
        state->inDialog = 0;
        state->neverAsk = false;
        state->silencedCount = 0;
        for (auto& site : state->silenced)
            site = {};
        s_boxCaller = state;
        TakeLines();
        TakeBoxes();
        ScriptBoxes({});
        SetTraceHook(CaptureLine);
    }
    void TearDown() override {
        SetTraceHook(nullptr);
        TakeLines();
        TakeBoxes();
        ScriptBoxes({});
        s_boxCaller = nullptr;
        SetReportBoxHook(ScriptedBox);
        SetReportingEnabled(true);
        SetInteractionAllowed(true, true);
        SetTraceDestinations(kTraceToPipe | kTraceToDebugger);
        *GetThreadReportState() = m_saved;
    }
    static void Flags(uint32_t flags) {
        GetThreadReportState()->headerFlagsOverride = true;
        GetThreadReportState()->headerFlags = flags;
    }

  private:
    ThreadReportState m_saved;
};

// ---------------------------------------------------------------------------
// The report line

TEST_F(Report, LinesSplitAtEveryKindOfLineEnd) {
    const struct {
        const char* text;
        std::vector<std::string> lines;
    } cases[] = {
        {"a\r\nb", {"EW|x|....7: a", "EW|x|....7: b"}},
        {"a\rb", {"EW|x|....7: a", "EW|x|....7: b"}},
        {"a\nb", {"EW|x|....7: a", "EW|x|....7: b"}},
        {"a\n\rb", {"EW|x|....7: a", "EW|x|....7: ", "EW|x|....7: b"}},
        {"a\n\nb", {"EW|x|....7: a", "EW|x|....7: ", "EW|x|....7: b"}},
        {"a\r\n\r\nb", {"EW|x|....7: a", "EW|x|....7: ", "EW|x|....7: b"}},
        {"a\r\r\nb", {"EW|x|....7: a", "EW|x|....7: ", "EW|x|....7: b"}},
        {"\nb", {"EW|x|....7: ", "EW|x|....7: b"}},
        {"", {"EW|x|....7: "}},
        {"one line", {"EW|x|....7: one line"}},
        {"tab\tand \xC3\xA9", {"EW|x|....7: tab\tand \xC3\xA9"}},
    };
    Flags(0x60);
    for (const auto& c : cases) {
        WriteReport(4096, 32, "x", 7, c.text);
        EXPECT_EQ(TakeLines(), c.lines) << testing::PrintToString(std::string(c.text));
    }
}

TEST_F(Report, HeaderColumnsLettersAndLineNumbers) {
    const char* file = "x";
    const struct {
        uint32_t flags;
        uint32_t category;
        int32_t severity;
        const char* file;
        uint32_t line;
        const char* expected;
    } cases[] = {
        {0x60, 4096, 32, file, 7, "EW|x|....7: m"},
        {0xF000, 4096, 32, file, 7, "m"},           // no letters, no columns, no ": "
        {0xF060, 4096, 32, file, 7, "|x|....7: m"}, // not exactly 0xF000: ": " is back
        {0x1000, 4096, 32, file, 7, ": m"},
        {0x1060, 4096, 32, file, 7, "|x|....7: m"},
        {0, 4096, 32, file, 7, "EW: m"},
        // Category letters.
        {0, 8192, 32, file, 7, "TW: m"},
        {0, 12288, 32, file, 7, "FW: m"},
        {0, 16384, 32, file, 7, "KW: m"},
        {0, 20480, 32, file, 7, "CW: m"},
        {0, 24576, 32, file, 7, "IW: m"},
        {0, 0, 32, file, 7, "EW: m"},
        {0, 4097, 32, file, 7, "EW: m"},
        {0, 28672, 32, file, 7, "EW: m"},
        {0, 0xFFFFFFFF, 32, file, 7, "EW: m"},
        // Severity letters; anything else repeats the category letter.
        {0, 4096, 2, file, 7, "EX: m"},
        {0, 4096, 4, file, 7, "EM: m"},
        {0, 4096, 8, file, 7, "ES: m"},
        {0, 4096, 16, file, 7, "EA: m"},
        {0, 8192, 1, file, 7, "TT: m"},
        {0, 12288, 64, file, 7, "FF: m"},
        {0, 16384, 0, file, 7, "KK: m"},
        {0, 20480, 6, file, 7, "CC: m"},
        {0, 24576, 2048, file, 7, "II: m"},
        // The line column: five wide, dot-filled; only with a source file.
        {0x40, 4096, 32, file, 0, "EW|....0: m"},
        {0x40, 4096, 32, file, 42, "EW|...42: m"},
        {0x40, 4096, 32, file, 12345, "EW|12345: m"},
        {0x40, 4096, 32, file, 123456, "EW|123456: m"},
        {0x40, 4096, 32, file, 4294967295u, "EW|4294967295: m"},
        {0x40, 4096, 32, nullptr, 7, "EW: m"},
        {0x60, 4096, 32, nullptr, 7, "EW|: m"},
        {0x60, 4096, 32, "", 7, "EW||....7: m"},
        {0x20, 4096, 32, "gui\\base\\source\\error", 7, "EW|gui\\base\\source\\error: m"},
    };
    for (const auto& c : cases) {
        Flags(c.flags);
        WriteReport(c.category, c.severity, c.file, c.line, "m");
        EXPECT_EQ(TakeLines(), std::vector<std::string>{c.expected})
            << std::hex << "flags 0x" << c.flags << " category 0x" << c.category << std::dec
            << " severity " << c.severity << " line " << c.line;
    }
}

TEST_F(Report, ProcessThreadAndModuleColumns) {
    const std::string module = ModuleBaseNameReference();
    ASSERT_EQ(module, "report_test");
    EXPECT_EQ(std::string(GetModuleBaseName().Text()), module);

    // Columns read back as numbers, whatever letter case the hex digits take.
    auto check = [&](uint32_t flags, DWORD thread) {
        Flags(flags);
        WriteReport(4096, 2, "f", 3, "text");
        const std::vector<std::string> lines = TakeLines();
        ASSERT_EQ(lines.size(), 1u);
        std::string expected = "EX";
        std::smatch m;
        const std::regex hex("\\|0x([0-9a-fA-F]+)");
        std::string rest = lines[0].substr(2);
        if (flags & 1) {
            ASSERT_TRUE(std::regex_search(rest, m, hex) && m.position(0) == 0) << lines[0];
            EXPECT_EQ(std::stoul(m[1].str(), nullptr, 16), GetCurrentProcessId()) << lines[0];
            rest = m.suffix();
        }
        if (flags & 2) {
            ASSERT_TRUE(std::regex_search(rest, m, hex) && m.position(0) == 0) << lines[0];
            EXPECT_EQ(std::stoul(m[1].str(), nullptr, 16), thread) << lines[0];
            rest = m.suffix();
        }
        if (flags & 4) {
            ASSERT_EQ(rest.rfind("|" + module, 0), 0u) << lines[0];
            rest = rest.substr(module.size() + 1);
        }
        EXPECT_EQ(rest, ": text") << lines[0];
    };
    for (uint32_t flags : {1u, 2u, 4u, 3u, 5u, 6u, 7u})
        check(flags, GetCurrentThreadId());
    // Another thread: its own id, and its own (default) state until it sets one.
    std::thread other([&] {
        WriteReport(4096, 2, "f", 3, "text");
        const std::vector<std::string> lines = TakeLines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].find("|f|"), std::string::npos) << "thread state leaked: " << lines[0];
        s_boxCaller = GetThreadReportState();
        check(7, GetCurrentThreadId());
        GetThreadReportState()->headerFlagsOverride = false;
    });
    other.join();
    s_boxCaller = GetThreadReportState();
}

__attribute__((noinline)) std::string ReportFromDeeper(int levels) {
    volatile char pad[4096];
    pad[0] = static_cast<char>(levels);
    if (pad[0] != static_cast<char>(levels))
        return std::string();
    if (levels > 0) {
        std::string line = ReportFromDeeper(levels - 1);
        pad[1] = 0; // keeps this frame alive across the call
        return line;
    }
    WriteReport(4096, 2, nullptr, 0, "deep");
    std::vector<std::string> lines = TakeLines();
    return lines.size() == 1 ? lines[0] : std::string();
}

TEST_F(Report, StackDepthAndUserNameColumns) {
    char user[64] = {};
    DWORD size = 32;
    const std::string name = GetUserNameA(user, &size) ? user : "???";
    Flags(0x1180);
    WriteReport(4096, 2, nullptr, 0, "shallow");
    const std::vector<std::string> shallow = TakeLines();
    ASSERT_EQ(shallow.size(), 1u);
    std::smatch m;
    const std::regex form("\\|([0-9]+)\\|(.*): shallow");
    ASSERT_TRUE(std::regex_match(shallow[0], m, form)) << shallow[0];
    EXPECT_EQ(m[2].str(), name);
    const unsigned long long depth1 = std::stoull(m[1].str());
    const std::string deep = ReportFromDeeper(3);
    ASSERT_TRUE(std::regex_match(deep, m, std::regex("\\|([0-9]+)\\|.*: deep"))) << deep;
    const unsigned long long depth2 = std::stoull(m[1].str());
    EXPECT_GE(depth2, depth1 + 3 * 4096) << shallow[0] << " / " << deep;

    // All columns together, in the order of the flags.
    Flags(0x1E7);
    WriteReport(4096, 32, "x", 7, "all");
    const std::vector<std::string> all = TakeLines();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_TRUE(std::regex_match(
        all[0], std::regex("EW\\|0x[0-9a-fA-F]+\\|0x[0-9a-fA-F]+\\|"
                           "report_test\\|x\\|\\.\\.\\.\\.7\\|[0-9]+\\|" +
                           std::regex_replace(name, std::regex("\\W"), "\\$&") + ": all")))
        << all[0];
}

TEST_F(Report, IndentOnlyWhereItLeavesEightyBytes) {
    // Header "|<file>: " is file length + 3 bytes; indent 10: spaces while header <= 934.
    for (size_t headerLength : {4u, 933u, 934u, 935u, 1000u}) {
        const std::string file(headerLength - 3, 'f');
        Flags(0x1020);
        GetThreadReportState()->indent = 10;
        WriteReport(4096, 32, file.c_str(), 1, "a\nb");
        const std::vector<std::string> lines = TakeLines();
        const std::string header = "|" + file + ": ";
        const std::string pad = headerLength <= 934 ? std::string(10, ' ') : std::string();
        EXPECT_EQ(lines, (std::vector<std::string>{header + pad + "a", header + pad + "b"}))
            << "header " << headerLength;
    }
    // Later chunks of a long line carry the header but not the indent.
    Flags(0);
    GetThreadReportState()->indent = 3;
    const std::string text(2000, 'z');
    WriteReport(4096, 32, nullptr, 0, text.c_str());
    const std::vector<std::string> lines = TakeLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "EW:    " + std::string(1024 - 7, 'z'));
    EXPECT_EQ(lines[1], "EW: " + std::string(2000 - (1024 - 7), 'z'));
}

// Checks the chunks of one reported line: each at most 1,024 bytes with the
// header, none cut inside a UTF-8 sequence, each as long as it can be, and
// together the line itself.
void CheckChunks(const std::vector<std::string>& lines, const std::string& header,
                 const std::string& text, const std::string& label) {
    ASSERT_FALSE(lines.empty()) << label;
    std::string joined;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        ASSERT_LE(line.size(), 1024u) << label << " chunk " << i;
        ASSERT_EQ(line.compare(0, header.size(), header), 0) << label << " chunk " << i;
        const std::string chunk = line.substr(header.size());
        if (!chunk.empty()) {
            EXPECT_NE(static_cast<unsigned char>(chunk[0]) & 0xC0, 0x80)
                << label << ": chunk " << i << " starts inside a character";
        }
        joined += chunk;
        if (i + 1 < lines.size()) {
            // The next character would not have fitted.
            const size_t next = joined.size();
            size_t width = 1;
            while (next + width < text.size() &&
                   (static_cast<unsigned char>(text[next + width]) & 0xC0) == 0x80)
                ++width;
            EXPECT_GT(line.size() + width, 1024u) << label << ": chunk " << i << " cut short";
        }
    }
    EXPECT_EQ(joined.size(), text.size()) << label;
    EXPECT_TRUE(joined == text) << label << ": chunks do not give back the line";
}

TEST_F(Report, LongLinesAreCutBetweenCharacters) {
    const char* characters[] = {"a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
    // Headers of 4 ("EW: ") and 100 bytes; every offset of the characters around the cut.
    for (size_t headerLength : {4u, 100u, 1017u}) {
        const std::string file = headerLength == 4 ? "" : std::string(headerLength - 3, 'h');
        const uint32_t flags = headerLength == 4 ? 0 : 0x1020;
        const std::string header = headerLength == 4 ? "EW: " : "|" + file + ": ";
        for (const char* character : characters) {
            for (size_t offset = 0; offset < 5; ++offset) {
                std::string text(offset, 'a');
                while (text.size() < 2600)
                    text += character;
                Flags(flags);
                WriteReport(4096, 32, file.empty() ? nullptr : file.c_str(), 0, text.c_str());
                const std::string label = "header " + std::to_string(headerLength) + ", width " +
                                          std::to_string(strlen(character)) + ", offset " +
                                          std::to_string(offset);
                CheckChunks(TakeLines(), header, text, label);
            }
        }
    }
}

TEST_F(Report, LineOfExactlyTheLimit) {
    Flags(0);
    const std::string fits(1020, 'q');
    WriteReport(4096, 32, nullptr, 0, fits.c_str());
    EXPECT_EQ(TakeLines(), std::vector<std::string>{"EW: " + fits});
    WriteReport(4096, 32, nullptr, 0, (fits + "r").c_str());
    EXPECT_EQ(TakeLines(), (std::vector<std::string>{"EW: " + fits, "EW: r"}));
    // A two-byte character that would end at byte 1,025 moves to the next line.
    WriteReport(4096, 32, nullptr, 0, (std::string(1019, 'q') + "\xC3\xA9").c_str());
    EXPECT_EQ(TakeLines(),
              (std::vector<std::string>{"EW: " + std::string(1019, 'q'), "EW: \xC3\xA9"}));
}

TEST_F(Report, HeaderOfTheLimitOrLongerDropsTheReport) {
    Flags(0x1020);                        // "|<file>: "
    const std::string longest(1020, 'h'); // header 1,023 bytes: one byte of text a line
    WriteReport(4096, 32, longest.c_str(), 0, "abc");
    const std::string header = "|" + longest + ": ";
    EXPECT_EQ(TakeLines(), (std::vector<std::string>{header + "a", header + "b", header + "c"}));
    // With no room for a whole character the line still ends, and nothing is lost.
    WriteReport(4096, 32, longest.c_str(), 0, "\xE2\x82\xAC\xC3\xA9");
    const std::vector<std::string> lines = TakeLines();
    std::string joined;
    for (const std::string& line : lines) {
        ASSERT_LE(line.size(), 1024u);
        joined += line.substr(header.size());
    }
    EXPECT_EQ(joined, "\xE2\x82\xAC\xC3\xA9");

    for (size_t fileLength : {1021u, 1022u, 4000u}) {
        const std::string file(fileLength, 'h');
        WriteReport(4096, 32, file.c_str(), 0, "abc");
        EXPECT_TRUE(TakeLines().empty()) << "file " << fileLength;
    }
    // The module, user and line columns count too.
    Flags(0x1060);
    WriteReport(4096, 32, std::string(1014, 'h').c_str(), 7, "x"); // 1 + 1014 + 6 + 2 = 1023
    EXPECT_EQ(TakeLines().size(), 1u);
    WriteReport(4096, 32, std::string(1015, 'h').c_str(), 7, "x");
    EXPECT_TRUE(TakeLines().empty());
}

TEST_F(Report, MaskSuppressionAndSwitchWriteNothingAndShowNoBox) {
    const struct {
        uint32_t mask;
        uint32_t suppress;
        int32_t severity;
        bool written;
    } cases[] = {
        {4095, 0, 4, true},  {4095, 0, 32, true}, {4095 & ~4u, 0, 4, false},   {4, 0, 4, true},
        {4, 0, 32, false},   {0, 0, 4, false},    {4095, 0, 4096, false},      {4095, 0, -1, false},
        {4095, 1, 4, false}, {4095, 7, 2, false}, {0xFFFFFFFF, 0, 4096, true}, {0, 0, 0, true},
    };
    for (const auto& c : cases) {
        ThreadReportState* state = GetThreadReportState();
        state->severityMask = c.mask;
        state->suppressCount = c.suppress;
        Flags(0);
        SetLastError(ERROR_FILE_NOT_FOUND);
        WriteReport(4096, c.severity, "f", 1, "w");
        WriteReportF(4096, c.severity, "f", 2, "%s", "f");
        ReportWithSystemError(4096, c.severity, "f", 3, "s");
        ReportAndConfirm(4096, c.severity, "f", 4, "c");
        const size_t lines = TakeLines().size();
        const size_t boxes = TakeBoxes().size();
        state->severityMask = 4095;
        state->suppressCount = 0;
        EXPECT_EQ(lines, c.written ? 4u : 0u)
            << "mask " << c.mask << " suppress " << c.suppress << " severity " << c.severity;
        EXPECT_EQ(boxes, c.written ? 1u : 0u)
            << "mask " << c.mask << " suppress " << c.suppress << " severity " << c.severity;
    }
    SetReportingEnabled(false);
    WriteReport(4096, 4, "f", 1, "w");
    ReportAndConfirm(4096, 4, "f", 4, "c");
    SetReportingEnabled(true);
    EXPECT_TRUE(TakeLines().empty());
    EXPECT_TRUE(TakeBoxes().empty());
    WriteReport(4096, 4, "f", 1, nullptr);
    ReportAndConfirm(4096, 4, "f", 1, nullptr);
    EXPECT_TRUE(TakeLines().empty());
    EXPECT_TRUE(TakeBoxes().empty());
}

TEST_F(Report, SinkGetsTheProcessWideDestinationWord) {
    Flags(0);
    for (uint32_t word : {3u, 6u, 4u, 0u}) {
        SetTraceDestinations(word);
        WriteReport(4096, 2, nullptr, 0, "a\nb");
        std::lock_guard<std::mutex> lock(s_captureMutex);
        EXPECT_EQ(s_destinations, (std::vector<uint32_t>{word, word}));
        s_lines.clear();
        s_destinations.clear();
    }
}

// ---------------------------------------------------------------------------
// The caller's last error

// Formats through a va_list, as a caller with inserts would.
Str FormatWithArguments(uint32_t code, HMODULE module, ...) {
    va_list arguments;
    va_start(arguments, module);
    Str text = FormatSystemError(code, module, 0, 0, &arguments);
    va_end(arguments);
    return text;
}

TEST_F(Report, EveryEntryPointKeepsTheCallersLastError) {
    const Str source("KvtReportKeepsError");
    const EventValue values[] = {{"bytes", Str("12"), true}};
    EventDescriptor descriptor;
    descriptor.message = "kept %1";
    descriptor.inserts[0] = "here";
    descriptor.values = values;
    descriptor.valueCount = 1;
    const char* fields[2] = {"lock", "site"};
    const struct {
        const char* name;
        std::function<void()> call;
    } entries[] = {
        {"WriteReport", [] { WriteReport(4096, 32, "f", 1, "m"); }},
        {"WriteReport null", [] { WriteReport(4096, 32, "f", 1, nullptr); }},
        {"WriteReportF", [] { WriteReportF(4096, 32, "f", 1, "%d", 5); }},
        {"ReportWithSystemError", [] { ReportWithSystemError(4096, 32, "f", 1, "m"); }},
        {"ReportAndConfirm OK", [] { ReportAndConfirm(4096, 4, "f", 1, "m"); }},
        {"ReportAndConfirm Cancel, Yes",
         [] {
             ScriptBoxes({{IDCANCEL, false, false, 0}, {IDYES, false, false, 0}});
             ReportAndConfirm(4096, 4, "f", 2, "m");
         }},
        {"ReportEvent info", [&] { ReportEvent(source, 1, descriptor, true, 2, 0, false); }},
        {"ReportEvent err", [&] { ReportEvent(source, 1, descriptor, true, 0, 0, true); }},
        {"MessageBoxThread", [] { MessageBoxThread("m", MB_OK, nullptr, nullptr); }},
        {"GetLogType", [] { GetLogType(); }},
        {"FormatSystemError known", [] { FormatSystemError(ERROR_ACCESS_DENIED); }},
        {"FormatSystemError unknown", [] { FormatSystemError(0x12345678); }},
        {"FormatSystemError language",
         [] { FormatSystemError(2, nullptr, LANG_ENGLISH, SUBLANG_ENGLISH_US); }},
        {"FormatSystemError arguments", [] { FormatWithArguments(2, nullptr, L"x"); }},
        {"SystemErrorText known", [] { SystemErrorText(ERROR_ACCESS_DENIED); }},
        {"SystemErrorText unknown", [] { SystemErrorText(0x12345678); }},
        {"InstallEventSource", [&] { InstallEventSource(source); }},
        {"GetEventSourceHandle new", [] { GetEventSourceHandle(Str("KvtReportKeeps2"), true); }},
        {"GetEventSourceHandle cached", [&] { GetEventSourceHandle(source, true); }},
        {"ReportLibraryError",
         [&] { ReportLibraryError("gui\\base\\source\\x", 9, 3, "failed", values, 1); }},
        {"FireDiagnosticEvent", [&] { FireDiagnosticEvent(100, 1, fields, 2); }},
        {"GetModuleBaseName", [] { GetModuleBaseName(); }},
    };
    for (DWORD error : {DWORD{0xBEEF}, DWORD{0}, DWORD{ERROR_FILE_NOT_FOUND}}) {
        for (const auto& entry : entries) {
            SetLastError(error);
            entry.call();
            EXPECT_EQ(GetLastError(), error) << entry.name;
        }
    }
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kEventLogKey, 0, KEY_ALL_ACCESS, &key) == 0) {
        RegDeleteKeyA(key, "KvtReportKeepsError");
        RegDeleteKeyA(key, "KvtReportKeeps2");
        RegCloseKey(key);
    }
}

// ---------------------------------------------------------------------------
// System error texts

TEST_F(Report, ReportWithSystemErrorAppendsTheLastErrorOrErrno) {
    const struct {
        DWORD lastError;
        int runtimeError;
        DWORD shown;
    } cases[] = {
        {ERROR_ACCESS_DENIED, 0, ERROR_ACCESS_DENIED},
        {ERROR_ACCESS_DENIED, ENOENT, ERROR_ACCESS_DENIED}, // the last error comes first
        {0, ENOENT, static_cast<DWORD>(ENOENT)},
        {0, EACCES, static_cast<DWORD>(EACCES)},
        {0, 0, 0},
        {0x12345678, 0, 0x12345678},
    };
    Flags(0);
    for (const auto& c : cases) {
        errno = c.runtimeError;
        SetLastError(c.lastError);
        ReportWithSystemError(4096, 32, nullptr, 0, "opening");
        const DWORD after = GetLastError();
        const std::string expected = "EW: opening: " + Expected(c.shown, PlatformText(c.shown));
        EXPECT_EQ(TakeLines(), std::vector<std::string>{expected})
            << "last error " << c.lastError << ", errno " << c.runtimeError;
        EXPECT_EQ(after, c.lastError);
    }
    // The error follows the message's last line.
    errno = 0;
    SetLastError(ERROR_ACCESS_DENIED);
    ReportWithSystemError(4096, 32, nullptr, 0, "first\nsecond");
    EXPECT_EQ(TakeLines(), (std::vector<std::string>{
                               "EW: first",
                               "EW: second: " + Expected(5, PlatformText(5)),
                           }));
}

TEST_F(Report, FormatSystemErrorMatchesThePlatformOnOneLine) {
    std::vector<DWORD> codes;
    for (DWORD code = 0; code < 16000; ++code)
        codes.push_back(code);
    for (DWORD code : {0x80070005u, 0x800B0100u, 0x80096004u, 0xC0000005u, 0x12345678u, 0xDEADBEEFu,
                       0xFFFFFFFFu})
        codes.push_back(code);
    size_t known = 0;
    for (DWORD code : codes) {
        const std::string platform = PlatformText(code);
        known += !platform.empty();
        const std::string text = FormatSystemError(code).Text();
        ASSERT_EQ(text, Expected(code, platform)) << code;
        ASSERT_EQ(text.find_first_of("\r\n"), std::string::npos) << code;
        ASSERT_EQ(std::string(SystemErrorText(code).Text()), platform) << code;
    }
    EXPECT_GT(known, 100u);
    EXPECT_EQ(std::string(FormatSystemError(0x12345678).Text()),
              "Unknown error (0x12345678/305419896)");
    EXPECT_EQ(std::string(FormatSystemError(0xFFFFFFFF).Text()),
              "Unknown error (0xFFFFFFFF/4294967295)");
    EXPECT_EQ(std::string(SystemErrorText(0x12345678).Text()), "");
    EXPECT_EQ(std::string(FormatSystemError(2, nullptr, LANG_ENGLISH, SUBLANG_ENGLISH_US).Text()),
              Expected(2, PlatformText(2)));
}

TEST_F(Report, FormatSystemErrorFromAModuleWithInserts) {
    // The service's message table: message 0 is "%1".
    const std::wstring exe = Env(L"KVT_SERVICE_EXE");
    HMODULE module = LoadLibraryExW(exe.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    ASSERT_NE(module, nullptr) << Narrow(exe);
    EXPECT_EQ(std::string(FormatWithArguments(0, module, L"  inserted text  ").Text()),
              "inserted text (0x00000000/0)");
    // Line breaks, even inside an insert, fold into one line.
    EXPECT_EQ(std::string(FormatWithArguments(0, module, L"one\r\ntwo\nthree\r\n").Text()),
              "one two three (0x00000000/0)");
    // Category 1 of the table, no inserts.
    EXPECT_EQ(std::string(FormatSystemError(1, module).Text()), "General (0x00000001/1)");
    EXPECT_EQ(std::string(FormatSystemError(999, module).Text()), "Unknown error (0x000003E7/999)");
    FreeLibrary(module);
}

// ---------------------------------------------------------------------------
// Interactive reports

TEST_F(Report, ConfirmShowsOneBoxWithTheMessage) {
    Flags(0);
    ReportAndConfirm(4096, 4, "f", 1, "look at this");
    EXPECT_EQ(TakeLines(), std::vector<std::string>{"EM: look at this"});
    const std::vector<BoxCall> boxes = TakeBoxes();
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].text, "look at this");
    EXPECT_EQ(boxes[0].caption, "Korvanta Tracer");
    EXPECT_EQ(boxes[0].style, 0x11011u); // OK and Cancel, error icon, system-modal, foreground
    EXPECT_EQ(boxes[0].callerInDialog, 1u);
    EXPECT_EQ(GetThreadReportState()->inDialog, 0u);
}

TEST_F(Report, ConfirmShowsNothingWhereItMustNot) {
    const char* file = "f";
    const struct {
        const char* name;
        bool processAllows;
        bool userAllows;
        uint32_t inDialog;
        bool neverAsk;
    } cases[] = {
        {"process disallows", false, true, 0, false}, {"user disallows", true, false, 0, false},
        {"both disallow", false, false, 0, false},    {"already in a box", true, true, 1, false},
        {"never ask", true, true, 0, true},
    };
    for (const auto& c : cases) {
        SetInteractionAllowed(c.processAllows, c.userAllows);
        GetThreadReportState()->inDialog = c.inDialog;
        GetThreadReportState()->neverAsk = c.neverAsk;
        const auto start = std::chrono::steady_clock::now();
        ReportAndConfirm(4096, 4, file, 1, "quiet");
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(TakeLines().size(), 1u) << c.name; // the line is written all the same
        EXPECT_TRUE(TakeBoxes().empty()) << c.name;
        EXPECT_LT(took, std::chrono::milliseconds(200)) << c.name;
        EXPECT_EQ(GetThreadReportState()->inDialog, c.inDialog) << c.name;
        GetThreadReportState()->inDialog = 0;
        GetThreadReportState()->neverAsk = false;
        SetInteractionAllowed(true, true);
    }
}

TEST_F(Report, ShiftMeansNeverAskAgain) {
    ScriptBoxes({{IDOK, true, false, 0}});
    ReportAndConfirm(4096, 4, "f", 1, "first");
    EXPECT_TRUE(GetThreadReportState()->neverAsk);
    ReportAndConfirm(4096, 4, "g", 2, "second");
    EXPECT_EQ(TakeBoxes().size(), 1u);
    EXPECT_EQ(TakeLines().size(), 2u);
    // Only this thread stops asking.
    std::thread other([] {
        s_boxCaller = GetThreadReportState();
        ReportAndConfirm(4096, 4, "g", 2, "other thread");
    });
    other.join();
    s_boxCaller = GetThreadReportState();
    EXPECT_EQ(TakeBoxes().size(), 1u);
}

TEST_F(Report, ControlSilencesTheSiteByPointerAndLine) {
    static const char fileA[] = "same\\name";
    static const char fileB[] = "same\\name"; // equal text, another pointer
    ASSERT_NE(static_cast<const void*>(fileA), static_cast<const void*>(fileB));
    ScriptBoxes({{IDOK, false, true, 0}});
    ReportAndConfirm(4096, 4, fileA, 10, "silence me");
    ASSERT_EQ(TakeBoxes().size(), 1u);
    ReportAndConfirm(4096, 4, fileA, 10, "silenced, other text");
    EXPECT_TRUE(TakeBoxes().empty());
    ReportAndConfirm(4096, 4, fileA, 11, "other line");
    EXPECT_EQ(TakeBoxes().size(), 1u);
    ReportAndConfirm(4096, 4, fileB, 10, "other pointer");
    EXPECT_EQ(TakeBoxes().size(), 1u);
    // A null source file is a site like any other.
    ScriptBoxes({{IDOK, false, true, 0}});
    ReportAndConfirm(4096, 4, nullptr, 10, "no file");
    ReportAndConfirm(4096, 4, nullptr, 10, "no file again");
    EXPECT_EQ(TakeBoxes().size(), 1u);
    EXPECT_EQ(TakeLines().size(), 6u);
}

TEST_F(Report, At128SilencedSitesNoMoreAreRemembered) {
    static const char file[] = "sites";
    for (uint32_t line = 1; line <= 129; ++line) {
        ScriptBoxes({{IDOK, false, true, 0}});
        ReportAndConfirm(4096, 4, file, line, "silence");
    }
    EXPECT_EQ(TakeBoxes().size(), 129u);
    for (uint32_t line = 1; line <= 128; ++line)
        ReportAndConfirm(4096, 4, file, line, "silenced");
    EXPECT_TRUE(TakeBoxes().empty());
    ReportAndConfirm(4096, 4, file, 129, "the 129th is not remembered");
    EXPECT_EQ(TakeBoxes().size(), 1u);
}

TEST_F(Report, CancelAsksToContinueAndOtherAnswersDoNot) {
    const struct {
        const char* name;
        std::vector<BoxAnswer> script;
        size_t boxes;
        bool neverAsk;
        uint32_t silenced;
    } cases[] = {
        {"OK", {{IDOK, false, false, 0}}, 1, false, 0},
        {"closed (0)", {{0, false, false, 0}}, 1, false, 0},
        {"failed (-1)", {{-1, false, false, 0}}, 1, false, 0},
        {"Cancel, then Yes", {{IDCANCEL, false, false, 0}, {IDYES, false, false, 0}}, 2, false, 0},
        // Shift and Control count only on an answer other than Cancel.
        {"Cancel with Shift and Control",
         {{IDCANCEL, true, true, 0}, {IDYES, true, true, 0}},
         2,
         false,
         0},
        {"OK with Shift and Control", {{IDOK, true, true, 0}}, 1, true, 1},
    };
    for (const auto& c : cases) {
        {
            std::lock_guard<std::mutex> lock(s_boxMutex);
            s_boxScript.assign(c.script.begin(), c.script.end());
        }
        ThreadReportState* state = GetThreadReportState();
        state->neverAsk = false;
        state->silencedCount = 0;
        ReportAndConfirm(4096, 4, "f", 1, "answer me");
        const std::vector<BoxCall> boxes = TakeBoxes();
        ASSERT_EQ(boxes.size(), c.boxes) << c.name;
        EXPECT_EQ(boxes[0].style, 0x11011u) << c.name;
        if (c.boxes == 2) {
            EXPECT_EQ(boxes[1].text, "Continue?") << c.name;
            EXPECT_EQ(boxes[1].caption, "Korvanta Tracer") << c.name;
            EXPECT_EQ(boxes[1].style, 0x11014u) << c.name; // Yes and No
            EXPECT_EQ(boxes[1].callerInDialog, 1u) << c.name;
        }
        EXPECT_EQ(state->inDialog, 0u) << c.name;
        EXPECT_EQ(state->neverAsk, c.neverAsk) << c.name;
        EXPECT_EQ(state->silencedCount, c.silenced) << c.name;
    }
}

TEST_F(Report, MessageBoxThreadReturnsTheAnswerAndKeys) {
    const struct {
        BoxAnswer answer;
    } cases[] = {
        {{IDOK, false, false, 0}}, {{IDCANCEL, true, false, 0}}, {{IDYES, false, true, 0}},
        {{IDNO, true, true, 0}},   {{0, false, false, 0}},
    };
    for (const auto& c : cases) {
        ScriptBoxes({c.answer});
        bool shift = !c.answer.shift;
        bool control = !c.answer.control;
        EXPECT_EQ(MessageBoxThread("q", MB_YESNO, &shift, &control), c.answer.answer);
        EXPECT_EQ(shift, c.answer.shift);
        EXPECT_EQ(control, c.answer.control);
        const std::vector<BoxCall> boxes = TakeBoxes();
        ASSERT_EQ(boxes.size(), 1u);
        EXPECT_EQ(boxes[0].style, 0x11014u);
    }
    ScriptBoxes({{IDOK, true, true, 0}});
    EXPECT_EQ(MessageBoxThread("q", MB_OK, nullptr, nullptr), IDOK);
    EXPECT_EQ(TakeBoxes()[0].style, 0x11010u);
}

TEST_F(Report, ABoxThreadThatDoesNotEndIsEndedWithAnswerZero) {
    // No box window ever appears: one step to notice, one more, a last wait.
    ScriptBoxes({{IDOK, true, true, 20000}});
    bool shift = true;
    bool control = true;
    const auto start = std::chrono::steady_clock::now();
    const int answer = MessageBoxThread("stuck", MB_OKCANCEL, &shift, &control);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(answer, 0);
    EXPECT_FALSE(shift);
    EXPECT_FALSE(control);
    EXPECT_GE(took, std::chrono::milliseconds(1400));
    EXPECT_LT(took, std::chrono::milliseconds(4000));
}

TEST_F(Report, WithoutADisplayTheRealBoxReturnsAtOnce) {
    if (!Env(L"DISPLAY").empty() || !Env(L"WAYLAND_DISPLAY").empty())
        GTEST_SKIP() << "a display is present: a real box would wait for an answer";
    SetReportBoxHook(nullptr);
    bool shift = true;
    bool control = true;
    const auto start = std::chrono::steady_clock::now();
    const int answer = MessageBoxThread("nobody sees this", MB_OKCANCEL, &shift, &control);
    const auto took = std::chrono::steady_clock::now() - start;
    SetReportBoxHook(ScriptedBox);
    EXPECT_NE(answer, IDCANCEL);
    EXPECT_NE(answer, IDOK);
    EXPECT_LT(took, std::chrono::milliseconds(1000));
    // And so an error report does not hold up its caller.
    const auto start2 = std::chrono::steady_clock::now();
    SetReportBoxHook(nullptr);
    ReportAndConfirm(4096, 4, "f", 1, "nobody sees this either");
    SetReportBoxHook(ScriptedBox);
    EXPECT_LT(std::chrono::steady_clock::now() - start2, std::chrono::milliseconds(1000));
    EXPECT_EQ(GetThreadReportState()->inDialog, 0u);
}

// ---------------------------------------------------------------------------
// Events: the echo into the report stream (every log type does it)

TEST_F(Report, EventTextAndItsEchoByLevel) {
    const EventValue values[] = {{"bytes", Str("12"), true}, {"name", Str("x y"), false}};
    const struct {
        const char* name;
        const char* source;
        uint32_t number;
        const char* message;
        std::vector<const char*> inserts;
        uint32_t level;
        uint32_t category;
        uint32_t valueCount;
        std::vector<std::string> lines;
        size_t boxes;
    } cases[] = {
        {"prefix and inserts",
         "Setup",
         12,
         "Install %1 of %2",
         {"A", "B"},
         2,
         0,
         0,
         {"EX: ReportEvent: Setup-00012: Install A of B"},
         0},
        {"absent inserts",
         "Setup",
         12,
         "%1|%2|%3|%4|%5|%0|%",
         {"one", nullptr, "three"},
         2,
         0,
         0,
         {"EX: ReportEvent: Setup-00012: one|<unknown>|three|<unknown>|%5|%0|%"},
         0},
        {"insert twice",
         "Setup",
         1,
         "%1%1",
         {"ab"},
         2,
         0,
         0,
         {"EX: ReportEvent: Setup-00001: abab"},
         0},
        {"inserts are not expanded again",
         "S",
         1,
         "%1",
         {"%2"},
         2,
         0,
         0,
         {"EX: ReportEvent: S-00001: %2"},
         0},
        {"no number, no prefix", "Setup", 0, "text", {}, 2, 0, 0, {"EX: ReportEvent: text"}, 0},
        {"no source, no prefix", "", 12, "text", {}, 2, 0, 0, {"EX: ReportEvent: text"}, 0},
        {"wide number", "Setup", 123456, "t", {}, 2, 0, 0, {"EX: ReportEvent: Setup-123456: t"}, 0},
        {"error", "Src", 3, "bad", {}, 0, 0, 0, {"EM: ReportEvent: Src-00003: bad"}, 1},
        {"warning", "Src", 3, "hmm", {}, 1, 0, 0, {"EW: ReportEvent: Src-00003: hmm"}, 0},
        {"notice", "Src", 3, "ok", {}, 3, 0, 0, {"EX: ReportEvent: Src-00003: ok"}, 0},
        {"unknown level", "Src", 3, "?", {}, 9, 0, 0, {"EX: ReportEvent: Src-00003: ?"}, 0},
        {"further lines",
         "Src",
         0,
         "first\nsecond\r\n\r\nthird",
         {},
         1,
         0,
         0,
         {"EW: ReportEvent: first", "EX:   second", "EX:   third"},
         0},
        {"named values below",
         "Src",
         4,
         "with values",
         {},
         0,
         2,
         2,
         {"EM: ReportEvent: Src-00004: with values", "EX:   bytes: 12", "EX:   name: x y"},
         1},
        {"category 3: no echo", "Src", 3, "quiet", {}, 0, 3, 2, {}, 0},
        {"category 3 warning", "Src", 3, "quiet", {}, 1, 3, 0, {}, 0},
    };
    Flags(0);
    for (const auto& c : cases) {
        EventDescriptor descriptor;
        descriptor.message = c.message;
        for (size_t i = 0; i < c.inserts.size(); ++i)
            descriptor.inserts[i] = c.inserts[i];
        descriptor.values = values;
        descriptor.valueCount = c.valueCount;
        const bool written =
            ReportEvent(Str(c.source), c.number, descriptor, false, c.level, c.category, false);
        EXPECT_TRUE(written) << c.name;
        EXPECT_EQ(TakeLines(), c.lines) << c.name;
        const std::vector<BoxCall> boxes = TakeBoxes();
        ASSERT_EQ(boxes.size(), c.boxes) << c.name;
        if (c.boxes == 1) {
            EXPECT_EQ(boxes[0].text, c.lines[0].substr(4)) << c.name;
        }
    }
}

TEST_F(Report, LibraryErrorsCarryTheirCodeAndLocation) {
    const EventValue values[] = {{"bytes", Str("4294967311"), true},
                                 {"codeunits", Str("4294967295"), true}};
    Flags(0);
    ReportLibraryError("gui\\base\\source\\str", 321, 1, "String allocation failed", values, 2);
    EXPECT_EQ(TakeLines(), (std::vector<std::string>{
                               "EM: ReportEvent: QELGUI-00001: String allocation failed",
                               "EX:   bytes: 4294967311",
                               "EX:   codeunits: 4294967295",
                               "EX:   file: gui\\base\\source\\str",
                               "EX:   line: 321",
                           }));
    EXPECT_EQ(TakeBoxes().size(), 1u);
}

TEST_F(Report, EventSourcesAreCachedByExactName) {
    const std::string name = "KvtReportCache" + std::to_string(GetCurrentProcessId());
    HKEY root = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, kEventLogKey, 0, KEY_ALL_ACCESS, &root), 0);
    auto installed = [&](const std::string& key) {
        HKEY k = nullptr;
        if (RegOpenKeyExA(root, key.c_str(), 0, KEY_READ, &k) != 0)
            return false;
        RegCloseKey(k);
        return true;
    };
    RegDeleteKeyA(root, name.c_str());

    // First use registers the source (installing it when asked).
    const HANDLE first = GetEventSourceHandle(Str(name.c_str()), true);
    EXPECT_NE(first, nullptr);
    EXPECT_TRUE(installed(name));
    // Later uses come from the cache: no second installation.
    RegDeleteKeyA(root, name.c_str());
    EXPECT_EQ(GetEventSourceHandle(Str(name.c_str()), true), first);
    EXPECT_EQ(GetEventSourceHandle(Str(name.c_str()), false), first);
    EXPECT_FALSE(installed(name));
    // The name compares exactly: another letter case is another entry.
    std::string upper = name;
    for (char& ch : upper)
        ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
    EXPECT_NE(GetEventSourceHandle(Str(upper.c_str()), true), nullptr);
    EXPECT_TRUE(installed(name)); // registry keys ignore case: the same key again
    RegDeleteKeyA(root, name.c_str());
    // Without `install` a new name is only registered, not installed.
    const std::string other = name + "b";
    EXPECT_NE(GetEventSourceHandle(Str(other.c_str()), false), nullptr);
    EXPECT_FALSE(installed(other));

    // Many threads asking at once for a new name all get its one handle.
    const std::string shared = name + "t";
    std::vector<HANDLE> handles(8);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < handles.size(); ++i)
        threads.emplace_back(
            [&, i] { handles[i] = GetEventSourceHandle(Str(shared.c_str()), false); });
    for (std::thread& t : threads)
        t.join();
    for (HANDLE h : handles)
        EXPECT_EQ(h, handles[0]);
    RegCloseKey(root);
}

TEST_F(Report, InstallEventSourceWritesFourValues) {
    const std::string name = "KvtReportInstall" + std::to_string(GetCurrentProcessId());
    const std::string key = std::string(kEventLogKey) + "\\" + name;
    InstallEventSource(Str(name.c_str()));
    HKEY k = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &k), 0);
    for (const char* value : {"TypesSupported", "CategoryCount"}) {
        DWORD number = 0;
        DWORD size = sizeof number;
        DWORD type = 0;
        EXPECT_EQ(
            RegQueryValueExA(k, value, nullptr, &type, reinterpret_cast<BYTE*>(&number), &size), 0);
        EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD)) << value;
        EXPECT_EQ(number, 7u) << value;
    }
    for (const wchar_t* value : {L"CategoryMessageFile", L"EventMessageFile"}) {
        wchar_t text[1024] = {};
        DWORD size = sizeof text;
        DWORD type = 0;
        EXPECT_EQ(RegQueryValueExW(k, value, nullptr, &type, reinterpret_cast<BYTE*>(text), &size),
                  0);
        EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
        EXPECT_EQ(std::wstring(text), SelfPath());
    }
    RegCloseKey(k);
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, key.c_str());

    // Without a known module path nothing is written.
    const Str path = GetModulePathText();
    SetModulePath(Str());
    InstallEventSource(Str(name.c_str()));
    SetModulePath(path);
    EXPECT_NE(RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &k), 0);
}

// ---------------------------------------------------------------------------
// The diagnostic event catalogue stays silent while disabled

TEST_F(Report, DisabledCatalogueFiresNothing) {
    ASSERT_NE(GetDiagnosticCatalogue(), nullptr);
    EXPECT_FALSE(GetDiagnosticCatalogue()->enabled);
    const char* fields[4] = {"lock", "site", "last", "12"};
    for (uint32_t id = 100; id <= 107; ++id)
        FireDiagnosticEvent(id, 1, fields, 4);
    FireDiagnosticEvent(100, 1, nullptr, 0);
    // A contended monitored section fires event 100 only when enabled.
    static NamedSection section;
    static bool initialised = false;
    if (!initialised)
        InitNamedSection(&section, "ReportTestSection");
    initialised = true;
    HANDLE held = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE release = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread holder([&] {
        EnterNamed(&section, "holder");
        SetEvent(held);
        WaitForSingleObject(release, 5000);
        LeaveNamed(&section);
    });
    WaitForSingleObject(held, 5000);
    std::thread waiter([] {
        EnterNamed(&section, "waiter");
        LeaveNamed(&section);
    });
    Sleep(50);
    SetEvent(release);
    holder.join();
    waiter.join();
    CloseHandle(held);
    CloseHandle(release);
    EXPECT_TRUE(TakeLines().empty());
}

// ---------------------------------------------------------------------------
// The trace sink: debugger output and the trace viewer's pipe

TEST_F(Report, SinkCutsDebuggerOutputAtTheLimitAndEndsItWithCrLf) {
    SetTraceHook(nullptr);
    DebugOutput debug;
    const std::string marker = "sinkcut" + std::to_string(GetCurrentProcessId());
    const std::string line = marker + std::string(2000, 'd');
    TraceWrite(nullptr, line.c_str(), kTraceToDebugger);
    TraceWrite(nullptr, (marker + " short").c_str(), kTraceToDebugger | kTraceToStderr);
    TraceWrite(nullptr, (marker + " nowhere").c_str(), 0);
    const std::vector<std::string> seen = debug.With(marker);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], line.substr(0, 1024) + "\r\n");
    EXPECT_EQ(seen[1], marker + " short\r\n");
}

TEST_F(Report, HookReturningFalseLetsTheLineGoOn) {
    static std::atomic<int> calls{0};
    SetTraceHook([](const char*, uint32_t) {
        ++calls;
        return false;
    });
    DebugOutput debug;
    const std::string marker = "hookfalse" + std::to_string(GetCurrentProcessId());
    Flags(0);
    SetTraceDestinations(kTraceToDebugger);
    WriteReport(4096, 2, nullptr, 0, marker.c_str());
    SetTraceHook(nullptr);
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(debug.With(marker), std::vector<std::string>{"EX: " + marker + "\r\n"});
}

// A trace viewer: the server end of the trace pipe, several instances, overlapped.
class TraceViewer {
  public:
    struct Message {
        std::string bytes;
        int instance;
    };
    static constexpr int kInstances = 16;

    TraceViewer() {
        m_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        m_wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        for (Instance& in : m_instances) {
            in.pipe = CreateNamedPipeA("\\\\.\\pipe\\ZemTracePipe",
                                       PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                                       PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
                                       PIPE_UNLIMITED_INSTANCES, 0, 65536, 0, nullptr);
            in.event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        }
        m_worker = std::thread([this] { Run(); });
    }
    ~TraceViewer() {
        SetEvent(m_stop);
        m_worker.join();
        CloseHandle(m_stop);
        CloseHandle(m_wake);
    }
    bool Valid() const {
        for (const Instance& in : m_instances)
            if (in.pipe == INVALID_HANDLE_VALUE)
                return false;
        return true;
    }
    std::vector<Message> With(const std::string& marker) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Message> found;
        for (const Message& m : m_messages)
            if (m.bytes.find(marker) != std::string::npos)
                found.push_back(m);
        return found;
    }
    bool WaitFor(const std::string& marker, DWORD ms) {
        for (DWORD waited = 0; waited < ms; waited += 10) {
            if (!With(marker).empty())
                return true;
            Sleep(10);
        }
        return false;
    }
    // The viewer drops one client, as when it is closed and restarted.
    void Disconnect(int instance) {
        m_disconnect = instance;
        SetEvent(m_wake);
        for (int i = 0; i < 500 && m_disconnect.load() >= 0; ++i)
            Sleep(2);
    }

  private:
    struct Instance {
        HANDLE pipe = INVALID_HANDLE_VALUE;
        HANDLE event = nullptr;
        OVERLAPPED ov{};
        bool connected = false;
        char buffer[4096];
    };

    void StartConnect(int i) {
        Instance& in = m_instances[i];
        in.connected = false;
        in.ov = {};
        in.ov.hEvent = in.event;
        ResetEvent(in.event);
        if (ConnectNamedPipe(in.pipe, &in.ov))
            return;
        const DWORD error = GetLastError();
        if (error == ERROR_PIPE_CONNECTED) {
            in.connected = true;
            StartRead(i);
        } else if (error == ERROR_NO_DATA) {
            Reconnect(i);
        }
    }
    void StartRead(int i) {
        Instance& in = m_instances[i];
        in.ov = {};
        in.ov.hEvent = in.event;
        ResetEvent(in.event);
        if (!ReadFile(in.pipe, in.buffer, sizeof in.buffer, nullptr, &in.ov) &&
            GetLastError() != ERROR_IO_PENDING)
            Reconnect(i);
    }
    void Reconnect(int i) {
        DisconnectNamedPipe(m_instances[i].pipe);
        StartConnect(i);
    }
    void Run() {
        for (int i = 0; i < kInstances; ++i)
            StartConnect(i);
        HANDLE waits[kInstances + 2];
        for (;;) {
            for (int i = 0; i < kInstances; ++i)
                waits[i] = m_instances[i].event;
            waits[kInstances] = m_stop;
            waits[kInstances + 1] = m_wake;
            const DWORD r = WaitForMultipleObjects(kInstances + 2, waits, FALSE, 100);
            if (r == WAIT_OBJECT_0 + kInstances)
                break;
            const int drop = m_disconnect.load();
            if (drop >= 0) {
                CancelIo(m_instances[drop].pipe);
                DWORD ignored = 0;
                GetOverlappedResult(m_instances[drop].pipe, &m_instances[drop].ov, &ignored, TRUE);
                Reconnect(drop);
                m_disconnect = -1;
            }
            if (r >= WAIT_OBJECT_0 + kInstances)
                continue;
            const int i = static_cast<int>(r - WAIT_OBJECT_0);
            Instance& in = m_instances[i];
            DWORD bytes = 0;
            const BOOL ok = GetOverlappedResult(in.pipe, &in.ov, &bytes, FALSE);
            if (!in.connected) {
                if (ok || GetLastError() == ERROR_PIPE_CONNECTED) {
                    in.connected = true;
                    StartRead(i);
                } else {
                    Reconnect(i);
                }
                continue;
            }
            if (ok || GetLastError() == ERROR_MORE_DATA) {
                {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_messages.push_back({std::string(in.buffer, bytes), i});
                }
                StartRead(i);
            } else {
                Reconnect(i);
            }
        }
        for (Instance& in : m_instances) {
            CancelIo(in.pipe);
            DWORD ignored = 0;
            GetOverlappedResult(in.pipe, &in.ov, &ignored, TRUE);
            CloseHandle(in.pipe);
            CloseHandle(in.event);
        }
    }

    Instance m_instances[kInstances];
    HANDLE m_stop;
    HANDLE m_wake;
    std::atomic<int> m_disconnect{-1};
    std::mutex m_mutex;
    std::vector<Message> m_messages;
    std::thread m_worker;
};

// The trace pipe and the shared word are common to every process of the prefix:
// these tests run alone (a lock of their own), so no other process's lines
// reach this viewer or change their columns meanwhile, and none of ours theirs.
class SharedTrace : public Report {};

TEST_F(SharedTrace, DefaultHeaderIsTheSharedWord) {
    // No override: the shared word of the trace map, 7 unless a viewer changed it.
    WriteReport(4096, 32, "x", 7, "plain");
    const std::vector<std::string> lines = TakeLines();
    ASSERT_EQ(lines.size(), 1u);
    const uint32_t shared = GetSharedHeaderFlags();
    EXPECT_EQ(shared, 7u);
    Flags(shared);
    WriteReport(4096, 32, "x", 7, "plain");
    EXPECT_EQ(TakeLines(), lines);
}

TEST_F(SharedTrace, PipeDeliveryBackOffAndReconnection) {
    SetTraceHook(nullptr);
    Flags(0);
    DebugOutput debug;
    const std::string tag = "pipe" + std::to_string(GetCurrentProcessId()) + "-";
    auto report = [&](const char* name) {
        WriteReport(4096, 2, nullptr, 0, (tag + name).c_str());
        return "EX: " + tag + name;
    };
    // A second away from any earlier failure, with no viewer: the line tries the
    // pipe, fails and goes to the debugger; the failure time is recorded.
    Sleep(1100);
    const std::string a = report("a");
    EXPECT_EQ(debug.With(tag + "a"), std::vector<std::string>{a + "\r\n"});

    TraceViewer viewer;
    ASSERT_TRUE(viewer.Valid());
    // Within the second after the failure the pipe is not tried.
    const std::string b = report("b");
    EXPECT_EQ(debug.With(tag + "b").size(), 1u);
    Sleep(1100);
    // After it the pipe is tried again: the viewer gets the line with its
    // terminating zero, and the debugger does not.
    const std::string c = report("c");
    ASSERT_TRUE(viewer.WaitFor(tag + "c", 3000));
    std::vector<TraceViewer::Message> got = viewer.With(tag + "c");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].bytes, c + std::string(1, '\0'));
    EXPECT_TRUE(debug.With(tag + "c").empty());
    EXPECT_TRUE(viewer.With(tag + "b").empty());
    // The connection stays open for the next lines; a long line arrives whole.
    const std::string d = report("d");
    const std::string longText = tag + "e" + std::string(900, 'L');
    WriteReport(4096, 2, nullptr, 0, longText.c_str());
    ASSERT_TRUE(viewer.WaitFor(tag + "e", 3000));
    got = viewer.With(tag + "d");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].bytes, d + std::string(1, '\0'));
    EXPECT_EQ(viewer.With(tag + "e")[0].bytes, "EX: " + longText + std::string(1, '\0'));
    EXPECT_EQ(viewer.With(tag + "e")[0].instance, got[0].instance);

    // The viewer drops the connection: the next line reconnects at once.
    viewer.Disconnect(got[0].instance);
    const std::string f = report("f");
    ASSERT_TRUE(viewer.WaitFor(tag + "f", 3000));
    EXPECT_EQ(viewer.With(tag + "f")[0].bytes, f + std::string(1, '\0'));
    EXPECT_TRUE(debug.With(tag + "f").empty());
    EXPECT_TRUE(debug.With(tag + "d").empty());

    // Bit 2 without bit 1: the debugger only, even with a viewer listening.
    SetTraceDestinations(kTraceToDebugger);
    const std::string g = report("g");
    SetTraceDestinations(kTraceToPipe | kTraceToDebugger);
    EXPECT_EQ(debug.With(tag + "g").size(), 1u);
    Sleep(50);
    EXPECT_TRUE(viewer.With(tag + "g").empty());
}

TEST_F(SharedTrace, SharedWordChoosesTheColumnsOfEveryProcess) {
    GetSharedHeaderFlags(); // the channel and its map exist from here on
    HANDLE map = OpenFileMappingA(FILE_MAP_WRITE | FILE_MAP_READ, FALSE, "ZemTraceMap");
    ASSERT_NE(map, nullptr);
    auto* word = static_cast<volatile uint32_t*>(
        MapViewOfFile(map, FILE_MAP_WRITE | FILE_MAP_READ, 0, 0, 4));
    ASSERT_NE(word, nullptr);
    EXPECT_EQ(*word, 7u);
    const uint32_t saved = *word;
    // The viewer's word only adds the source and line columns, so that other
    // processes of the prefix that report meanwhile lose nothing.
    const uint32_t changed = saved | 0x60;
    *word = changed;
    EXPECT_EQ(GetSharedHeaderFlags(), changed);
    WriteReport(4096, 2, "x", 7, "shared");
    // A process started now finds the word as it is and keeps it.
    const ProcessResult child =
        RunProcess(L"\"" + SelfPath() + L"\" --report-child header", L"LOGTYPE=");
    *word = saved;
    const std::vector<std::string> lines = TakeLines();
    UnmapViewOfFile(const_cast<uint32_t*>(word));
    CloseHandle(map);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex("EX\\|0x[0-9a-fA-F]+\\|0x[0-9a-fA-F]+\\|"
                                                      "report_test\\|x\\|\\.\\.\\.\\.7: shared")))
        << lines[0];
    ASSERT_TRUE(child.started);
    EXPECT_EQ(child.exitCode, 0u);
    EXPECT_TRUE(
        std::regex_search(child.out, std::regex("#LINE EX\\|0x[0-9a-fA-F]+\\|0x[0-9a-fA-F]+"
                                                "\\|report_test\\|child\\|\\.\\.\\.42: child")))
        << child.out;
    EXPECT_EQ(GetSharedHeaderFlags(), saved);
}

// ---------------------------------------------------------------------------
// Child processes: the log type, records on stdout/stderr, the end of the process

struct ChildRun {
    std::wstring mode;
    std::wstring environment;
    ProcessResult result;
};

void RunChildren(std::vector<ChildRun>& runs) {
    std::vector<std::thread> threads;
    for (ChildRun& run : runs)
        threads.emplace_back([&run] {
            run.result =
                RunProcess(L"\"" + SelfPath() + L"\" --report-child " + run.mode, run.environment);
        });
    for (std::thread& t : threads)
        t.join();
}

std::vector<std::string> Markers(const std::string& out, const std::string& kind) {
    std::vector<std::string> found;
    for (const std::string& line : SplitLines(out))
        if (line.rfind("#" + kind + " ", 0) == 0)
            found.push_back(line.substr(kind.size() + 2));
    return found;
}

std::vector<std::string> Records(const std::string& out) {
    std::vector<std::string> found;
    for (const std::string& line : SplitLines(out))
        if (!line.empty() && line[0] != '#')
            found.push_back(line);
    return found;
}

std::vector<std::string> Keys(const nlohmann::ordered_json& record) {
    std::vector<std::string> keys;
    for (auto it = record.begin(); it != record.end(); ++it)
        keys.push_back(it.key());
    return keys;
}

TEST(ReportChild, LogTypeChoosesTheStream) {
    const std::wstring longValue(300, L'v');
    struct Case {
        const wchar_t* value; // null: unset
        int stream;           // 0 none (event log), 1 stdout, 2 stderr
        bool unknown;
    };
    const Case cases[] = {
        {nullptr, 0, false},   {L"SYSTEM", 0, false}, {L"stdout", 1, false},
        {L"STDOUT", 1, false}, {L"stderr", 2, false}, {L"StdErr", 2, false},
        {L"bogus", 0, true},   {L"stdout2", 0, true}, {longValue.c_str(), 0, true},
    };
    std::vector<ChildRun> runs;
    for (const Case& c : cases)
        runs.push_back({L"events", std::wstring(L"LOGTYPE=") + (c.value ? c.value : L""), {}});
    RunChildren(runs);

    for (size_t i = 0; i < runs.size(); ++i) {
        const Case& c = cases[i];
        const ProcessResult& r = runs[i].result;
        const std::string label = c.value ? Narrow(c.value).substr(0, 20) : "(unset)";
        ASSERT_TRUE(r.started) << label;
        EXPECT_EQ(r.exitCode, 0u) << label << r.out << r.err;
        EXPECT_EQ(Markers(r.out, "LOGTYPE"), std::vector<std::string>{std::to_string(c.stream)})
            << label;
        // Every event was written (the event log under Wine accepts all).
        EXPECT_EQ(Markers(r.out, "RESULT"), std::vector<std::string>(5, "1")) << label;
        const std::vector<std::string> outRecords = Records(r.out);
        const std::vector<std::string> errRecords = Records(r.err);
        EXPECT_EQ(outRecords.size(), c.stream == 1 ? 5u : 0u) << label << r.out;
        EXPECT_EQ(errRecords.size(), c.stream == 2 ? 5u : 0u) << label << r.err;
        for (const std::string& record : c.stream == 1 ? outRecords : errRecords)
            EXPECT_TRUE(nlohmann::ordered_json::accept(record)) << record;

        const std::vector<std::string> lines = Markers(r.out, "LINE");
        const std::vector<std::string> boxes = Markers(r.out, "BOX");
        const std::string report =
            "GetLogType: Unknown type [" + (c.value ? Narrow(c.value) : std::string()) + "]";
        const bool reported = std::find(lines.begin(), lines.end(), "EM: " + report) != lines.end();
        EXPECT_EQ(reported, c.unknown) << label << "\n" << r.out;
        const bool boxed = std::find(boxes.begin(), boxes.end(), "11011 " + report) != boxes.end();
        EXPECT_EQ(boxed, c.unknown) << label << "\n" << r.out;
        // The echo comes first in every mode; the error's echo asks for a box.
        EXPECT_NE(std::find(lines.begin(), lines.end(),
                            "EX: ReportEvent: Setup-00012: Install A of B (<unknown>)"),
                  lines.end())
            << label;
        EXPECT_NE(std::find(boxes.begin(), boxes.end(), "11011 ReportEvent: level 0"), boxes.end())
            << label;
    }
}

TEST(ReportChild, RecordFieldsInOrder) {
    std::vector<ChildRun> runs = {{L"events", L"LOGTYPE=stdout", {}}};
    RunChildren(runs);
    const ProcessResult& r = runs[0].result;
    ASSERT_TRUE(r.started);
    const std::vector<std::string> records = Records(r.out);
    ASSERT_EQ(records.size(), 5u) << r.out;
    const std::vector<std::string> pid = Markers(r.out, "PID");
    ASSERT_EQ(pid.size(), 1u);

    const auto first = nlohmann::ordered_json::parse(records[0]);
    const std::vector<std::string> keys = Keys(first);
    const std::vector<std::string> expectedKeys = {"@timestamp", "level",   "message",  "bytes",
                                                   "name",       "bad",     "empty",    "neg",
                                                   "zero",       "version", "processid"};
    ASSERT_GE(keys.size(), expectedKeys.size()) << records[0];
    EXPECT_EQ(std::vector<std::string>(keys.begin(), keys.begin() + expectedKeys.size()),
              expectedKeys)
        << records[0];
    for (size_t i = expectedKeys.size(); i < keys.size(); ++i)
        EXPECT_EQ(keys[i], "threadid") << records[0];
    EXPECT_TRUE(std::regex_search(first["@timestamp"].get<std::string>(),
                                  std::regex("^20[0-9]{2}-[01][0-9]-[0-3][0-9]")))
        << first["@timestamp"];
    EXPECT_EQ(first["level"], "info");
    EXPECT_EQ(first["message"], "Setup-00012: Install A of B (<unknown>)");
    EXPECT_TRUE(first["bytes"].is_number());
    EXPECT_EQ(first["bytes"], 12);
    EXPECT_EQ(first["name"], "x \"q\" \\ \xC3\xA9\n\t\x01 end");
    EXPECT_EQ(first["bad"], "12abc"); // not a number: kept as text
    EXPECT_EQ(first["empty"], "");
    EXPECT_TRUE(first["neg"].is_number());
    EXPECT_DOUBLE_EQ(first["neg"].get<double>(), -1500.0);
    EXPECT_EQ(first["zero"], "007");
    EXPECT_EQ(first["version"], "24.7.0.15");
    EXPECT_EQ(first["processid"].dump(), pid[0]);

    const char* names[] = {"err", "warning", "notice", "unknown"};
    const int levels[] = {0, 1, 3, 9};
    for (size_t i = 1; i < records.size(); ++i) {
        const auto record = nlohmann::ordered_json::parse(records[i]);
        EXPECT_EQ(Keys(record), (std::vector<std::string>{"@timestamp", "level", "message"}))
            << records[i];
        EXPECT_EQ(record["level"], names[i - 1]);
        EXPECT_EQ(record["message"], "level " + std::to_string(levels[i - 1]));
    }
    // Category 3 is not echoed, but still written.
    const std::vector<std::string> lines = Markers(r.out, "LINE");
    for (const std::string& line : lines)
        EXPECT_EQ(line.find("level 3"), std::string::npos) << line;
}

TEST(ReportChild, CancelThenNoEndsTheProcess) {
    std::vector<ChildRun> runs = {{L"fatal", L"LOGTYPE=", {}}, {L"continue", L"LOGTYPE=", {}}};
    RunChildren(runs);
    const ProcessResult& fatal = runs[0].result;
    ASSERT_TRUE(fatal.started);
    EXPECT_EQ(fatal.exitCode, 1u);
    EXPECT_EQ(Markers(fatal.out, "BOX"),
              (std::vector<std::string>{"11011 must be seen", "11014 Continue?"}));
    EXPECT_TRUE(Markers(fatal.out, "AFTER").empty()) << fatal.out;

    const ProcessResult& goOn = runs[1].result;
    ASSERT_TRUE(goOn.started);
    EXPECT_EQ(goOn.exitCode, 0u);
    EXPECT_EQ(Markers(goOn.out, "BOX"),
              (std::vector<std::string>{"11011 must be seen", "11014 Continue?"}));
    EXPECT_EQ(Markers(goOn.out, "AFTER"), std::vector<std::string>{"0"});
}

TEST(ReportChild, StandardErrorGetsTimeStampedLines) {
    std::vector<ChildRun> runs = {
        {L"sink 4", L"LOGTYPE=", {}}, {L"sink 12", L"LOGTYPE=", {}}, {L"sink 6", L"LOGTYPE=", {}},
        {L"sink 2", L"LOGTYPE=", {}}, {L"sink 0", L"LOGTYPE=", {}},  {L"sink 3", L"LOGTYPE=", {}},
    };
    RunChildren(runs);
    const bool stderrExpected[] = {true, true, false, false, false, false};
    for (size_t i = 0; i < runs.size(); ++i) {
        const ProcessResult& r = runs[i].result;
        ASSERT_TRUE(r.started);
        EXPECT_EQ(r.exitCode, 0u);
        const std::vector<std::string> lines = SplitLines(r.err);
        if (!stderrExpected[i]) {
            EXPECT_TRUE(lines.empty()) << Narrow(runs[i].mode) << ": " << r.err;
            continue;
        }
        ASSERT_EQ(lines.size(), 1u) << Narrow(runs[i].mode) << ": " << r.err;
        EXPECT_TRUE(std::regex_match(
            lines[0], std::regex("20[0-9]{2}-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9]"
                                 "\\.[0-9]{3}: EX: sink line")))
            << lines[0];
    }
}

// ---------------------------------------------------------------------------
// Child modes

bool PrintLine(const char* line, uint32_t) {
    printf("#LINE %s\n", line);
    fflush(stdout);
    return true;
}

int RunChild(const std::string& mode, const std::string& argument) {
    s_boxPrints = true;
    GetThreadReportState()->headerFlagsOverride = true;
    GetThreadReportState()->headerFlags = 0;
    if (mode == "events") {
        printf("#PID %lu\n", static_cast<unsigned long>(GetCurrentProcessId()));
        SetTraceHook(PrintLine);
        const EventValue values[] = {
            {"bytes", Str("12"), true},   {"name", Str("x \"q\" \\ \xC3\xA9\n\t\x01 end"), false},
            {"bad", Str("12abc"), true},  {"empty", Str(""), true},
            {"neg", Str("-1.5e3"), true}, {"zero", Str("007"), true},
        };
        EventDescriptor first;
        first.message = "Install %1 of %2 (%3)";
        first.inserts[0] = "A";
        first.inserts[1] = "B";
        first.values = values;
        first.valueCount = 6;
        std::string results;
        results += ReportEvent(Str("Setup"), 12, first, true, 2, 0, false) ? "1" : "0";
        const uint32_t levels[] = {0, 1, 3, 9};
        for (uint32_t level : levels) {
            const std::string text = "level " + std::to_string(level);
            EventDescriptor d;
            d.message = text.c_str();
            results +=
                ReportEvent(Str("Src"), 0, d, false, level, level == 3 ? 3 : 0, false) ? "1" : "0";
        }
        for (char result : results)
            printf("#RESULT %c\n", result);
        printf("#LOGTYPE %u\n", static_cast<unsigned>(GetLogType()));
        fflush(stdout);
        return 0;
    }
    if (mode == "fatal" || mode == "continue") {
        ScriptBoxes(
            {{IDCANCEL, false, false, 0}, {mode == "fatal" ? IDNO : IDYES, false, false, 0}});
        SetTraceHook(PrintLine);
        ReportAndConfirm(4096, 4, "child", 1, "must be seen");
        printf("#AFTER %u\n", GetThreadReportState()->inDialog);
        fflush(stdout);
        return 0;
    }
    if (mode == "sink") {
        SetTraceDestinations(static_cast<uint32_t>(std::stoul(argument)));
        WriteReport(4096, 2, nullptr, 0, "sink line");
        return 0;
    }
    if (mode == "header") {
        GetThreadReportState()->headerFlagsOverride = false;
        SetTraceHook(PrintLine);
        WriteReport(4096, 2, "child", 42, "child");
        return 0;
    }
    fprintf(stderr, "unknown child mode %s\n", mode.c_str());
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    const std::wstring self = SelfPath();
    SetModulePath(Str::FromUtf16(self.c_str(), static_cast<uint32_t>(self.size())));
    // No test ever waits on a real box unless it asks for one.
    SetReportBoxHook(ScriptedBox);
    if (argc >= 3 && strcmp(argv[1], "--report-child") == 0)
        return RunChild(argv[2], argc >= 4 ? argv[3] : "");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
