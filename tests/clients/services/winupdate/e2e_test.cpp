// End to end: the installed service under the real service manager, packages
// pushed with the client tool, real signatures and real msiexec.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "handles.h"
#include "servicectl.h"
#include "testca.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

const wchar_t kServiceName[] = L"KORVANTACLOUDUS";
const wchar_t kDrop[] = L"C:\\ProgramData\\korvanta.plugin";
const wchar_t kUpdate[] = L"C:\\Program Files\\Korvanta\\Update";

std::wstring PushTool() {
    return Env(L"KVT_BUILD_DIR") + L"\\clients\\tools\\pushupdate\\pushupdate.exe";
}

class EndToEnd : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        RemoveService(kServiceName);
        RemoveTree(kDrop);
        RemoveTree(kUpdate);
        ASSERT_TRUE(TrustTestCa());
        const ProcessResult install = RunProcess(L"\"" + Env(L"KVT_SERVICE_EXE") + L"\" install");
        ASSERT_EQ(install.exitCode, 0u) << install.out << install.err;
        s_manager.Reset(OpenManager());
        s_service.Reset(OpenServiceW(s_manager.Get(), kServiceName, SERVICE_ALL_ACCESS));
        ASSERT_TRUE(s_service);
        ASSERT_TRUE(StartServiceW(s_service.Get(), 0, nullptr)) << GetLastError();
        ASSERT_TRUE(WaitForServiceState(s_service.Get(), SERVICE_RUNNING, 20000));
    }
    static void TearDownTestSuite() {
        s_service.Reset();
        s_manager.Reset();
        RemoveService(kServiceName);
    }

    static ProcessResult Push(const std::wstring& package) {
        return RunProcess(L"\"" + PushTool() + L"\" \"" + package + L"\" --timeout 60", L"", 90000);
    }

    static UniqueServiceHandle s_manager;
    static UniqueServiceHandle s_service;
};

UniqueServiceHandle EndToEnd::s_manager;
UniqueServiceHandle EndToEnd::s_service;

std::wstring ReadInstallerRecord() {
    return ReadRegistryString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Korvanta\\WebClient\\Setups\\Cloud",
                              L"UpdateInstaller");
}

} // namespace

TEST_F(EndToEnd, SignedPackageIsInstalledFromTheUpdateDirectory) {
    ScratchDir scratch(L"e2e");
    const std::wstring name = L"E2E Gr\u00fc\u00dfe \u03a9";
    const std::wstring package = scratch.Join(name + L".msi");
    ASSERT_TRUE(MakeFixturePackage(name, L"korvanta", package));

    const ProcessResult r = Push(package);
    EXPECT_EQ(r.exitCode, 0u) << r.out << r.err;
    EXPECT_NE(r.out.find("1|"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(": 0"), std::string::npos) << r.out;

    const std::wstring moved = std::wstring(kUpdate) + L"\\" + name + L".msi";
    EXPECT_TRUE(PathExists(moved));
    EXPECT_EQ(ReadInstallerRecord(), moved);
    EXPECT_FALSE(PathExists(std::wstring(kDrop) + L"\\" + name + L".msi"));
    EXPECT_FALSE(PathExists(std::wstring(kDrop) + L"\\" + name + L".pending"));

    // msiexec installs the payload; the product name keeps Windows-1252 characters only.
    const std::wstring payload =
        L"C:\\Program Files (x86)\\KorvantaTest\\E2E Gr\u00fc\u00dfe _\\payload.txt";
    ASSERT_TRUE(WaitForPath(payload, 30000)) << Narrow(payload);
    std::string text;
    ASSERT_TRUE(ReadFileBytes(payload, text));
    EXPECT_EQ(text.rfind("Korvanta test payload", 0), 0u) << text;
}

TEST_F(EndToEnd, EveryPackageGetsItsCodeAndRefusedOnesAreGone) {
    ScratchDir scratch(L"e2e");
    const struct {
        const wchar_t* stem;
        const wchar_t* fixture;
        DWORD code;
    } cases[] = {
        {L"e2e organisational unit", L"signed-ou.msi", 0},
        {L"e2e lower case", L"signed-lower.msi", 5},
        {L"e2e trailing blank", L"signed-blank.msi", 5},
        {L"e2e unsigned \u00e4", L"unsigned.msi", 6},
        {L"e2e damaged", L"damaged-signature.msi", 6},
    };
    for (const auto& c : cases) {
        const std::wstring package = scratch.Join(std::wstring(c.stem) + L".msi");
        ASSERT_TRUE(CopyFileW(FixturePath(c.fixture).c_str(), package.c_str(), FALSE));
        const ProcessResult r = Push(package);
        EXPECT_EQ(r.exitCode, c.code) << Narrow(c.stem) << r.out << r.err;
        EXPECT_FALSE(PathExists(std::wstring(kDrop) + L"\\" + c.stem + L".msi")) << Narrow(c.stem);
        EXPECT_FALSE(PathExists(std::wstring(kDrop) + L"\\" + c.stem + L".pending"))
            << Narrow(c.stem);
        EXPECT_EQ(PathExists(std::wstring(kUpdate) + L"\\" + c.stem + L".msi"), c.code == 0)
            << Narrow(c.stem);
    }
}

TEST_F(EndToEnd, RequestWithoutPackageLeavesAMarkerThatTheNextPassRemoves) {
    const std::wstring stem = L"e2e no package";
    const std::wstring result = std::wstring(kUpdate) + L"\\" + stem + L".result";
    const std::wstring marker = std::wstring(kDrop) + L"\\" + stem + L".removepending";
    DeleteFileW(result.c_str());
    CreateDirectoryW(kDrop, nullptr);
    ASSERT_TRUE(WriteFileBytes(std::wstring(kDrop) + L"\\" + stem + L".pending", ""));
    UniqueHandle push(
        OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\com.korvanta.updateservice.msipush"));
    ASSERT_TRUE(push);
    SetEvent(push.Get());
    ASSERT_TRUE(WaitForPath(result, 20000));
    Sleep(200);
    std::string text;
    ASSERT_TRUE(ReadFileBytes(result, text));
    EXPECT_EQ(text.substr(0, 2), "0|") << text;
    EXPECT_EQ(text.substr(text.size() - 3), ": 7") << text;
    EXPECT_TRUE(PathExists(marker));
    EXPECT_FALSE(PathExists(std::wstring(kDrop) + L"\\" + stem + L".pending"));

    SetEvent(push.Get());
    const ULONGLONG deadline = GetTickCount64() + 20000;
    while (PathExists(marker) && GetTickCount64() < deadline)
        Sleep(100);
    EXPECT_FALSE(PathExists(marker));
}
