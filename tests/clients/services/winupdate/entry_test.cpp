// The executable from the outside: exit codes, the install banner, event
// records on standard output or error, installation and the derived names.
#include <gtest/gtest.h>

#include <windows.h>

#include <nlohmann/json.hpp>

#include <string>
#include <thread>
#include <vector>

#include "handles.h"
#include "host.h"
#include "servicectl.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

const char kBanner[] = "\r\nInstalling [Korvanta Cloud Client Update Service (24.7.0.57)].\r\n";
const char kEventLogKey[] =
    "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Korvanta Cloud Client Update "
    "Service";

std::wstring ServiceExe() {
    return Env(L"KVT_SERVICE_EXE");
}

// A copy of the executable under another name, in a directory of its own.
class ExeCopy {
  public:
    ExeCopy(const std::wstring& directoryName, const std::wstring& fileName) : m_dir(L"entry") {
        const std::wstring dir = m_dir.Join(directoryName);
        CreateDirectoryW(dir.c_str(), nullptr);
        m_path = dir + L"\\" + fileName;
        CopyFileW(ServiceExe().c_str(), m_path.c_str(), FALSE);
    }
    const std::wstring& Path() const { return m_path; }

  private:
    ScratchDir m_dir;
    std::wstring m_path;
};

ProcessResult RunExe(const std::wstring& exe, const std::wstring& arguments,
                     const std::wstring& environment = L"LOGTYPE=") {
    return RunProcess(L"\"" + exe + L"\"" + (arguments.empty() ? L"" : L" " + arguments),
                      environment);
}

std::string SystemText(DWORD code) {
    wchar_t* buffer = nullptr;
    const DWORD n =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                           FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
                       nullptr, code, 0, reinterpret_cast<LPWSTR>(&buffer), 0, nullptr);
    std::wstring text(buffer, n);
    LocalFree(buffer);
    while (!text.empty() && iswspace(text.back()))
        text.pop_back();
    return Narrow(text);
}

} // namespace

