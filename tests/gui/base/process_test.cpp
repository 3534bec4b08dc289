// Process start: real processes (cmd.exe and this test program in a child
// role), the events in the report stream and as JSON records on stdout.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "process.h"
#include "report.h"
#include "testsupport.h"
#include "trace.h"

using testsupport::Env;
using testsupport::Narrow;
using testsupport::ReadFileBytes;
using testsupport::ScratchDir;
using testsupport::Widen;

namespace {

// Child roles of this program, chosen by KVT_PROCESS_CHILD.
const wchar_t kChildRole[] = L"KVT_PROCESS_CHILD";
const wchar_t kChildOutput[] = L"KVT_PROCESS_CHILD_OUTPUT";
const char kChildArguments[] =
    " --gtest_brief=1 --gtest_also_run_disabled_tests --gtest_filter=ProcessChild.DISABLED_Run";
const char kMissingProgram[] = "kvt-no-such-program-4711.exe";

std::string ExePath() {
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    return Narrow(std::wstring(path, n));
}

// This program in a child role; the role comes from the inherited environment.
std::string ChildCommand(const std::string& extra = "") {
    return "\"" + ExePath() + "\"" + kChildArguments + extra;
}

std::string CurrentDirectory() {
    wchar_t path[MAX_PATH];
    const DWORD n = GetCurrentDirectoryW(MAX_PATH, path);
    return Narrow(std::wstring(path, n));
}

// The full form of a path, as the system reports current directories.
std::string FullPath(const std::string& path) {
    wchar_t full[MAX_PATH];
    const DWORD n = GetFullPathNameW(Widen(path).c_str(), MAX_PATH, full, nullptr);
    return n != 0 && n < MAX_PATH ? Narrow(std::wstring(full, n)) : path;
}

std::string TrimRight(std::string text) {
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

// The platform's own text for a code, as the event must quote it.
std::string PlatformErrorText(DWORD code) {
    wchar_t* buffer = nullptr;
    const DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                       FORMAT_MESSAGE_IGNORE_INSERTS,
                                   nullptr, code, 0, reinterpret_cast<LPWSTR>(&buffer), 0, nullptr);
    std::string text = n != 0 ? TrimRight(Narrow(std::wstring(buffer, n))) : std::string();
    LocalFree(buffer);
    char suffix[40];
    snprintf(suffix, sizeof suffix, " (0x%08lX/%lu)", static_cast<unsigned long>(code),
             static_cast<unsigned long>(code));
    return text + suffix;
}

// Sets an environment variable of this process (children inherit it) for a scope.
class EnvScope {
  public:
    EnvScope(const wchar_t* name, const std::wstring& value) : m_name(name) {
        SetEnvironmentVariableW(name, value.c_str());
    }
    ~EnvScope() { SetEnvironmentVariableW(m_name, nullptr); }
    EnvScope(const EnvScope&) = delete;
    EnvScope& operator=(const EnvScope&) = delete;

  private:
    const wchar_t* m_name;
};

// Report lines, captured through the trace sink's hook.
std::vector<std::string>* s_capturedLines = nullptr;

bool CaptureLine(const char* line, uint32_t) {
    if (s_capturedLines != nullptr)
        s_capturedLines->push_back(line);
    return true;
}

class ReportCapture {
  public:
    ReportCapture() {
        s_capturedLines = &m_lines;
        SetTraceHook(CaptureLine);
    }
    ~ReportCapture() {
        SetTraceHook(nullptr);
        s_capturedLines = nullptr;
    }
    ReportCapture(const ReportCapture&) = delete;
    ReportCapture& operator=(const ReportCapture&) = delete;

    const std::vector<std::string>& Lines() const { return m_lines; }
    size_t Count(const std::string& text) const {
        size_t n = 0;
        for (const std::string& line : m_lines)
            n += line.find(text) != std::string::npos;
        return n;
    }
    // The event's first line and its detail lines ("  name: value") right after
    // it, without the line header (as long as on the first line: the same
    // process, thread and module; only the severity letters differ).
    std::vector<std::string> Event(const std::string& title) const {
        std::vector<std::string> found;
        for (size_t i = 0; i < m_lines.size(); ++i) {
            const size_t at = m_lines[i].find(title);
            if (at == std::string::npos)
                continue;
            found.push_back(m_lines[i].substr(at));
            for (size_t j = i + 1; j < m_lines.size(); ++j) {
                if (m_lines[j].size() <= at + 2 || m_lines[j].compare(at, 2, "  ") != 0 ||
                    m_lines[j].find("ReportEvent:") != std::string::npos)
                    break;
                found.push_back(m_lines[j].substr(at));
            }
            break;
        }
        return found;
    }
    std::string All() const {
        std::string out;
        for (const std::string& line : m_lines)
            out += line + "\n";
        return out;
    }

