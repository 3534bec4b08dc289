// Process start: real processes (cmd.exe and this test program in a child
// role), the events in the report stream and as JSON records on stdout.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#include "handles.h"
#include "process.h"
#include "report.h"
#include "testsupport.h"

namespace {

using testsupport::Env;
using testsupport::Narrow;
using testsupport::PlatformErrorText;
using testsupport::ReportLines;

const char kMissing[] = "kvt-no-such-program-4711.exe";
const std::string kSucceeded = "ReportEvent: QELGUI-02105: Command start succeeded\n";
const std::string kFailed = "ReportEvent: QELGUI-02106: Command start failed\n";

// This program in a child role, chosen by KVT_PROCESS_CHILD in the inherited environment.
std::string ChildCommand(const std::string& extra = "") {
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    return "\"" + Narrow(std::wstring(path, n)) + "\" --gtest_brief=1" +
           " --gtest_also_run_disabled_tests --gtest_filter=ProcessChild.DISABLED_Run" + extra;
}

} // namespace

// The child roles. Disabled, so that only a parent that asks for it runs it.
TEST(ProcessChild, DISABLED_Run) {
    if (Env(L"KVT_PROCESS_CHILD") == L"events") { // one start of each outcome
        HANDLE process = nullptr;
        const uint32_t id = StartCommand(Str("cmd.exe /c exit 0"), nullptr, false, true, &process);
        fprintf(stderr, "pid=%lu\n", static_cast<unsigned long>(id));
        const UniqueHandle owner(process);
        WaitForSingleObject(process, 15000);
        StartCommand(Str(kMissing));
        return;
    }
    // What the child saw: start-up flags and show state, command line and directory.
    STARTUPINFOW startup{};
    GetStartupInfoW(&startup);
    wchar_t directory[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, directory);
    ASSERT_TRUE(testsupport::WriteFileBytes(
        Env(L"KVT_PROCESS_OUTPUT"), std::to_string(startup.dwFlags) + " " +
                                        std::to_string(startup.wShowWindow) + "\n" +
                                        Narrow(GetCommandLineW()) + "\n" + Narrow(directory)));
}

// An empty command line fails at once in every form, without an event and with
// the last error untouched; starts that cannot create a process give 0, keep
// the platform's error and report 2106 with the system's text of that error.
TEST(StartCommand, FailedStarts) {
    const std::string missingDir = "C:\\kvt-no-such-dir-4711";
    const struct {
        std::string commandLine, directory;
        int form;                  // 5, 4 or 1 arguments
        DWORD error, alsoAccepted; // Wine says 2 where Windows says 3
    } cases[] = {{"", "", 5, 0xBAD, 0},
                 {"", "", 1, 0xBAD, 0},
                 {kMissing, "", 4, ERROR_FILE_NOT_FOUND, 0},
                 {kMissing + std::string(" \"a b\" c"), "", 1, ERROR_FILE_NOT_FOUND, 0},
                 {missingDir + "\\x.exe", "", 5, ERROR_PATH_NOT_FOUND, ERROR_FILE_NOT_FOUND},
                 {"cmd.exe /c exit 0", missingDir, 5, ERROR_DIRECTORY, 0}};
    for (const auto& c : cases) {
        ReportLines lines(true);
        HANDLE process = c.form == 5 ? reinterpret_cast<HANDLE>(1) : nullptr;
        SetLastError(0xBAD);
        const Str line(c.commandLine.c_str());
        EXPECT_FALSE(c.form == 5   ? StartCommand(line, c.directory.c_str(), true, true, &process)
                     : c.form == 4 ? StartCommand(line, c.directory.c_str(), false, true)
                                   : StartCommand(line));
        const DWORD error = GetLastError();
        EXPECT_EQ(process, nullptr);
        EXPECT_TRUE(error == c.error || error == c.alsoAccepted) << error;
        EXPECT_EQ(lines.Take(), c.commandLine.empty()
                                    ? ""
                                    : kFailed + "  command: " + c.commandLine +
                                          "\n  error: " + PlatformErrorText(error) + "\n");
    }
}

