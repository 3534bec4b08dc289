// The service's own package and the policy template as administrators use them:
// real msiexec, the real service manager, signed packages, in a prefix made fresh
// for this run. The tests build on each other in the order written.
#include <gtest/gtest.h>

#include <windows.h>

#include <msi.h>
#include <tlhelp32.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "constants.h"
#include "handles.h"
#include "servicectl.h"
#include "testca.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

const wchar_t kService[] = L"KORVANTACLOUDUS";
const std::wstring kFolder = L"C:\\Program Files\\Korvanta\\Cloud";
const std::wstring kExe = kFolder + L"\\KorvantaCloudUS.exe";
const std::wstring kDrop = L"C:\\ProgramData\\korvanta.plugin";
const std::wstring kUpdate = L"C:\\Program Files\\Korvanta\\Update";
const wchar_t kEventSource[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\"
                               L"Korvanta Cloud Client Update Service";

std::wstring Package(const std::wstring& name) {
    return FixturePath(L"packaging\\" + name);
}
const std::wstring kSigned = Package(L"KorvantaCloudUS.msi"),
                   kOlder = Package(L"KorvantaCloudUS-older.msi");

std::string Bytes(const std::wstring& path) {
    std::string bytes;
    return ReadFileBytes(path, bytes) ? bytes : "(missing)";
}

// msiexec /qn, once the installers the service started have ended (they would
// hold the installer's lock).
DWORD Msiexec(const std::wstring& arguments) {
    for (ULONGLONG end = GetTickCount64() + 60000; GetTickCount64() < end; Sleep(200)) {
        UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
        PROCESSENTRY32W entry = {};
        entry.dwSize = sizeof entry;
        bool busy = false;
        for (BOOL more = Process32FirstW(snapshot.Get(), &entry); more && !busy;
             more = Process32NextW(snapshot.Get(), &entry))
            busy = _wcsicmp(entry.szExeFile, L"msiexec.exe") == 0;
        if (!busy)
            break;
    }
    return RunProcess(L"msiexec.exe /qn " + arguments, L"", 120000).exitCode;
}

// The registration as the service manager shows it, one field per line.
std::string Registration() {
    UniqueServiceHandle manager(OpenManager());
    UniqueServiceHandle service(OpenServiceW(manager.Get(), kService, SERVICE_QUERY_CONFIG));
    alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192];
    auto* c = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
    DWORD needed = 0;
    if (!service || !QueryServiceConfigW(service.Get(), c, sizeof buffer, &needed))
        return "(no registration: " + std::to_string(GetLastError()) + ")";
    return "type " + std::to_string(c->dwServiceType) + "\nstart " +
           std::to_string(c->dwStartType) + "\nerrors " + std::to_string(c->dwErrorControl) +
           "\npath " + Narrow(c->lpBinaryPathName) + "\naccount " + Narrow(c->lpServiceStartName) +
           "\nname " + Narrow(c->lpDisplayName);
}

// The versions of the installed builds of the service's package.
std::vector<std::string> InstalledBuilds() {
    std::vector<std::string> versions;
    wchar_t code[39];
    for (DWORD i = 0;
         MsiEnumRelatedProductsW(L"{6D1E7C52-3B8F-4C27-9A61-0F2B5E8D4A13}", 0, i, code) == 0; ++i) {
        wchar_t version[64];
        DWORD size = 64;
        MsiGetProductInfoW(code, INSTALLPROPERTY_VERSIONSTRING, version, &size);
        versions.push_back(Narrow(version));
    }
    return versions;
}

// Starts the installed service; returns its process (null on failure).
HANDLE StartService() {
    UniqueServiceHandle manager(OpenManager());
    UniqueServiceHandle service(OpenServiceW(manager.Get(), kService, SERVICE_ALL_ACCESS));
    if (!service || !StartServiceW(service.Get(), 0, nullptr) ||
        !WaitForServiceState(service.Get(), SERVICE_RUNNING, 20000))
        return nullptr;
    return OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE,
                       ServiceProcessId(service.Get()));
}

} // namespace