  private:
    std::vector<std::string> m_lines;
};

const char kSucceeded[] = "ReportEvent: QELGUI-02105: Command start succeeded";
const char kFailed[] = "ReportEvent: QELGUI-02106: Command start failed";

DWORD WaitExitCode(HANDLE process, DWORD timeoutMs = 15000) {
    if (WaitForSingleObject(process, timeoutMs) != WAIT_OBJECT_0)
        return 0xDEADBEEF;
    DWORD code = 0xDEADBEEF;
    GetExitCodeProcess(process, &code);
    return code;
}

// What an echo child saw: start-up flags, show state, command line, directory.
struct Echo {
    bool present = false;
    std::string flags, show, commandLine, directory, marker;
};

Echo ReadEcho(const std::wstring& path) {
    Echo echo;
    std::string bytes;
    if (!ReadFileBytes(path, bytes))
        return echo;
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= bytes.size()) {
        size_t end = bytes.find('\n', start);
        if (end == std::string::npos)
            end = bytes.size();
        parts.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    if (parts.size() < 5)
        return echo;
    echo.present = true;
    echo.flags = parts[0];
    echo.show = parts[1];
    echo.commandLine = parts[2];
    echo.directory = parts[3];
    echo.marker = parts[4];
    return echo;
}

std::vector<nlohmann::json> JsonRecords(const std::string& out) {
    std::vector<nlohmann::json> records;
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos)
            end = out.size();
        const std::string line = TrimRight(out.substr(start, end - start));
        if (!line.empty() && line[0] == '{')
            records.push_back(nlohmann::json::parse(line, nullptr, false));
        start = end + 1;
    }
    return records;
}

using Clock = std::chrono::steady_clock;
double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

// The child roles. Disabled, so that only a parent that asks for it runs it.
TEST(ProcessChild, DISABLED_Run) {
    const std::wstring role = Env(kChildRole);
    if (role == L"echo") {
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        GetStartupInfoW(&startup);
        char head[64];
        snprintf(head, sizeof head, "0x%lX\n%u\n", static_cast<unsigned long>(startup.dwFlags),
                 static_cast<unsigned>(startup.wShowWindow));
        const std::string text = head + Narrow(GetCommandLineW()) + "\n" + CurrentDirectory() +
                                 "\n" + Narrow(Env(L"KVT_PROCESS_MARKER")) + "\n";
        ASSERT_TRUE(testsupport::WriteFileBytes(Env(kChildOutput), text));
    } else if (role == L"sleep") {
        Sleep(30000);
    } else if (role == L"events") {
        // One start of each outcome; the records go to stdout (LOGTYPE=stdout).
        HANDLE process = nullptr;
        const uint32_t id = StartCommand(Str("cmd.exe /c exit 0"), nullptr, false, true, &process);
        fprintf(stderr, "pid=%lu\n", static_cast<unsigned long>(id));
        fflush(stderr);
        if (process != nullptr) {
            WaitForSingleObject(process, 15000);
            CloseHandle(process);
        }
        StartCommand(Str(kMissingProgram));
    } else {
        FAIL() << "unknown child role";
    }
}

// An empty command line fails at once in every form, without an event.
TEST(StartCommand, EmptyCommandLineFailsSilently) {
    ReportCapture capture;
    HANDLE process = reinterpret_cast<HANDLE>(1);
    SetLastError(0xBAD);
    EXPECT_EQ(StartCommand(Str(), "", true, true, &process), 0u);
    EXPECT_EQ(process, nullptr);
    EXPECT_EQ(StartCommand(Str(""), nullptr, false, false, nullptr), 0u);
    EXPECT_FALSE(StartCommand(Str(), nullptr, true, true));
    EXPECT_FALSE(StartCommand(Str()));
    EXPECT_EQ(GetLastError(), 0xBADu);
    EXPECT_EQ(capture.Count("ReportEvent"), 0u) << capture.All();
}

