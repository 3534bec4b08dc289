// Reporting. The program re-invokes itself with "--report-child" where a process
// of its own is needed: the log type is read once.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <deque>
#include <functional>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "private/reportstate.h"
#include "private/seams.h"
#include "report.h"
#include "testsupport.h"
#include "trace.h"

using namespace testsupport;
using Lines = std::vector<std::string>;

namespace {

constexpr int kShift = 0x100, kCtrl = 0x200; // added to a scripted answer

// The box thread ends before its caller goes on, so none of these needs a lock.
Lines s_lines, s_boxes, s_debug; // trace hook, box seam, debugger output
std::deque<int> s_answers;       // scripted box answers; none left: OK
bool s_printBoxes = false;       // a child prints its boxes

std::string Take(Lines& from, const char* separator = "\n") {
    std::string joined;
    for (const std::string& line : std::exchange(from, {}))
        joined += (joined.empty() ? "" : separator) + line;
    return joined;
}

std::wstring SelfPath() {
    wchar_t path[MAX_PATH];
    return std::wstring(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
}

int ScriptedBox(const char* text, const char* caption, uint32_t style, bool* shift, bool* control) {
    // The text, and the style when it is not that of a report's box (OK, Cancel, on top).
    s_boxes.push_back(std::string(text) +
                      (style == 0x11011 ? "" : StrFormat(" [%05X]", style).Text()) +
                      (strcmp(caption, "Korvanta Tracer") == 0 ? "" : " [caption]"));
    if (s_printBoxes)
        printf("#BOX %s\n", s_boxes.back().c_str());
    int answer = IDOK;
    if (!s_answers.empty())
        answer = s_answers.front(), s_answers.pop_front();
    SetLastError(ERROR_ACCESS_DENIED); // the box's thread, not the caller's
    *shift = (answer & kShift) != 0, *control = (answer & kCtrl) != 0;
    return answer & 0xFF;
}

void Flags(uint32_t flags) {
    GetThreadReportState()->headerFlagsOverride = true;
    GetThreadReportState()->headerFlags = flags;
}

class Report : public ::testing::Test {
  protected:
    void SetUp() override {
        *GetThreadReportState() = ThreadReportState{};
        SetReportingEnabled(true), SetInteractionAllowed(true, true);
        SetTraceHook([](const char* line, uint32_t) { return s_lines.push_back(line), true; });
        s_lines.clear(), s_boxes.clear(), s_answers.clear();
    }
};

TEST_F(Report, LineEndsLettersAndColumns) {
    // `expected`: the lines joined by '\n'; flags of exactly 0xF000 leave out the ": " too.
    // clang-format off
    const struct { uint32_t flags, category; int32_t severity; const char* file; uint32_t line;
                   const char *text, *expected; } cases[] = {
        {0x60, 4096, 32, "x", 7, "a\r\nb", "EW|x|....7: a\nEW|x|....7: b"},
        {0, 4096, 32, "x", 7, "a\rb\nc", "EW: a\nEW: b\nEW: c"}, {0, 4096, 32, "x", 7, "", "EW: "},
        {0, 4096, 32, "x", 7, "a\r\n\r\nb", "EW: a\nEW: \nEW: b"},
        {0x1000, 4096, 32, "x", 7, "m", ": m"}, {0xF000, 4096, 32, "x", 7, "m", "m"},
        {0xF060, 4096, 32, "x", 7, "m", "|x|....7: m"},
        {0, 8192, 1, "x", 7, "m", "TT: m"},   {0, 16384, 4, "x", 7, "m", "KM: m"},
        {0, 24576, 16, "x", 7, "m", "IA: m"}, {0, 4097, 64, "x", 7, "m", "EE: m"},
        {0x40, 4096, 32, "x", 123456, "m", "EW|123456: m"}, {0x60, 4096, 32, 0, 7, "m", "EW|: m"},
    };
    // clang-format on
    for (const auto& c : cases) {
        Flags(c.flags);
        WriteReport(c.category, c.severity, c.file, c.line, c.text);
        EXPECT_EQ(Take(s_lines), c.expected) << std::hex << c.flags;
    }
}

TEST_F(Report, LongLinesAreCutBetweenCharacters) {
    Flags(0x1020);                               // the header "|<file>: "
    for (size_t fileLength : {1u, 97u, 1014u}) { // headers of 4, 100 and 1,017 bytes
        const std::string file(fileLength, 'h'), header = "|" + file + ": ";
        Lines texts = {std::string(1024 - header.size(), 'q'),
                       std::string(1025 - header.size(), 'q')};
        for (const char* character : {"a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"})
            for (size_t offset = 0; offset < 4; ++offset)
                for (texts.push_back(std::string(offset, 'a')); texts.back().size() < 2100;)
                    texts.back() += character;
        for (const std::string& text : texts) {
            SCOPED_TRACE(testing::Message()
                         << "header " << header.size() << ", text " << text.size());
            WriteReport(4096, 32, file.c_str(), 0, text.c_str());
            std::string joined;
            for (const std::string& line : std::exchange(s_lines, {})) {
                ASSERT_LE(line.size(), 1024u);
                ASSERT_EQ(line.compare(0, header.size(), header), 0);
                joined += line.substr(header.size());
                // A chunk ends before a character, the next one, that would not have fitted.
                size_t at = joined.size(), width = 1;
                while (at + width < text.size() && (text[at + width] & 0xC0) == 0x80)
                    ++width;
                ASSERT_TRUE(at == text.size() ||
                            ((text[at] & 0xC0) != 0x80 && line.size() + width > 1024))
                    << at;
            }
            EXPECT_TRUE(joined == text);
        }
    }
    // A header of 1,023 bytes leaves one byte a line; a longer one drops the report.
    WriteReport(4096, 32, std::string(1020, 'h').c_str(), 0, "abc");
    WriteReport(4096, 32, std::string(1021, 'h').c_str(), 0, "abc");
    EXPECT_EQ(s_lines.size(), 3u);
}

TEST_F(Report, SeverityMaskSuppressionAndSwitch) {
    // clang-format off
    const struct { uint32_t mask, suppress; int32_t severity; bool written, enabled = true; }
    cases[] = {
        {4095, 0, 4, true}, {4095 & ~4u, 0, 4, false}, {4, 0, 32, false}, {0, 0, 0, true},
        {4095, 0, 4096, false}, {4095, 0, -1, false}, {4095, 1, 4, false}, {~0u, 0, 4096, true},
        {4095, 0, 4, false, false}}; // reporting switched off
    // clang-format on
    for (const auto& c : cases) {
        *GetThreadReportState() =
            ThreadReportState{.suppressCount = c.suppress, .severityMask = c.mask};
        SetReportingEnabled(c.enabled);
        WriteReportF(4096, c.severity, "f", 2, "%s", "f");
        ReportAndConfirm(4096, c.severity, "f", 4, "c"); // a line and a box
        const size_t shown = std::exchange(s_lines, {}).size() + std::exchange(s_boxes, {}).size();
        EXPECT_EQ(shown, c.written ? 3u : 0u) << c.mask << " " << c.severity;
    }
}

TEST_F(Report, EveryEntryPointKeepsTheCallersLastError) {
    const Str source("KvtKept");
    const EventValue values[] = {{"bytes", Str("12"), true}};
    const EventDescriptor event{"kept %1", {}, values, 1};
    const DiagnosticValue fields[] = {{"lock", 0}, {"site", 0}};
    // clang-format off
    const std::function<void()> entries[] = {
        [] { WriteReport(4096, 32, "f", 1, "m"); }, [] { WriteReportF(4096, 32, "f", 1, "%d", 5); },
        [] { ReportWithSystemError(4096, 32, "f", 1, "m"); },
        [] { s_answers = {IDCANCEL, IDYES}; ReportAndConfirm(4096, 4, "f", 2, "m"); },
        [&] { ReportEvent(source, 1, event, true, kLevelErr, 0, true); },
        [&] { ReportLibraryError("x", 9, 3, "failed", values, 1); },
        [] { MessageBoxThread("m", MB_OK, nullptr, nullptr); }, [] { GetLogType(); },
        [] { FormatSystemError(ERROR_ACCESS_DENIED); }, [] { SystemErrorText(0x12345678); },
        [&] { InstallEventSource(source); }, [] { GetEventSourceHandle(Str("KvtKept2"), false); },
        [&] { FireDiagnosticEvent(100, 1, 60, fields, 2); }, [] { GetModuleBaseName(); },
    };
    // clang-format on
    for (DWORD error : {DWORD{0xBEEF}, DWORD{0}})
        for (size_t i = 0; i < std::size(entries); ++i) {
            SetLastError(error);
            entries[i]();
            EXPECT_EQ(GetLastError(), error) << "entry " << i;
        }
    RegDeleteKeyA(HKEY_LOCAL_MACHINE,
                  "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\KvtKept");
}

TEST_F(Report, ConfirmBoxesShiftControlAndCancel) {
    static const char fileA[] = "same", fileB[] = "same"; // another pointer, the same text
    const std::pair<const char*, uint32_t> sites[] = {
        {fileA, 1}, {fileA, 1}, {fileA, 2}, {fileB, 1}};
    // clang-format off
    const struct { bool process, user; uint32_t inDialog; std::deque<int> answers;
                   const char* boxes; bool neverAsk; uint32_t silenced; } cases[] = {
        // `boxes`: the box texts of reports "1" to "4" at those sites; the answer 0: closed by us
        {true, true, 0, {}, "1 2 3 4", false, 0}, {true, true, 0, {0}, "1 2 3 4", false, 0},
        {true, true, 0, {IDOK + kShift}, "1", true, 0},
        {true, true, 0, {IDOK + kCtrl}, "1 3 4", false, 1},
        {true, true, 0, {IDCANCEL, IDYES}, "1 Continue? [11014] 2 3 4", false, 0},
        {true, true, 0, {IDCANCEL + kShift + kCtrl, IDYES}, "1 Continue? [11014] 2 3 4", false, 0},
        {false, true, 0, {}, "", false, 0}, {true, false, 0, {}, "", false, 0},
        {true, true, 1, {}, "", false, 0}, // already in a box
    };
    // clang-format on
    for (const auto& c : cases) {
        ThreadReportState* state = GetThreadReportState();
        *state = ThreadReportState{.inDialog = c.inDialog};
        SetInteractionAllowed(c.process, c.user);
        s_answers = c.answers;
        for (size_t i = 0; i < 4; ++i)
            ReportAndConfirm(4096, 4, sites[i].first, sites[i].second,
                             std::to_string(i + 1).c_str());
        EXPECT_EQ(Take(s_boxes, " "), c.boxes);
        EXPECT_EQ(std::exchange(s_lines, {}).size(), 4u); // written all the same
        EXPECT_EQ(std::tuple(state->inDialog, state->neverAsk, state->silencedCount),
                  std::tuple(c.inDialog, c.neverAsk, c.silenced))
            << c.boxes;
    }
}

ProcessResult Child(const std::wstring& logType) {
    return RunProcess(L"\"" + SelfPath() + L"\" --report-child", L"LOGTYPE=" + logType);
}

TEST(ReportChild, LogTypeChoosesWhereTheRecordsGo) {
    const ProcessResult runs[] = {Child(L""), Child(L"STDOUT"), Child(L"StdErr"), Child(L"bogus")};
    const std::string unknown = "GetLogType: Unknown type \\[bogus\\]\r";
    for (size_t type = 0; type < 4; ++type) {
        const ProcessResult& r = runs[type];
        ASSERT_TRUE(r.started && r.exitCode == 0) << r.out << r.err;
        EXPECT_NE(r.out.find("#RESULT 11 " + std::to_string(type % 3)), r.out.npos) << r.out;
        EXPECT_EQ(r.out.find("{\"@timestamp\"") != r.out.npos, type == 1) << r.out;
        EXPECT_EQ(r.err.find("{\"@timestamp\"") != r.err.npos, type == 2) << r.err;
        // An unknown type is reported as an error, with a box; the echo comes in every type.
        EXPECT_EQ(std::regex_search(r.out, std::regex("#LINE EM: " + unknown)), type == 3);
        EXPECT_EQ(std::regex_search(r.out, std::regex("#BOX " + unknown)), type == 3);
        EXPECT_NE(r.out.find("#BOX ReportEvent: S-00002: level 0\r\n"), r.out.npos);
        EXPECT_NE(r.out.find("#KEPT beef beef"), r.out.npos) << r.out;
    }
    // The records, fields in order; a value that is not a number is quoted.
    std::smatch pid;
    ASSERT_TRUE(std::regex_search(runs[1].out, pid, std::regex("#PID (\\d+)")));
    EXPECT_TRUE(std::regex_search(
        runs[1].out,
        std::regex(R"(\n\{"@timestamp":"20\d\d-\d\d-\d\dT[\d:.]+[+-]\d\d:\d\d","level":"info",)"
                   R"~("message":"Setup-00012: Install A of B \(<unknown>\)","bytes":12,)~"
                   R"("bad":"12abc","version":"24\.7\.0\.15","processid":)" +
                   pid[1].str() + R"(,"threadid":\d+\}\r\n)")))
        << runs[1].out;
    EXPECT_TRUE(std::regex_search(
        runs[1].out,
        std::regex(R"(\n\{"@timestamp":"[^"]+","level":"err","message":"S-00002: level 0"\}\r\n)")))
        << runs[1].out;
}

// The trace pipe is common to the prefix: this runs alone.
class SharedTrace : public Report {};

// A listening viewer takes the line and nothing else does; without one the
// line goes to the debugger, and for a second after a failure the pipe is not
// tried again, even when a viewer has come back meanwhile.
TEST_F(SharedTrace, ViewerPipeAndItsOneSecondBackOff) {
    SetTraceHook(nullptr);
    Flags(0);
    // Debugger output raises DBG_PRINTEXCEPTION_C, which a vectored handler sees first.
    void* handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* info) -> LONG {
        const EXCEPTION_RECORD* r = info->ExceptionRecord;
        if (r->ExceptionCode == DBG_PRINTEXCEPTION_C && r->NumberParameters >= 2)
            s_debug.emplace_back(reinterpret_cast<const char*>(r->ExceptionInformation[1]));
        return EXCEPTION_CONTINUE_SEARCH;
    });
    const auto viewer = [] {
        return UniqueHandle(CreateNamedPipeA("\\\\.\\pipe\\ZemTracePipe", PIPE_ACCESS_INBOUND,
                                             PIPE_TYPE_MESSAGE, 1, 0, 65536, 0, nullptr));
    };
    const auto received = [](const UniqueHandle& pipe) {
        char buffer[64] = {};
        DWORD available = 0, got = 0;
        return PeekNamedPipe(pipe.Get(), nullptr, 0, nullptr, &available, nullptr) &&
                       available != 0 && ReadFile(pipe.Get(), buffer, sizeof buffer, &got, nullptr)
                   ? std::string(buffer, got)
                   : std::string();
    };
    const std::string tag = "pipe" + std::to_string(GetCurrentProcessId());
    const auto report = [&](const char* suffix) {
        WriteReport(4096, 2, nullptr, 0, (tag + suffix).c_str());
    };
    UniqueHandle pipe = viewer();
    ASSERT_TRUE(pipe);
    report("a");
    EXPECT_EQ(received(pipe), "EX: " + tag + "a" + std::string(1, '\0'));
    pipe.Reset();
    report("b"); // the viewer is gone: the debugger, and the failure time is noted
    pipe = viewer();
    report("c"); // within the second: the pipe is not tried
    EXPECT_EQ(received(pipe), "");
    Sleep(1100);
    report("d");
    EXPECT_EQ(received(pipe), "EX: " + tag + "d" + std::string(1, '\0'));
    RemoveVectoredExceptionHandler(handler);
    std::erase_if(s_debug, [&](const std::string& s) { return s.find(tag) == s.npos; });
    EXPECT_EQ(s_debug, (Lines{"EX: " + tag + "b\r\n", "EX: " + tag + "c\r\n"}));
}

// The child: two events, then what they returned and the log type.
int RunChild() {
    s_printBoxes = true;
    SetTraceHook([](const char* line, uint32_t) { return printf("#LINE %s\n", line), true; });
    Flags(0);
    // The first use of the log type and of the module name keeps the caller's last error.
    SetLastError(0xBEEF);
    GetLogType();
    const DWORD afterLogType = GetLastError();
    GetModuleBaseName();
    printf("#KEPT %lx %lx\n", afterLogType, GetLastError());
    const EventValue values[] = {{"bytes", Str("12"), true}, {"bad", Str("12abc"), true}};
    const EventDescriptor first{"Install %1 of %2 (%3)", {"A", "B"}, values, 2}, second{"level 0"};
    const bool a = ReportEvent(Str("Setup"), 12, first, true, kLevelInfo, 0, false);
    const bool b = ReportEvent(Str("S"), 2, second, false, kLevelErr, 0, false);
    printf("#PID %lu\n#RESULT %d%d %u\n", GetCurrentProcessId(), a, b, unsigned(GetLogType()));
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::wstring self = SelfPath();
    SetModulePath(Str::FromUtf16(self.c_str(), static_cast<uint32_t>(self.size())));
    static const ReportSeams seams = {ScriptedBox};
    SetReportSeamsForTesting(&seams); // no test waits on a real box
    if (argc >= 2 && strcmp(argv[1], "--report-child") == 0)
        return RunChild();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
