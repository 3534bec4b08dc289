// Guards and the exception filter, with real faults. What ends a process (a stack
// overflow, a fault in another thread) runs in a child: "--child <what>".
#include <gtest/gtest.h>

#include <windows.h>

#include <regex>
#include <string>
#include <vector>

#include "private/seams.h"
#include "private/system.h"
#include "private/threadexit.h"
#include "report.h"
#include "testsupport.h"
#include "trace.h"

using namespace testsupport;

namespace {

std::vector<std::string> s_lines, s_asked; // report texts without headers; filters asked
bool s_print = false;                      // a child prints its report texts
volatile int s_sink, s_zero;
int* volatile kBad = reinterpret_cast<int*>(0x10); // a volatile: not a known constant

bool Hook(const char* line, uint32_t) {
    const std::string text = std::string(line).substr(std::string(line).find(": ") + 2);
    s_print ? (void)printf("#%s\n", text.c_str()) : s_lines.push_back(text);
    return true;
}
std::string Take() {
    std::string all;
    for (const std::string& line : std::exchange(s_lines, {}))
        all += line + "\n";
    return all;
}
std::string Ptr(const void* p) {
    return StrFormat("%p", p).Text();
}
int Handle(const char* context, EXCEPTION_POINTERS*, int disposition) {
    s_asked.push_back(context);
    SetLastError(77);
    return disposition;
}
int Decline(const char* context, EXCEPTION_POINTERS*, int) {
    s_asked.push_back(context);
    return 0;
}

void ReadFault(void*) {
    SetLastError(0x1234);
    s_sink = *const_cast<volatile int*>(kBad);
}
void WriteFault(void*) {
    SetLastError(0x1234);
    *const_cast<volatile int*>(kBad) = 1;
}
void DivideFault(void*) {
    SetLastError(0x1234);
    s_sink = s_sink / s_zero;
}
void TrapFault(void*) {
    SetLastError(0x1234);
    __builtin_trap();
}
// Changes the registers a caller keeps across a call, then faults.
__attribute__((noinline)) void ClobberAndFault(void* depth) {
    volatile char here = 0;
    *static_cast<const volatile char**>(depth) = &here;
    asm volatile("xorl %%ebx,%%ebx; xorl %%esi,%%esi; xorl %%edi,%%edi; xorl %%r12d,%%r12d;"
                 "xorl %%r13d,%%r13d; xorl %%r14d,%%r14d; xorl %%r15d,%%r15d;"
                 "pxor %%xmm6,%%xmm6; pxor %%xmm7,%%xmm7; pxor %%xmm15,%%xmm15" ::
                     : "rbx", "rsi", "rdi", "r12", "r13", "r14", "r15", "xmm6", "xmm7", "xmm15");
    WriteFault(nullptr);
}
__attribute__((noinline)) void Overflow(void*) {
    volatile char frame[16 << 20]; // far beyond the stack: the probe hits its end
    frame[0] = 1;
    s_sink = frame[0];
}

class Guard : public ::testing::Test {
  protected:
    void SetUp() override { s_lines.clear(), s_asked.clear(); }
};

// Records made by hand: every branch of the filter, and the last error kept.
TEST_F(Guard, FilterNamesReportsAndAnswers) {
    const ULONG_PTR read[] = {0, 0x1234}, write[] = {1, 0x1234}, execute[] = {8, 0x1234};
    void* at = reinterpret_cast<void*>(0x4000);
    const std::string rw = "Could not %s at address " + Ptr(reinterpret_cast<void*>(0x1234));
    // clang-format off
    const struct { uint32_t code, flags, count; const ULONG_PTR* params; const char* context;
                   int disposition, answer; std::string first, second; } cases[] = {
        {0xC0000005, 0, 2, read, "site", 1, 1, "Exception 0xC0000005 (ACCESS_VIOLATION)", "read"},
        {0xC0000005, 0, 2, write, nullptr, 1, 1, "Exception 0xC0000005 (ACCESS_VIOLATION)", "write"},
        {0xC0000005, 0, 2, execute, "site", 1, 1, "Exception 0xC0000005 (ACCESS_VIOLATION)", ""},
        {0xC0000005, 0, 1, read, "site", 1, 1, "Exception 0xC0000005 (ACCESS_VIOLATION)", ""},
        {0xC00000FD, 0, 0, nullptr, "site", 1, 0, "Exception 0xC00000FD (STACK_OVERFLOW)", ""},
        {0xC00000FD, 0, 0, nullptr, "site", -1, -1, "Exception 0xC00000FD (STACK_OVERFLOW)", ""},
        {0xC0000094, 1, 0, nullptr, "site", 1, 0,
         "Non-continuable exception 0xC0000094 (INTEGER_DIVIDE_BY_ZERO)", ""},
        {0xC00002C9, 0, 0, nullptr, "site", 0, 0, "Exception 0xC00002C9 (REG_NAT_CONSUMPTION)", ""},
        {0xE0001234, 0, 0, nullptr, "site", 1, 1, "Exception 0xE0001234 ()", ""},
    };
    // clang-format on
    for (const auto& c : cases) {
        EXCEPTION_RECORD record{c.code, c.flags, nullptr, at, c.count, {}};
        for (uint32_t i = 0; i < c.count; ++i)
            record.ExceptionInformation[i] = c.params[i];
        CONTEXT context{};
        EXCEPTION_POINTERS pointers{&record, &context};
        SetLastError(0xBEEF);
        EXPECT_EQ(ExceptionFilter(c.context, &pointers, c.disposition), c.answer) << c.first;
        EXPECT_EQ(GetLastError(), 0xBEEFu);
        const std::string info =
            c.second.empty() ? "" : StrFormat(rw.c_str(), c.second.c_str()).Text();
        std::string expected = "ExceptionFilter: " + c.first + " at address " + Ptr(at) +
                               (c.context ? " (site)" : "") + "\n" +
                               (info.empty() ? "" : "ExceptionFilter: " + info + "\n") +
                               "ReportEvent: QELGUI-00400: Exception occured\n  type: " +
                               c.first.substr(0, c.first.find(" 0x")) +
                               StrFormat("\n  code: 0x%08X\n", c.code).Text() +
                               "  error: " + FormatSystemError(c.code).Text() +
                               "\n  address: " + Ptr(at) + (c.context ? "\n  context: site" : "") +
                               (info.empty() ? "" : "\n  exceptioninfo: " + info) +
                               "\n  file: gui\\base\\include\\private\\system\n  line: ";
        EXPECT_EQ(Take().substr(0, expected.size()), expected);
    }
    ExceptionFilter(nullptr, nullptr, 1); // no record: code 0, no name, null address
    EXPECT_EQ(Take().substr(0, 58),
              "ExceptionFilter: Exception 0x00000000 () at address " + Ptr(nullptr).substr(0, 6));
}

TEST_F(Guard, RealFaultsAreReportedAndHandled) {
    const std::string bad = Ptr(kBad);
    // clang-format off
    const struct { void (*body)(void*); const char* head; std::string info; } cases[] = {
        {ReadFault, "0xC0000005 \\(ACCESS_VIOLATION\\)", "Could not read at address " + bad},
        {WriteFault, "0xC0000005 \\(ACCESS_VIOLATION\\)", "Could not write at address " + bad},
        {DivideFault, "0xC0000094 \\(INTEGER_DIVIDE_BY_ZERO\\)", ""},
        {TrapFault, "0xC000001D \\(ILLEGAL_INSTRUCTION\\)", ""},
    };
    // clang-format on
    for (const auto& c : cases) {
        SetLastError(0);
        EXPECT_FALSE(RunGuarded("Site", ExceptionFilter, c.body, nullptr)) << c.head;
        EXPECT_EQ(GetLastError(), 0x1234u) << "the filter keeps the last error of the fault";
        const std::string info = c.info.empty() ? "" : "ExceptionFilter: " + c.info + "\n";
        const std::string more = c.info.empty() ? "" : "  exceptioninfo: " + c.info + "\n";
        EXPECT_TRUE(std::regex_search(
            Take(), std::regex("^ExceptionFilter: Exception " + std::string(c.head) +
                               " at address (\\w+) \\(Site\\)\n" + info +
                               "ReportEvent: QELGUI-00400: Exception occured\n"
                               "  type: Exception\n.*\n.*\n  address: \\1\n  context: Site\n" +
                               more + "  file: ")))
            << c.head;
    }
    EXPECT_FALSE(RunGuarded("Mine", Handle, ReadFault, nullptr));
    EXPECT_EQ(GetLastError(), 77u) << "as the filter left it";
    EXPECT_TRUE(RunGuarded("Calm", ExceptionFilter, [] { s_sink = 1; }));
    EXPECT_EQ(Take(), "");
}

TEST_F(Guard, NestedGuardsAreAskedInnermostFirst) {
    for (const bool innerHandles : {true, false}) {
        bool after = false;
        const bool outer = RunGuarded("outer", Handle, [&] {
            after = !RunGuarded("inner", innerHandles ? Handle : Decline, WriteFault, nullptr);
        });
        EXPECT_EQ(s_asked, (innerHandles ? std::vector<std::string>{"inner"}
                                         : std::vector<std::string>{"inner", "outer"}));
        EXPECT_EQ(outer, innerHandles);
        EXPECT_EQ(after, innerHandles);
        s_asked.clear();
    }
}

TEST_F(Guard, UnwindsTheStackAndKeepsTheCallersRegisters) {
    auto run = [](bool fault) {
        uint64_t a = 1, b = 7, c = 11, d = 13;
        double x = 0.5, y = 1.25;
        const volatile char *depth = nullptr, *first = nullptr;
        for (int i = 0; i < 5000; ++i) {
            a = a * 6364136223846793005ull + i, b ^= a >> 7, c += b * 3, d -= c;
            x = x * 1.000001 + y, y = y * 0.999999 + x * 1e-9;
            EXPECT_NE(RunGuarded(
                          "loop", Handle, fault ? ClobberAndFault : [](void*) {}, &depth),
                      fault);
            first = first ? first : depth;
            EXPECT_EQ(depth, first) << "the stack was not unwound";
        }
        return std::to_string(a ^ b ^ c ^ d) + " " + std::to_string(x + y);
    };
    EXPECT_EQ(run(true), run(false));
}

TEST_F(Guard, AFaultingThreadExitCleanUpIsReportedAndTheOthersRun) {
    static bool laterRan;
    laterRan = false;
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](void*) -> DWORD {
            RegisterThreadExit(1, WriteFault, nullptr);
            RegisterThreadExit(
                2, [](void*) { laterRan = true; }, nullptr);
            return 0;
        },
        nullptr, 0, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    EXPECT_TRUE(laterRan);
    EXPECT_NE(Take().find("(ThreadExitData::dtor)"), std::string::npos);
}