// Starts that cannot create a process: 0, the platform's error kept, and event
// 2106 whose "error" quotes the system text of that error.
TEST(StartCommand, FailedStartsReportTheSystemError) {
    ScratchDir scratch(L"process-fail");
    const std::string missingDir = Narrow(scratch.Join(L"no-such-dir"));
    struct Case {
        const char* name;
        std::string commandLine;
        std::string directory;
        int form; // 5, 4 or 1 arguments
        DWORD error;
        DWORD alsoAccepted; // the platforms differ (Wine says 2 where Windows says 3)
    };
    const Case cases[] = {
        {"missing program", kMissingProgram, "", 5, ERROR_FILE_NOT_FOUND, 0},
        {"missing program, 4 arguments", kMissingProgram, "", 4, ERROR_FILE_NOT_FOUND, 0},
        {"missing program, 1 argument", kMissingProgram, "", 1, ERROR_FILE_NOT_FOUND, 0},
        {"missing program with arguments", std::string(kMissingProgram) + " \"a b\" c", "", 5,
         ERROR_FILE_NOT_FOUND, 0},
        {"missing directory of the program", missingDir + "\\x.exe", "", 5, ERROR_PATH_NOT_FOUND,
         ERROR_FILE_NOT_FOUND},
        {"working directory missing", "cmd.exe /c exit 0", missingDir, 5, ERROR_DIRECTORY, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ReportCapture capture;
        SetLastError(0);
        HANDLE process = reinterpret_cast<HANDLE>(1);
        bool started = true;
        if (c.form == 5)
            started = StartCommand(Str(c.commandLine.c_str()), c.directory.c_str(), true, true,
                                   &process) != 0;
        else if (c.form == 4)
            started = StartCommand(Str(c.commandLine.c_str()), c.directory.c_str(), false, true);
        else
            started = StartCommand(Str(c.commandLine.c_str()));
        const DWORD error = GetLastError();
        EXPECT_FALSE(started);
        if (c.form == 5) {
            EXPECT_EQ(process, nullptr);
        }
        if (c.alsoAccepted == 0 || error != c.alsoAccepted) {
            EXPECT_EQ(error, c.error);
        }
        const std::vector<std::string> event = capture.Event(kFailed);
        ASSERT_EQ(event.size(), 3u) << capture.All();
        EXPECT_EQ(event[1], "  command: " + c.commandLine);
        EXPECT_EQ(event[2], "  error: " + PlatformErrorText(error));
        EXPECT_EQ(capture.Count("Command start succeeded"), 0u);
    }
}

// Console programs never reach input idle: the foreground wait must not cost
// its 5 s. The handle handed out belongs to the new process.
TEST(StartCommand, ConsoleProgramStartsQuicklyAndHandsOutItsHandle) {
    struct Case {
        bool show, foreground;
    };
    for (const Case c :
         {Case{true, true}, Case{false, true}, Case{true, false}, Case{false, false}}) {
        SCOPED_TRACE(testing::Message() << "show " << c.show << ", foreground " << c.foreground);
        ReportCapture capture;
        HANDLE process = nullptr;
        const Clock::time_point start = Clock::now();
        const uint32_t id =
            StartCommand(Str("cmd.exe /c exit 3"), "", c.show, c.foreground, &process);
        const double seconds = SecondsSince(start);
        ASSERT_NE(id, 0u);
        ASSERT_NE(process, nullptr);
        EXPECT_LT(seconds, 2.5);
        EXPECT_EQ(GetProcessId(process), id);
        EXPECT_EQ(WaitExitCode(process), 3u);
        EXPECT_TRUE(CloseHandle(process));

        const std::vector<std::string> event = capture.Event(kSucceeded);
        ASSERT_EQ(event.size(), 3u) << capture.All();
        EXPECT_EQ(event[1], "  command: cmd.exe /c exit 3");
        EXPECT_EQ(event[2], "  processid: " + std::to_string(id));
        EXPECT_EQ(capture.Count("Command start failed"), 0u);
    }
}

// The child sees the command line exactly as given (quotes, blanks, non-ASCII),
// the start-up flags of the show flag, the working directory and the caller's
// environment.
TEST(StartCommand, ChildSeesCommandLineFlagsDirectoryAndEnvironment) {
    ScratchDir scratch(L"process-echo");
    ScratchDir workDir(L"process-work dir ü");
    const std::wstring output = scratch.Join(L"echo.txt");
    EnvScope role(kChildRole, L"echo");
    EnvScope target(kChildOutput, output);
    EnvScope marker(L"KVT_PROCESS_MARKER", L"inherited-\u00e9");
    const std::string here = CurrentDirectory();
    struct Case {
        std::string extra;
        bool show;
        bool useDirectory;
        const char* flags;
        const char* showWindow;
    };
    const Case cases[] = {
        {"", true, false, "0x41", "5"},
        {" \"a b\"  c\\\"d \"\" \u00fc\u20ac 'q'", false, true, "0x81", "0"},
        {"   trailing blanks   ", true, true, "0x41", "5"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.extra);
        DeleteFileW(output.c_str());
        const std::string commandLine = ChildCommand(c.extra);
        const std::string directory = c.useDirectory ? FullPath(Narrow(workDir.Path())) : "";
        HANDLE process = nullptr;
        ASSERT_NE(
            StartCommand(Str(commandLine.c_str()), directory.c_str(), c.show, false, &process), 0u);
        EXPECT_EQ(WaitExitCode(process), 0u);
        CloseHandle(process);
        const Echo echo = ReadEcho(output);
        ASSERT_TRUE(echo.present);
        EXPECT_EQ(echo.commandLine, commandLine);
        EXPECT_EQ(echo.flags, c.flags);
        EXPECT_EQ(echo.show, c.showWindow);
        EXPECT_EQ(CompareTextEx(echo.directory.c_str(),
                                c.useDirectory ? directory.c_str() : here.c_str(), true),
                  0)
            << echo.directory << " vs " << (c.useDirectory ? directory : here);
        EXPECT_EQ(echo.marker, "inherited-\u00e9");
    }
}

// A foreign program honours the working directory too ("cd" prints it).
TEST(StartCommand, WorkingDirectoryIsHonoured) {
    ScratchDir scratch(L"process-cd");
    const std::wstring output = scratch.Join(L"cd.txt");
    const std::string here = CurrentDirectory();
    for (const char* directory : {static_cast<const char*>(nullptr), "", "scratch"}) {
        SCOPED_TRACE(directory == nullptr ? "<null>" : directory);
        DeleteFileW(output.c_str());
        const std::string dir = directory != nullptr && std::string(directory) == "scratch"
                                    ? FullPath(Narrow(scratch.Path()))
                                    : "";
        const std::string commandLine = "cmd.exe /c cd > \"" + Narrow(output) + "\"";
        HANDLE process = nullptr;
        ASSERT_NE(StartCommand(Str(commandLine.c_str()),
                               directory == nullptr ? nullptr : dir.c_str(), false, false,
                               &process),
                  0u);
        EXPECT_EQ(WaitExitCode(process), 0u);
        CloseHandle(process);
        std::string text;
        ASSERT_TRUE(ReadFileBytes(output, text));
        const std::string expected = dir.empty() ? here : dir;
        EXPECT_EQ(CompareTextEx(TrimRight(text).c_str(), expected.c_str(), true), 0)
            << text << " vs " << expected;
    }
}

// Handles of this process that refer to other processes or their threads.
// Wine's GetProcessHandleCount always says 0, so the handle table is probed.
int ForeignProcessAndThreadHandles() {
    const DWORD self = GetCurrentProcessId();
    int count = 0;
    for (uintptr_t value = 4; value < 0x10000; value += 4) {
        const HANDLE handle = reinterpret_cast<HANDLE>(value);
        DWORD flags = 0;
        if (!GetHandleInformation(handle, &flags))
            continue;
        const DWORD process = GetProcessId(handle);
        const DWORD threadOwner = GetProcessIdOfThread(handle);
        count += (process != 0 && process != self) || (threadOwner != 0 && threadOwner != self);
    }
    return count;
}

// The convenience forms close the handles; so does the core when not asked for one.
TEST(StartCommand, ConvenienceFormsDoNotLeakHandles) {
    ReportCapture capture; // keeps the report lines out of the debugger channel
    HANDLE own = nullptr;
    ASSERT_NE(StartCommand(Str("cmd.exe /c exit 0"), nullptr, false, false, &own), 0u);
    // The probe must see a handle that is held.
    const int holding = ForeignProcessAndThreadHandles();
    CloseHandle(own);
    const int before = ForeignProcessAndThreadHandles();
    EXPECT_EQ(holding, before + 1);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(StartCommand(Str("cmd.exe /c exit 0")));
        EXPECT_TRUE(StartCommand(Str("cmd.exe /c exit 0"), nullptr, false, true));
        EXPECT_NE(StartCommand(Str("cmd.exe /c exit 0"), "", false, false, nullptr), 0u);
        EXPECT_FALSE(StartCommand(Str(kMissingProgram), nullptr, false, true));
    }
    EXPECT_EQ(ForeignProcessAndThreadHandles(), before);
    EXPECT_EQ(capture.Count(kSucceeded), 16u);
    EXPECT_EQ(capture.Count(kFailed), 5u);
}

