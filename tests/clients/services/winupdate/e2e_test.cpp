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
const std::wstring kDrop = L"C:\\ProgramData\\korvanta.plugin";
const std::wstring kUpdate = L"C:\\Program Files\\Korvanta\\Update";

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
        ASSERT_TRUE(s_service && StartServiceW(s_service.Get(), 0, nullptr)) << GetLastError();
        ASSERT_TRUE(WaitForServiceState(s_service.Get(), SERVICE_RUNNING, 20000));
    }
    static void TearDownTestSuite() { s_service.Reset(), RemoveService(kServiceName); }

    // Pushes with the client tool, which waits for the result and exits with its code.
    static ProcessResult Push(const std::wstring& package) {
        return RunProcess(L"\"" + Env(L"KVT_BUILD_DIR") +
                              L"\\clients\\tools\\pushupdate\\pushupdate.exe\" \"" + package +
                              L"\" --timeout 60",
                          L"", 90000);
    }
    static std::wstring Drop(const std::wstring& name) { return kDrop + L"\\" + name; }
    static std::wstring Update(const std::wstring& name) { return kUpdate + L"\\" + name; }

    static inline UniqueServiceHandle s_manager, s_service;
};

} // namespace

TEST_F(EndToEnd, SignedPackageIsInstalledFromTheUpdateDirectory) {
    ScratchDir scratch(L"e2e");
    const std::wstring name = L"E2E Gr\u00fc\u00dfe \u03a9";
    const std::wstring package = scratch.Join(name + L".msi");
    ASSERT_TRUE(MakeFixturePackage(name, L"korvanta", package));

    const ProcessResult r = Push(package);
    EXPECT_EQ(r.exitCode, 0u) << r.out << r.err;
    EXPECT_TRUE(PathExists(Update(name + L".msi")));
    EXPECT_EQ(ReadRegistryString(HKEY_LOCAL_MACHINE,
                                 L"SOFTWARE\\Korvanta\\WebClient\\Setups\\Cloud",
                                 L"UpdateInstaller"),
              Update(name + L".msi"));
    EXPECT_FALSE(PathExists(Drop(name + L".msi")) || PathExists(Drop(name + L".pending")));

    // msiexec installs the payload; the product name keeps Windows-1252 characters only.
    const std::wstring payload =
        L"C:\\Program Files (x86)\\KorvantaTest\\E2E Gr\u00fc\u00dfe _\\payload.txt";
    ASSERT_TRUE(WaitForPath(payload, 30000)) << Narrow(payload);
    std::string text;
    ASSERT_TRUE(ReadFileBytes(payload, text));
    EXPECT_EQ(text.rfind("Korvanta test payload", 0), 0u) << text;
}

// The policy as the installed service reads it: a value of any type but a
// 4-byte REG_DWORD switches the pass off as 0 does; an absent value or a
// non-zero DWORD lets it run. A directory named as the package is refused with
// code 6, and its marker stays while it cannot be deleted.
TEST_F(EndToEnd, PolicyTypesAndADirectoryNamedAsThePackage) {
    const wchar_t kPolicy[] = L"SOFTWARE\\Policies\\Korvanta\\NativeClient\\Cloud";
    const DWORD two = 2;
    const BYTE one = 1;
    const struct {
        const char* name;
        DWORD type; // REG_NONE: no value
        const void* data;
        DWORD size;
        bool runs;
    } rows[] = {{"REG_SZ \"0\" switches it off", REG_SZ, L"0", 4, false},
                {"REG_SZ \"1\" switches it off", REG_SZ, L"1", 4, false},
                {"REG_BINARY switches it off", REG_BINARY, &one, 1, false},
                {"a non-zero REG_DWORD runs", REG_DWORD, &two, 4, true},
                {"no value runs", REG_NONE, nullptr, 0, true}};
    UniqueHandle push(
        OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\com.korvanta.updateservice.msipush"));
    ASSERT_TRUE(push);
    const std::wstring stem = L"e2e policy";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kPolicy, L"AUTOUPDATE");
        if (row.type != REG_NONE) {
            ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kPolicy, L"AUTOUPDATE", row.type,
                                      row.data, row.size),
                      ERROR_SUCCESS);
        }
        ASSERT_TRUE(
            CopyFileW(FixturePath(L"unsigned.msi").c_str(), Drop(stem + L".msi").c_str(), FALSE) &&
            WriteFileBytes(Drop(stem + L".pending"), ""));
        SetEvent(push.Get());
        EXPECT_EQ(WaitForPath(Update(stem + L".result"), row.runs ? 20000 : 2000), row.runs);
        Sleep(300); // the request's files go after its answer
        EXPECT_EQ(PathExists(Drop(stem + L".msi")) && PathExists(Drop(stem + L".pending")),
                  !row.runs);
        RemoveTree(Update(stem + L".result"));
        DeleteFileW(Drop(stem + L".msi").c_str()), DeleteFileW(Drop(stem + L".pending").c_str());
    }

    const std::wstring folder = L"e2e folder";
    ASSERT_TRUE(CreateDirectoryW(Drop(folder + L".msi").c_str(), nullptr) &&
                WriteFileBytes(Drop(folder + L".msi\\inside.txt"), "x") &&
                WriteFileBytes(Drop(folder + L".pending"), ""));
    SetEvent(push.Get());
    ASSERT_TRUE(WaitForPath(Update(folder + L".result"), 20000));
    Sleep(200);
    std::string text;
    ASSERT_TRUE(ReadFileBytes(Update(folder + L".result"), text));
    EXPECT_TRUE(text.starts_with("0|") && text.ends_with(": 6")) << text;
    for (int pass = 0; pass < 2; ++pass, SetEvent(push.Get()), Sleep(1000))
        EXPECT_TRUE(PathExists(Drop(folder + L".removepending")) &&
                    PathExists(Drop(folder + L".msi\\inside.txt")))
            << pass;
    RemoveTree(Drop(folder + L".msi"));
    DeleteFileW(Drop(folder + L".removepending").c_str());
}
