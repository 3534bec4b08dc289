// The executable from the outside: exit codes, the install banner, event
// records on standard output or error, installation and the derived names.
#include <gtest/gtest.h>

#include <windows.h>

#include <nlohmann/json.hpp>

#include <future>
#include <string>
#include <vector>

#include "handles.h"
#include "host.h"
#include "servicectl.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

const char kBanner[] = "\r\nInstalling [Korvanta Cloud Client Update Service (24.7.0.57)].\r\n";
const wchar_t kEventLogKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Korvanta Cloud Client Update "
    L"Service";

// A copy of the executable under another name, in a directory of its own.
std::wstring CopyExe(const ScratchDir& scratch, const std::wstring& dir, const std::wstring& name) {
    CreateDirectoryW(scratch.Join(dir).c_str(), nullptr);
    const std::wstring path = scratch.Join(dir + L"\\" + name);
    CopyFileW(Env(L"KVT_SERVICE_EXE").c_str(), path.c_str(), FALSE);
    return path;
}

ProcessResult RunExe(const std::wstring& exe, const std::wstring& arguments,
                     const std::wstring& environment = L"LOGTYPE=") {
    return RunProcess(L"\"" + exe + L"\" " + arguments, environment);
}

std::string SystemText(DWORD code) {
    char text[512] = {};
    FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                       FORMAT_MESSAGE_MAX_WIDTH_MASK,
                   nullptr, code, 0, text, sizeof text, nullptr);
    const std::string line(text);
    return line.substr(0, line.find_last_not_of(" \r\n") + 1);
}

} // namespace

// Started from a console, the service dispatcher fails (under Wine only after
// about ten seconds), so every console start of this file runs in one batch.
TEST(Entry, ConsoleStartsReportTheDispatcherFailure) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kEventLogKey);
    const std::string expected =
        "Function [StartServiceCtrlDispatcher] failed with code [00000427]: " + SystemText(1063) +
        ".";
    const struct {
        const wchar_t* arguments;
        const wchar_t* logType;
        int stream; // 0 no record expected, 1 standard output, 2 standard error
        // clang-format off
    } cases[] = {
        {L"", L"", 0}, {L"", L"stdout", 1}, {L"", L"STDOUT", 1}, {L"", L"stderr", 2},
        {L"install2", L"stdout", 1}, {L"/install", L"stdout", 1}, {L"\"install \"", L"stdout", 1},
        {L"run install", L"stdout", 1}};
    // clang-format on
    std::vector<std::future<ProcessResult>> runs;
    for (const auto& c : cases)
        runs.push_back(std::async(std::launch::async, RunExe, Env(L"KVT_SERVICE_EXE"),
                                  std::wstring(c.arguments),
                                  L"LOGTYPE=" + std::wstring(c.logType)));
    for (size_t i = 0; i < runs.size(); ++i) {
        const auto& c = cases[i];
        const ProcessResult r = runs[i].get();
        SCOPED_TRACE(Narrow(c.arguments) + " " + Narrow(c.logType));
        EXPECT_EQ(r.exitCode, 1u);
        EXPECT_EQ(r.out.empty(), c.stream != 1) << r.out;
        if (c.stream == 0)
            continue;
        const std::vector<std::string> lines = SplitLines(c.stream == 1 ? r.out : r.err);
        ASSERT_EQ(lines.size(), 1u) << r.out << r.err;
        const auto record = nlohmann::ordered_json::parse(lines[0]);
        auto field = record.begin();
        for (const char* key : {"@timestamp", "level", "message"})
            ASSERT_EQ((field++).key(), key);
        EXPECT_EQ(record["level"], "err");
        EXPECT_EQ(record["message"], expected);
        // The entry point's version, and this process's id, come with the record.
        EXPECT_EQ(record["version"], "24.7.0.57");
        EXPECT_TRUE(record["processid"].is_number());
    }

    // Every start registered the event source with the executable's path.
    for (const wchar_t* name :
         {L"TypesSupported", L"CategoryCount", L"CategoryMessageFile", L"EventMessageFile"}) {
        const bool number = wcsstr(name, L"File") == nullptr;
        DWORD data[300] = {}, bytes = sizeof data, type = 0; // data: a number or a path
        EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, kEventLogKey, name, RRF_RT_ANY | RRF_NOEXPAND,
                               &type, data, &bytes),
                  ERROR_SUCCESS);
        EXPECT_EQ(type, static_cast<DWORD>(number ? REG_DWORD : REG_SZ)) << Narrow(name);
        if (number)
            EXPECT_EQ(data[0], 7u) << Narrow(name);
        else
            EXPECT_STRCASEEQ(Narrow(reinterpret_cast<const wchar_t*>(data)).c_str(),
                             Narrow(Env(L"KVT_SERVICE_EXE")).c_str());
    }
}