TEST(Package, InstallRegistersTheServiceAsInstallDoes) {
    ASSERT_TRUE(TrustTestCa());
    // What "install" registers for the same file in the same place.
    CreateDirectoryW(L"C:\\Program Files\\Korvanta", nullptr);
    CreateDirectoryW(kFolder.c_str(), nullptr);
    ASSERT_TRUE(CopyFileW(Env(L"KVT_SERVICE_EXE").c_str(), kExe.c_str(), FALSE));
    ASSERT_EQ(RunProcess(L"\"" + kExe + L"\" install").exitCode, 0u);
    const std::string byInstall = Registration();
    ASSERT_NE(byInstall.find("path " + Narrow(kExe) + "\n"), std::string::npos) << byInstall;
    RemoveService(kService);
    RemoveTree(L"C:\\Program Files\\Korvanta");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kEventSource); // written at every start of the executable

    ASSERT_EQ(Msiexec(L"/i \"" + kSigned + L"\""), 0u);
    EXPECT_EQ(Registration(), byInstall);
    EXPECT_EQ(Bytes(kExe), Bytes(Env(L"KVT_SERVICE_EXE")));
    // The event source, removed with the package, names the installed file.
    for (const wchar_t* value : {L"EventMessageFile", L"CategoryMessageFile"})
        EXPECT_EQ(ReadRegistryString(HKEY_LOCAL_MACHINE, kEventSource, value), kExe);
    EXPECT_EQ(InstalledBuilds(), std::vector<std::string>{kServiceVersion});
}

TEST(Package, PushedPackageIsInstalledThroughTheInstalledService) {
    const UniqueHandle process(StartService());
    ASSERT_TRUE(process);
    wchar_t image[MAX_PATH];
    DWORD size = MAX_PATH;
    ASSERT_TRUE(QueryFullProcessImageNameW(process.Get(), 0, image, &size));
    EXPECT_EQ(_wcsicmp(image, kExe.c_str()), 0) << Narrow(image);

    ScratchDir scratch(L"package");
    const std::wstring pushed = scratch.Join(L"pushed.msi");
    ASSERT_TRUE(CopyFileW(FixturePath(L"signed-korvanta.msi").c_str(), pushed.c_str(), FALSE));
    const ProcessResult r = RunProcess(L"\"" + Env(L"KVT_BUILD_DIR") +
                                           L"\\clients\\tools\\pushupdate\\pushupdate.exe\" \"" +
                                           pushed + L"\" --timeout 60",
                                       L"", 90000);
    EXPECT_EQ(r.exitCode, 0u) << r.out << r.err;
    EXPECT_TRUE(WaitForPath(L"C:\\Program Files (x86)\\KorvantaTest\\Fixture\\payload.txt", 30000));
}

// The policy as Group Policy writes it from the template (the checker's reading of
// the ADMX), while requests wait in the drop directory: off leaves them untouched,
// on answers every one of them.
TEST(Package, TemplatePolicySwitchesThePassOffAndOn) {
    std::string text;
    ASSERT_TRUE(ReadFileBytes(FixturePath(L"policies.json"), text));
    nlohmann::json policy;
    for (const auto& p : nlohmann::json::parse(text))
        if (p["valueName"] == "AUTOUPDATE")
            policy = p;
    ASSERT_TRUE(policy.is_object()) << text;
    const HKEY root = policy["class"] == "User" ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
    const std::wstring key = Widen(policy["key"]), name = L"AUTOUPDATE";
    const UniqueHandle push(
        OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\com.korvanta.updateservice.msipush"));
    ASSERT_TRUE(push);
    const struct {
        const char* name;
        DWORD type; // REG_NONE: the value removed (not configured); REG_SZ: "1"
        DWORD number;
        bool on;
    } rows[] = {{"disabled", REG_DWORD, policy["disabled"], false},
                {"a text value reads as 0", REG_SZ, 0, false},
                {"enabled", REG_DWORD, policy["enabled"], true},
                {"disabled again", REG_DWORD, policy["disabled"], false},
                {"not configured", REG_NONE, 0, true}};
    std::vector<std::wstring> waiting;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const LONG set =
            row.type == REG_DWORD ? RegSetKeyValueW(root, key.c_str(), name.c_str(), REG_DWORD,
                                                    &row.number, sizeof row.number)
            : row.type == REG_SZ ? RegSetKeyValueW(root, key.c_str(), name.c_str(), REG_SZ, L"1", 4)
                                 : RegDeleteKeyValueW(root, key.c_str(), name.c_str());
        ASSERT_EQ(set, ERROR_SUCCESS);
        waiting.push_back(kDrop + L"\\policy " + std::to_wstring(&row - rows));
        ASSERT_TRUE(CopyFileW(FixturePath(L"signed-korvanta.msi").c_str(),
                              (waiting.back() + L".msi").c_str(), FALSE));
        ASSERT_TRUE(WriteFileBytes(waiting.back() + L".pending", ""));
        ASSERT_TRUE(SetEvent(push.Get()));
        if (!row.on)
            Sleep(3000);
        for (const std::wstring& request : waiting) {
            const std::wstring result = kUpdate + request.substr(kDrop.size()) + L".result";
            std::string answer;
            if (!row.on)
                EXPECT_TRUE(PathExists(request + L".pending") && PathExists(request + L".msi") &&
                            !PathExists(result))
                    << Narrow(request);
            else
                EXPECT_TRUE(WaitForPath(result, 20000) &&
                            (Sleep(200), ReadFileBytes(result, answer)) &&
                            answer.starts_with("1|") && answer.ends_with(": 0"))
                    << Narrow(request) << ": " << answer;
        }
        if (row.on)
            waiting.clear();
    }
}