// Handles of this process are not inherited: with the only other writer closed,
// a pipe whose write end is inheritable is broken even while the child runs.
TEST(StartCommand, HandlesAreNotInherited) {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    ASSERT_TRUE(CreatePipe(&readEnd, &writeEnd, &inherit, 0));
    EnvScope role(kChildRole, L"sleep");
    HANDLE process = nullptr;
    const uint32_t id = StartCommand(Str(ChildCommand().c_str()), nullptr, false, false, &process);
    CloseHandle(writeEnd);
    ASSERT_NE(id, 0u);
    DWORD available = 0;
    SetLastError(0);
    const BOOL peeked = PeekNamedPipe(readEnd, nullptr, 0, nullptr, &available, nullptr);
    const DWORD error = GetLastError();
    EXPECT_EQ(WaitForSingleObject(process, 0), static_cast<DWORD>(WAIT_TIMEOUT))
        << "child ended early";
    TerminateProcess(process, 0);
    WaitForSingleObject(process, 5000);
    CloseHandle(process);
    CloseHandle(readEnd);
    EXPECT_FALSE(peeked);
    EXPECT_EQ(error, static_cast<DWORD>(ERROR_BROKEN_PIPE));
}

// The one-argument form goes through the hook when one is set; the other forms never do.
namespace {
std::vector<std::string> s_hookCalls;
bool FailingStart(const Str& commandLine) {
    s_hookCalls.push_back(commandLine.Text());
    SetLastError(ERROR_ACCESS_DENIED);
    return false;
}
} // namespace