// The child sees the command line exactly as given (quotes, blanks, non-ASCII),
// the start-up flags of the show flag and the working directory. Console
// programs never reach input idle: the foreground wait must not cost its 5 s.
// The handle handed out belongs to the new process. The one-argument form goes
// through the hook when one is set; the others never do.
TEST(StartCommand, ChildSeesCommandLineFlagsAndDirectoryAndTheHook) {
    testsupport::ScratchDir scratch(L"process-echo"), work(L"process-work dir \u00fc");
    const std::wstring output = scratch.Join(L"echo.txt");
    SetEnvironmentVariableW(L"KVT_PROCESS_OUTPUT", output.c_str());
    wchar_t here[MAX_PATH], full[MAX_PATH]; // the directories in the form the child sees
    GetCurrentDirectoryW(MAX_PATH, here);
    GetFullPathNameW(work.Path().c_str(), MAX_PATH, full, nullptr);
    const struct {
        std::string extra;
        bool show, foreground;
        std::string directory, flagsAndShow;
    } cases[] = {{"", true, false, "", "65 5"},
                 {" \"a b\"  c\\\"d \"\" \u00fc\u20ac 'q'   ", false, true, Narrow(full), "129 0"},
                 {"", true, true, Narrow(full), "65 5"}};
    for (const auto& c : cases) {
        ReportLines lines(true);
        DeleteFileW(output.c_str());
        HANDLE process = nullptr;
        const std::string commandLine = ChildCommand(c.extra);
        const auto start = std::chrono::steady_clock::now();
        const uint32_t id = StartCommand(Str(commandLine.c_str()), c.directory.c_str(), c.show,
                                         c.foreground, &process);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        const UniqueHandle owner(process);
        ASSERT_NE(id, 0u);
        EXPECT_LT(took.count(), 2.5);
        EXPECT_EQ(GetProcessId(process), id);
        DWORD code = 1;
        WaitForSingleObject(process, 15000);
        EXPECT_TRUE(GetExitCodeProcess(process, &code) && code == 0);
        std::string echo;
        ASSERT_TRUE(testsupport::ReadFileBytes(output, echo));
        EXPECT_EQ(echo, c.flagsAndShow + "\n" + commandLine + "\n" +
                            (c.directory.empty() ? Narrow(here) : c.directory));
        EXPECT_EQ(lines.Take(), kSucceeded + "  command: " + commandLine +
                                    "\n  processid: " + std::to_string(id) + "\n");
    }
}

// With LOGTYPE=stdout each event is one JSON record on standard output.
TEST(StartCommand, EventsAreJsonRecordsOnStdout) {
    const testsupport::ProcessResult result = testsupport::RunProcess(
        testsupport::Widen(ChildCommand()), L"KVT_PROCESS_CHILD=events\nLOGTYPE=stdout", 30000);
    ASSERT_TRUE(result.started);
    EXPECT_EQ(result.exitCode, 0u) << result.out << result.err;
    const size_t pid = result.err.find("pid=");
    ASSERT_NE(pid, result.err.npos) << result.err;
    nlohmann::json records = nlohmann::json::array();
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);)
        if (line[0] == '{')
            records.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(records.size(), 2u) << result.out;
    // clang-format off
    const nlohmann::json expected[] = {
        {{"message", "QELGUI-02105: Command start succeeded"}, {"command", "cmd.exe /c exit 0"},
         {"level", "notice"}, {"processid", strtoul(&result.err[pid + 4], nullptr, 10)}},
        {{"message", "QELGUI-02106: Command start failed"}, {"level", "warning"},
         {"command", kMissing}, {"error", PlatformErrorText(ERROR_FILE_NOT_FOUND)}}};
    // clang-format on
    for (size_t i = 0; i < 2; ++i)
        for (const auto& [name, value] : expected[i].items())
            EXPECT_EQ(records[i].value(name, nlohmann::json()), value) << name;
    EXPECT_FALSE(records[1].contains("processid"));
}