TEST(Package, UninstallRemovesServiceAndFileAndKeepsResults) {
    UniqueServiceHandle manager(OpenManager());
    UniqueServiceHandle service(OpenServiceW(manager.Get(), kService, SERVICE_QUERY_STATUS));
    const UniqueHandle process(OpenProcess(SYNCHRONIZE, FALSE, ServiceProcessId(service.Get())));
    ASSERT_TRUE(process) << "the service is not running";
    service.Reset();
    std::vector<std::wstring> results;
    WIN32_FIND_DATAW found;
    const HANDLE find = FindFirstFileW((kUpdate + L"\\*.result").c_str(), &found);
    for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &found))
        results.push_back(kUpdate + L"\\" + found.cFileName);
    FindClose(find);
    ASSERT_FALSE(results.empty());

    ASSERT_EQ(Msiexec(L"/x \"" + kSigned + L"\""), 0u);
    EXPECT_EQ(WaitForSingleObject(process.Get(), 10000), WAIT_OBJECT_0) << "service still running";
    EXPECT_EQ(Registration(), "(no registration: 1060)");
    EXPECT_FALSE(PathExists(kExe) || PathExists(kFolder));
    HKEY source = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kEventSource, 0, KEY_READ, &source),
              ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(InstalledBuilds().empty());
    // The clients' answers and the drop directory are not the package's.
    for (const std::wstring& result : results)
        EXPECT_TRUE(PathExists(result)) << Narrow(result);
    EXPECT_TRUE(PathExists(kDrop));
}

TEST(Package, UpgradeReplacesTheStoppedExecutableAndKeepsOneRegistration) {
    ASSERT_EQ(Msiexec(L"/i \"" + kOlder + L"\""), 0u);
    ASSERT_EQ(Bytes(kExe), Bytes(Package(L"older\\KorvantaCloudUS.exe")));
    const std::string registration = Registration();
    const UniqueHandle process(StartService());
    ASSERT_TRUE(process);

    // A newer version over it, then another build of the same version (the build's own).
    for (const std::wstring& package :
         {kSigned, Env(L"KVT_BUILD_DIR") + L"\\packaging\\KorvantaCloudUS.msi"}) {
        SCOPED_TRACE(Narrow(package));
        ASSERT_EQ(Msiexec(L"/i \"" + package + L"\""), 0u);
        EXPECT_EQ(WaitForSingleObject(process.Get(), 0), WAIT_OBJECT_0) << "older build running";
        EXPECT_EQ(Registration(), registration);
        EXPECT_EQ(Bytes(kExe), Bytes(Env(L"KVT_SERVICE_EXE")));
        EXPECT_EQ(InstalledBuilds(), std::vector<std::string>{kServiceVersion});
    }
    // An older build does not go over a newer one.
    EXPECT_NE(Msiexec(L"/i \"" + kOlder + L"\""), 0u);
    EXPECT_EQ(Bytes(kExe), Bytes(Env(L"KVT_SERVICE_EXE")));
    EXPECT_EQ(InstalledBuilds(), std::vector<std::string>{kServiceVersion});
    EXPECT_EQ(Msiexec(L"/x \"" + Env(L"KVT_BUILD_DIR") + L"\\packaging\\KorvantaCloudUS.msi\""),
              0u);
}