// Started from a console, the service dispatcher fails (under Wine only after
// about ten seconds), so every console start of this file runs in one batch.
TEST(Entry, ConsoleStartsReportTheDispatcherFailure) {
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, kEventLogKey);
    const std::string expected = "Function [StartServiceCtrlDispatcher] failed with code "
                                 "[00000427]: " +
                                 SystemText(1063) + ".";
    struct Case {
        const wchar_t* arguments;
        const wchar_t* environment;
        int stream; // 0 no record expected, 1 standard output, 2 standard error
        ProcessResult result;
    };
    Case cases[] = {
        {L"", L"LOGTYPE=", 0, {}},
        {L"", L"LOGTYPE=stdout", 1, {}},
        {L"", L"LOGTYPE=STDOUT", 1, {}},
        {L"", L"LOGTYPE=stderr", 2, {}},
        {L"install2", L"LOGTYPE=stdout", 1, {}},
        {L"/install", L"LOGTYPE=stdout", 1, {}},
        {L"\"install \"", L"LOGTYPE=stdout", 1, {}},
        {L"run install", L"LOGTYPE=stdout", 1, {}},
    };
    std::vector<std::thread> threads;
    for (Case& c : cases)
        threads.emplace_back([&c] { c.result = RunExe(ServiceExe(), c.arguments, c.environment); });
    for (std::thread& t : threads)
        t.join();

    for (const Case& c : cases) {
        const std::string label = Narrow(c.arguments) + " " + Narrow(c.environment);
        const ProcessResult& r = c.result;
        ASSERT_TRUE(r.started) << label;
        EXPECT_EQ(r.exitCode, 1u) << label;
        EXPECT_EQ(r.out.find("Installing"), std::string::npos) << label;
        if (c.stream == 0) {
            EXPECT_EQ(r.out, "") << label;
            continue;
        }
        const std::string& stream = c.stream == 1 ? r.out : r.err;
        if (c.stream == 2) {
            EXPECT_EQ(r.out, "") << label;
        }
        const std::vector<std::string> lines = SplitLines(stream);
        ASSERT_EQ(lines.size(), 1u) << label << ": " << stream;
        const auto record = nlohmann::ordered_json::parse(lines[0]);
        auto field = record.begin();
        ASSERT_EQ(field.key(), "@timestamp") << label;
        EXPECT_EQ(field.value().get<std::string>().substr(0, 2), "20");
        ++field;
        ASSERT_EQ(field.key(), "level") << label;
        EXPECT_EQ(field.value(), "err");
        ++field;
        ASSERT_EQ(field.key(), "message") << label;
        EXPECT_EQ(field.value(), expected) << label;
        EXPECT_EQ(record["version"], "24.7.0.57") << label;
        EXPECT_TRUE(record["processid"].is_number()) << label;
    }

    // Every start registered the event source with the executable's path.
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, kEventLogKey, 0, KEY_READ, &key), ERROR_SUCCESS);
    DWORD number = 0;
    DWORD size = sizeof number;
    EXPECT_EQ(RegQueryValueExA(key, "TypesSupported", nullptr, nullptr,
                               reinterpret_cast<BYTE*>(&number), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(number, 7u);
    size = sizeof number;
    EXPECT_EQ(RegQueryValueExA(key, "CategoryCount", nullptr, nullptr,
                               reinterpret_cast<BYTE*>(&number), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(number, 7u);
    for (const wchar_t* name : {L"CategoryMessageFile", L"EventMessageFile"}) {
        wchar_t text[600] = {};
        DWORD bytes = sizeof text;
        DWORD type = 0;
        EXPECT_EQ(
            RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text), &bytes),
            ERROR_SUCCESS);
        EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
        EXPECT_EQ(_wcsicmp(text, ServiceExe().c_str()), 0) << Narrow(text);
    }
    RegCloseKey(key);
}

TEST(Entry, TheWordInstallInAnyCaseInstallsAndPrintsTheBanner) {
    ExeCopy copy(L"case", L"KvtEntryCase.exe");
    for (const wchar_t* arguments : {L"install", L"INSTALL", L"Install", L"install extra"}) {
        RemoveService(L"KVTENTRYCASE");
        const ProcessResult r = RunExe(copy.Path(), arguments);
        ASSERT_TRUE(r.started);
        // Nothing else reaches standard output: success goes to the event log.
        EXPECT_EQ(r.out, kBanner) << Narrow(arguments);
        EXPECT_EQ(r.exitCode, 0u) << Narrow(arguments);
    }
    RemoveService(L"KVTENTRYCASE");
}

TEST(Entry, ServiceNameRuleFollowsTheFileName) {
    // The length rule only shows with a character the platform maps to another length.
    wchar_t upper[2] = {L'\u0250', 0};
    CharUpperW(upper);
    ASSERT_EQ(upper[0], L'\u2c6f');
    const struct {
        const wchar_t* path;
        const wchar_t* expected;
    } cases[] = {
        {L"C:\\x\\KorvantaCloudUS.exe", L"KORVANTACLOUDUS"},
        {L"C:\\x\\my.service.exe", L"MY.SERVICE"},
        {L"C:\\x\\.exe", L".EXE"},
        {L"C:\\x\\noext", L"NOEXT"},
        {L"C:\\x.y\\name", L"NAME"},
        {L"C:\\x\\s\u00e4ge.exe", L"S\u00c4GE"},
        // U+0250 upper-cases to U+2C6F, three UTF-8 bytes instead of two: kept as it is.
        {L"C:\\x\\ab\u0250.exe", L"AB\u0250"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ServiceNameFromPath(c.path), c.expected) << Narrow(c.path);
    EXPECT_EQ(ServiceNameFromPath(L"C:\\x\\" + std::wstring(300, L'a') + L".exe"),
              std::wstring(255, L'A'));
}

TEST(Entry, LimitServiceTextIsAllOrNothing) {
    const std::wstring suffix = L" (24.7.0.57)"; // 12 characters
    EXPECT_EQ(LimitServiceText(L"abc", suffix), L"abc" + suffix);
    EXPECT_EQ(LimitServiceText(std::wstring(242, L'x'), suffix), std::wstring(242, L'x') + suffix);
    // 243 + 12 = 255 is not below 255: the whole suffix goes.
    EXPECT_EQ(LimitServiceText(std::wstring(243, L'x'), suffix), std::wstring(243, L'x'));
    EXPECT_EQ(LimitServiceText(std::wstring(300, L'x'), suffix), std::wstring(255, L'x'));
    EXPECT_EQ(LimitServiceText(std::wstring(300, L'x'), L""), std::wstring(255, L'x'));
    EXPECT_EQ(GetServiceDisplayName(false), L"Korvanta Cloud Client Update Service");
    EXPECT_EQ(GetServiceDisplayName(true), L"Korvanta Cloud Client Update Service (24.7.0.57)");
}

TEST(Entry, RenamedCopiesRegisterUnderTheirOwnNames) {
    const struct {
        const wchar_t* fileName;
        const wchar_t* serviceName;
    } cases[] = {
        {L"my.service.exe", L"MY.SERVICE"},
        {L".exe", L".EXE"},
        {L"kvt\u00e4.exe", L"KVT\u00c4"},
        {L"kvt\u0250.exe", L"KVT\u0250"},
    };
    UniqueServiceHandle manager(OpenManager());
    ASSERT_TRUE(manager);
    for (const auto& c : cases) {
        RemoveService(c.serviceName);
        ExeCopy copy(L"renamed", c.fileName);
        const ProcessResult r = RunExe(copy.Path(), L"install");
        EXPECT_EQ(r.exitCode, 0u) << Narrow(c.fileName);
        UniqueServiceHandle service(OpenServiceW(manager.Get(), c.serviceName, SERVICE_ALL_ACCESS));
        EXPECT_TRUE(service) << Narrow(c.fileName) << " as " << Narrow(c.serviceName);
        service.Reset();
        RemoveService(c.serviceName);
    }
}

TEST(Install, RegistersUnquotedFromAPathWithBlanksAndRefusesASecondTime) {
    RemoveService(L"KORVANTACLOUDUS");
    ExeCopy copy(L"folder with blanks", L"KorvantaCloudUS.exe");
    const ProcessResult first = RunExe(copy.Path(), L"install");
    ASSERT_TRUE(first.started);
    EXPECT_EQ(first.out, kBanner);
    EXPECT_EQ(first.exitCode, 0u);

    UniqueServiceHandle manager(OpenManager());
    UniqueServiceHandle service(
        OpenServiceW(manager.Get(), L"KORVANTACLOUDUS", SERVICE_ALL_ACCESS));
    ASSERT_TRUE(service);
    std::vector<BYTE> buffer(8192);
    DWORD needed = 0;
    auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    ASSERT_TRUE(QueryServiceConfigW(service.Get(), config, 8192, &needed));
    EXPECT_EQ(config->dwServiceType, 0x10u);
    EXPECT_EQ(config->dwStartType, 3u);
    EXPECT_EQ(config->dwErrorControl, 1u);
    EXPECT_STREQ(config->lpBinaryPathName, copy.Path().c_str());
    EXPECT_STREQ(config->lpDisplayName, L"Korvanta Cloud Client Update Service");
    const std::wstring account = config->lpServiceStartName ? config->lpServiceStartName : L"";
    EXPECT_TRUE(account.empty() || _wcsicmp(account.c_str(), L"LocalSystem") == 0)
        << Narrow(account);

    // The second run prints the banner, fails with ERROR_SERVICE_EXISTS and changes nothing.
    const ProcessResult second = RunExe(copy.Path(), L"install", L"LOGTYPE=stdout");
    EXPECT_EQ(second.exitCode, 1u);
    EXPECT_EQ(second.out.substr(0, sizeof kBanner - 1), kBanner);
    EXPECT_NE(second.out.find("Function [CreateService] failed with code [00000431]"),
              std::string::npos)
        << second.out;
    std::vector<BYTE> again(8192);
    auto* config2 = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(again.data());
    ASSERT_TRUE(QueryServiceConfigW(service.Get(), config2, 8192, &needed));
    EXPECT_STREQ(config2->lpBinaryPathName, copy.Path().c_str());
    EXPECT_EQ(config2->dwStartType, 3u);

    // The product runs under the manager: start, pause, continue, stop.
    SERVICE_STATUS status{};
    ASSERT_TRUE(StartServiceW(service.Get(), 0, nullptr)) << GetLastError();
    EXPECT_TRUE(WaitForServiceState(service.Get(), SERVICE_RUNNING, 20000));
    EXPECT_TRUE(ControlService(service.Get(), SERVICE_CONTROL_PAUSE, &status));
    EXPECT_TRUE(WaitForServiceState(service.Get(), SERVICE_PAUSED, 10000));
    EXPECT_TRUE(ControlService(service.Get(), SERVICE_CONTROL_CONTINUE, &status));
    EXPECT_TRUE(WaitForServiceState(service.Get(), SERVICE_RUNNING, 10000));
    EXPECT_TRUE(ControlService(service.Get(), SERVICE_CONTROL_STOP, &status));
    SERVICE_STATUS_PROCESS last{};
    EXPECT_TRUE(WaitForServiceState(service.Get(), SERVICE_STOPPED, 10000, &last));
    EXPECT_EQ(last.dwWin32ExitCode, 0u);
    service.Reset();
    RemoveService(L"KORVANTACLOUDUS");
}