TEST(StartCommand, HookReplacesOnlyTheOneArgumentForm) {
    s_hookCalls.clear();
    ReportCapture capture;
    SetStartCommandHook(&FailingStart);
    const bool hooked = StartCommand(Str("cmd.exe /c exit 0"));
    const DWORD hookedError = GetLastError();
    const bool fourArguments = StartCommand(Str("cmd.exe /c exit 0"), nullptr, false, false);
    SetStartCommandHook(nullptr);
    const bool restored = StartCommand(Str("cmd.exe /c exit 0"));

    EXPECT_FALSE(hooked);
    EXPECT_EQ(hookedError, static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(fourArguments);
    EXPECT_TRUE(restored);
    EXPECT_EQ(s_hookCalls, std::vector<std::string>{"cmd.exe /c exit 0"});
    // Only the two real starts are reported.
    EXPECT_EQ(capture.Count(kSucceeded), 2u) << capture.All();
    EXPECT_EQ(capture.Count(kFailed), 0u);
}

// With LOGTYPE=stdout each event is one JSON record on standard output.
TEST(StartCommand, EventsAreJsonRecordsOnStdout) {
    const testsupport::ProcessResult result = testsupport::RunProcess(
        Widen(ChildCommand()), L"KVT_PROCESS_CHILD=events\nLOGTYPE=stdout", 30000);
    ASSERT_TRUE(result.started);
    EXPECT_EQ(result.exitCode, 0u) << result.out << result.err;
    const size_t at = result.err.find("pid=");
    ASSERT_NE(at, std::string::npos) << result.err;
    const unsigned long pid = strtoul(result.err.c_str() + at + 4, nullptr, 10);
    ASSERT_NE(pid, 0ul);

    const std::vector<nlohmann::json> records = JsonRecords(result.out);
    ASSERT_EQ(records.size(), 2u) << result.out;
    const nlohmann::json& started = records[0];
    ASSERT_TRUE(started.is_object()) << result.out;
    EXPECT_EQ(started.value("message", ""), "QELGUI-02105: Command start succeeded");
    EXPECT_EQ(started.value("level", ""), "notice");
    EXPECT_EQ(started.value("command", ""), "cmd.exe /c exit 0");
    ASSERT_TRUE(started.contains("processid") && started["processid"].is_number_unsigned())
        << started.dump();
    EXPECT_EQ(started["processid"].get<unsigned long>(), pid);

    const nlohmann::json& failed = records[1];
    ASSERT_TRUE(failed.is_object()) << result.out;
    EXPECT_EQ(failed.value("message", ""), "QELGUI-02106: Command start failed");
    EXPECT_EQ(failed.value("level", ""), "warning");
    EXPECT_EQ(failed.value("command", ""), kMissingProgram);
    EXPECT_EQ(failed.value("error", ""), PlatformErrorText(ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(failed.contains("processid"));
}