TEST(Entry, InstallInAnyCaseRenamedCopiesAndLimitServiceText) {
    ScratchDir scratch(L"entry");
    const struct {
        const wchar_t* fileName;
        const wchar_t* serviceName;
        const wchar_t* arguments;
        // clang-format off
    } cases[] = {
        {L"KvtCase.exe", L"KVTCASE", L"install"}, {L"KvtCase.exe", L"KVTCASE", L"INSTALL"},
        {L"KvtCase.exe", L"KVTCASE", L"Install"}, {L"my.service.exe", L"MY.SERVICE", L"install"},
        {L".exe", L".EXE", L"install"}, {L"kvt\u00e4.exe", L"KVT\u00c4", L"install"},
        // U+0250 upper-cases to U+2C6F (three UTF-8 bytes instead of two): kept as it is.
        {L"kvt\u0250.exe", L"KVT\u0250", L"install"}};
    // clang-format on
    UniqueServiceHandle manager(OpenManager());
    for (const auto& c : cases) {
        SCOPED_TRACE(Narrow(c.fileName) + " " + Narrow(c.arguments));
        RemoveService(c.serviceName);
        const ProcessResult r =
            RunExe(CopyExe(scratch, c.serviceName, c.fileName), c.arguments, L"LOGTYPE=stdout");
        EXPECT_EQ(r.exitCode, 0u);
        // The banner, then the success as an information event.
        ASSERT_EQ(r.out.substr(0, sizeof kBanner - 1), kBanner);
        const auto record = nlohmann::json::parse(r.out.substr(sizeof kBanner - 1));
        EXPECT_EQ(record["level"], "info");
        EXPECT_EQ(record["message"], "Korvanta Cloud Client Update Service (24.7.0.57) installed.");
        EXPECT_TRUE(
            UniqueServiceHandle(OpenServiceW(manager.Get(), c.serviceName, SERVICE_ALL_ACCESS)));
        RemoveService(c.serviceName);
    }
    const auto limit = [](size_t base, const wchar_t* suffix) {
        const WStr joined = LimitServiceText(WStr(std::wstring(base, L'x').c_str()), WStr(suffix));
        return std::wstring(joined.Text(), joined.Length());
    };
    const std::wstring suffix = L" (24.7.0.57)"; // 12 characters
    EXPECT_EQ(limit(242, suffix.c_str()), std::wstring(242, L'x') + suffix);
    // 243 + 12 = 255 is not below 255: the whole suffix goes.
    EXPECT_EQ(limit(243, suffix.c_str()), std::wstring(243, L'x'));
    EXPECT_EQ(limit(300, suffix.c_str()), std::wstring(255, L'x'));
    EXPECT_STREQ(ServiceNameFromPath(WStr(L"C:\\x.y\\noext")).Text(), L"NOEXT");
    EXPECT_STREQ(
        ServiceNameFromPath(WStr((L"C:\\x\\" + std::wstring(300, L'a') + L".exe").c_str())).Text(),
        std::wstring(255, L'A').c_str());
}

TEST(Install, RegistersUnquotedFromAPathWithBlanksAndRefusesASecondTime) {
    RemoveService(L"KORVANTACLOUDUS");
    ScratchDir scratch(L"entry");
    const std::wstring exe = CopyExe(scratch, L"folder with blanks", L"KorvantaCloudUS.exe");
    const ProcessResult first = RunExe(exe, L"install");
    EXPECT_EQ(first.out, kBanner);
    EXPECT_EQ(first.exitCode, 0u);

    UniqueServiceHandle manager(OpenManager());
    UniqueServiceHandle service(
        OpenServiceW(manager.Get(), L"KORVANTACLOUDUS", SERVICE_ALL_ACCESS));
    ASSERT_TRUE(service);
    // The second run prints the banner, fails with ERROR_SERVICE_EXISTS and changes nothing.
    const ProcessResult second = RunExe(exe, L"install", L"LOGTYPE=stdout");
    EXPECT_EQ(second.exitCode, 1u);
    EXPECT_EQ(second.out.substr(0, sizeof kBanner - 1), kBanner);
    EXPECT_NE(second.out.find("Function [CreateService] failed with code [00000431]"),
              std::string::npos)
        << second.out;
    std::vector<BYTE> buffer(8192);
    DWORD needed = 0;
    auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    ASSERT_TRUE(QueryServiceConfigW(service.Get(), config, 8192, &needed));
    EXPECT_EQ(config->dwServiceType, 0x10u);
    EXPECT_EQ(config->dwStartType, 3u);
    EXPECT_EQ(config->dwErrorControl, 1u);
    EXPECT_STREQ(config->lpBinaryPathName, exe.c_str()); // unquoted
    EXPECT_STREQ(config->lpDisplayName, L"Korvanta Cloud Client Update Service");
    const std::wstring account = config->lpServiceStartName ? config->lpServiceStartName : L"";
    EXPECT_TRUE(account.empty() || _wcsicmp(account.c_str(), L"LocalSystem") == 0)
        << Narrow(account);

    // The product runs under the manager: start, pause, continue, stop.
    ASSERT_TRUE(StartServiceW(service.Get(), 0, nullptr)) << GetLastError();
    EXPECT_TRUE(WaitForServiceState(service.Get(), SERVICE_RUNNING, 20000));
    const DWORD steps[][2] = {{SERVICE_CONTROL_PAUSE, SERVICE_PAUSED},
                              {SERVICE_CONTROL_CONTINUE, SERVICE_RUNNING},
                              {SERVICE_CONTROL_STOP, SERVICE_STOPPED}};
    SERVICE_STATUS status{};
    SERVICE_STATUS_PROCESS last{};
    for (const auto& step : steps) {
        EXPECT_TRUE(ControlService(service.Get(), step[0], &status)) << step[0];
        EXPECT_TRUE(WaitForServiceState(service.Get(), step[1], 10000, &last)) << step[0];
    }
    EXPECT_EQ(last.dwWin32ExitCode, 0u);
    service.Reset();
    RemoveService(L"KORVANTACLOUDUS");
}