TEST_F(Guard, BoxThreadAndFormattingSitesFailAlone) {
    static const ReportSeams faultingBox = {
        [](const char*, const char*, uint32_t, bool*, bool*) { return WriteFault(nullptr), 1; }};
    SetReportSeamsForTesting(&faultingBox);
    EXPECT_EQ(MessageBoxThread("box", MB_OK, nullptr, nullptr), 0);
    SetReportSeamsForTesting(nullptr);
    // A text that becomes unreadable once measured faults the writing pass.
    static char* page = static_cast<char*>(VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READWRITE));
    static bool armed = false;
    static const AllocSeams lockPage = {[](size_t) {
                                            DWORD old;
                                            if (std::exchange(armed, false))
                                                VirtualProtect(page, 4096, PAGE_NOACCESS, &old);
                                            return false;
                                        },
                                        nullptr};
    SetAllocSeamsForTesting(&lockPage);
    wcscpy(reinterpret_cast<wchar_t*>(page), L"text");
    const char* unreadable = reinterpret_cast<const char*>(kBad);
    // clang-format off
    const struct { const char* site; bool (*formatEmpty)(const char*); } cases[] = {
        {"MessageBoxThread", nullptr},
        {"FmtGetWidth", [](const char* s) { return StrFormat("%s", s).IsEmpty(); }},
        {"FmtGetWidth", [](const char* s) { return WStrFormat(L"%ls", s).IsEmpty(); }},
        {"qelvsnprintf", [](const char*) { return armed = true, StrFormat("%s", page).IsEmpty(); }},
        {"qelvsnwprintf", [](const char*) { return armed = true, WStrFormat(L"%ls", page).IsEmpty(); }},
    };
    // clang-format on
    for (const auto& c : cases) {
        EXPECT_TRUE(c.formatEmpty == nullptr || c.formatEmpty(unreadable)) << c.site;
        EXPECT_TRUE(std::regex_search(Take(), std::regex(std::string("^ExceptionFilter: Exception "
                                                                     "0xC0000005 .*\\(") +
                                                         c.site + "\\)\n")))
            << c.site;
        DWORD old;
        VirtualProtect(page, 4096, PAGE_READWRITE, &old);
    }
    SetAllocSeamsForTesting(nullptr);
}

std::wstring SelfPath() {
    wchar_t path[MAX_PATH];
    return std::wstring(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
}

TEST(GuardChild, StackOverflowIsReportedThenPassedOn) {
    ProcessResult r = RunProcess(L"\"" + SelfPath() + L"\" --child overflow");
    EXPECT_EQ(r.exitCode, static_cast<DWORD>(STATUS_STACK_OVERFLOW)) << r.out << r.err;
    std::erase(r.out, '\r');
    EXPECT_TRUE(std::regex_search(
        r.out, std::regex("^#ExceptionFilter: Exception 0xC00000FD \\(STACK_OVERFLOW\\) at "
                          "address \\w+ \\(Overflow\\)\n#ReportEvent: QELGUI-00400: Exception "
                          "occured\n#  type: Exception\n#  code: 0xC00000FD\n")))
        << r.out;
    EXPECT_EQ(r.out.find("#returned"), std::string::npos);
}

TEST(GuardChild, AFaultInAnotherThreadIsNotThisThreadsToCatch) {
    const ProcessResult r = RunProcess(L"\"" + SelfPath() + L"\" --child thread");
    EXPECT_EQ(r.exitCode, static_cast<DWORD>(STATUS_ACCESS_VIOLATION)) << r.out << r.err;
    EXPECT_EQ(r.out, "");
}

int Child(const std::string& what) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    s_print = true;
    // The process ends with the fault's code, without a debugger.
    SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG { return 1; });
    if (what == "overflow") {
        RunGuarded("Overflow", ExceptionFilter, Overflow, nullptr);
    } else {
        // Another thread faults, unguarded, while this one waits in a guard.
        static HANDLE go = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        CloseHandle(CreateThread(
            nullptr, 0, [](void*) -> DWORD { return WaitForSingleObject(go, INFINITE), 0; },
            nullptr, 0, nullptr));
        CloseHandle(CreateThread(
            nullptr, 0,
            [](void*) -> DWORD {
                return WaitForSingleObject(go, INFINITE), WriteFault(nullptr), 0;
            },
            nullptr, 0, nullptr));
        RunGuarded("Waiting", ExceptionFilter, [] { SetEvent(go), Sleep(20000); });
    }
    printf("#returned\n");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    SetInteractionAllowed(false, false);
    SetTraceHook(Hook);
    if (argc == 3 && strcmp(argv[1], "--child") == 0)
        return Child(argv[2]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
