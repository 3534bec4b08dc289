// The processing pass in-process, on the machine's real spool directories,
// with real signed packages, the real registry and real msiexec.
#include <gtest/gtest.h>

#include <windows.h>

#include <regex>
#include <string>
#include <vector>

#include "files.h"
#include "handles.h"
#include "process.h"
#include "registry.h"
#include "servicestep.h"
#include "testca.h"
#include "testsupport.h"
#include "trace.h"

using namespace testsupport;

namespace {

const char kPolicyKey[] = "SOFTWARE\\Policies\\Korvanta\\NativeClient\\Cloud";
const char kSetupsKey[] = "SOFTWARE\\Korvanta\\WebClient\\Setups\\Cloud";

std::vector<std::string> s_lines;
bool CaptureLine(const char* line, uint32_t) {
    s_lines.emplace_back(line);
    return true;
}

std::wstring Wide(const Str& text) {
    return Widen(text.Text());
}

class QueuePass : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(TrustTestCa());
        m_drop = Wide(GetDropDirectory());
        m_update = Wide(GetUpdateDirectory());
        ASSERT_FALSE(m_drop.empty());
        ASSERT_FALSE(m_update.empty());
        RemoveTree(m_drop);
        RemoveTree(m_update);
        CreateDirectoryW(m_drop.c_str(), nullptr);
        RegDeleteTreeA(HKEY_LOCAL_MACHINE, kPolicyKey);
        RegDeleteTreeA(HKEY_LOCAL_MACHINE, kSetupsKey);
        s_lines.clear();
        SetTraceHook(CaptureLine);
    }
    void TearDown() override {
        SetTraceHook(nullptr);
        SetStartCommandHook(nullptr);
        g_queueChecks = s_defaults;
        RegDeleteTreeA(HKEY_LOCAL_MACHINE, kPolicyKey);
    }

    // Places <stem>.msi (a copy of a fixture, or nothing) and then <stem>.pending.
    void Request(const std::wstring& stem, const wchar_t* fixture) {
        if (fixture != nullptr) {
            ASSERT_TRUE(
                CopyFileW(FixturePath(fixture).c_str(), Drop(stem + L".msi").c_str(), FALSE))
                << Narrow(fixture);
        }
        ASSERT_TRUE(WriteFileBytes(Drop(stem + L".pending"), ""));
    }
    std::wstring Drop(const std::wstring& name) const { return m_drop + L"\\" + name; }
    std::wstring Update(const std::wstring& name) const { return m_update + L"\\" + name; }

    // Checks the result file's form and returns its code (-1 when there is none).
    int ResultCode(const std::wstring& stem) const {
        std::string text;
        if (!ReadFileBytes(Update(stem + L".result"), text))
            return -1;
        std::smatch match;
        static const std::regex form(R"(^([01])\|(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d): (\d)$)");
        EXPECT_TRUE(std::regex_match(text, match, form)) << text;
        if (match.size() != 4)
            return -2;
        const int code = std::stoi(match[3]);
        EXPECT_EQ(match[1], code == 0 ? "1" : "0") << text;
        return code;
    }

    bool Logged(const std::string& text) const {
        for (const std::string& line : s_lines)
            if (line.find(text) != std::string::npos)
                return true;
        return false;
    }

    static QueueChecks s_defaults;
    std::wstring m_drop;
    std::wstring m_update;
};

QueueChecks QueuePass::s_defaults = g_queueChecks;

std::wstring ReadInstallerRecord() {
    return ReadRegistryString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Korvanta\\WebClient\\Setups\\Cloud",
                              L"UpdateInstaller");
}

void SetPolicy(DWORD type, const void* data, DWORD size) {
    HKEY key = nullptr;
    RegCreateKeyExA(HKEY_LOCAL_MACHINE, kPolicyKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                    nullptr);
    RegSetValueExA(key, "AUTOUPDATE", 0, type, static_cast<const BYTE*>(data), size);
    RegCloseKey(key);
}

} // namespace

TEST_F(QueuePass, AnswersEveryRequestWithItsCode) {
    const struct {
        const wchar_t* stem;
        const wchar_t* fixture;
        int code;
    } cases[] = {
        {L"korvanta", L"signed-korvanta.msi", 0},
        {L"other organisation, unit Korvanta Labs", L"signed-ou.msi", 0},
        {L"lower", L"signed-lower.msi", 5},
        {L"trailing blank", L"signed-blank.msi", 5},
        {L"other", L"signed-other.msi", 5},
        {L"unsigned", L"unsigned.msi", 6},
        {L"damaged", L"damaged-signature.msi", 6},
        {L"no package \u00e4\u03a9", nullptr, 7},
        {L"Gr\u00fc\u00dfe \u20ac pkg", L"signed-korvanta.msi", 0},
    };
    for (const auto& c : cases)
        Request(c.stem, c.fixture);
    ExecuteServiceStep();

    for (const auto& c : cases) {
        const std::string label = Narrow(c.stem);
        EXPECT_EQ(ResultCode(c.stem), c.code) << label;
        EXPECT_FALSE(PathExists(Drop(std::wstring(c.stem) + L".pending"))) << label;
        EXPECT_FALSE(PathExists(Drop(std::wstring(c.stem) + L".msi"))) << label;
        EXPECT_EQ(PathExists(Update(std::wstring(c.stem) + L".msi")), c.code == 0) << label;
        EXPECT_TRUE(Logged("Result code " + std::to_string(c.code))) << label;
    }
    // The missing package is marked, and the next pass removes the marker.
    EXPECT_TRUE(PathExists(Drop(L"no package \u00e4\u03a9.removepending")));
    const std::wstring record = ReadInstallerRecord();
    EXPECT_EQ(record.rfind(m_update + L"\\", 0), 0u) << Narrow(record);
    ExecuteServiceStep();
    EXPECT_FALSE(PathExists(Drop(L"no package \u00e4\u03a9.removepending")));
}

TEST_F(QueuePass, PolicyZeroLeavesEverythingUntouched) {
    const DWORD zero = 0, one = 1, two = 2;
    const struct {
        const char* name;
        DWORD type;
        const void* data;
        DWORD size;
        bool runs;
    } cases[] = {
        {"absent", REG_NONE, nullptr, 0, true}, {"DWORD 0", REG_DWORD, &zero, 4, false},
        {"DWORD 1", REG_DWORD, &one, 4, true},  {"DWORD 2", REG_DWORD, &two, 4, true},
        {"REG_SZ 0", REG_SZ, "0", 2, true},
    };
    for (const auto& c : cases) {
        RegDeleteTreeA(HKEY_LOCAL_MACHINE, kPolicyKey);
        if (c.data != nullptr)
            SetPolicy(c.type, c.data, c.size);
        DeleteFileW(Update(L"policy.result").c_str());
        Request(L"policy", nullptr);
        ASSERT_TRUE(WriteFileBytes(Drop(L"left.removepending"), ""));
        ExecuteServiceStep();
        EXPECT_EQ(ResultCode(L"policy"), c.runs ? 7 : -1) << c.name;
        EXPECT_EQ(PathExists(Drop(L"policy.pending")), !c.runs) << c.name;
        EXPECT_EQ(PathExists(Drop(L"left.removepending")), !c.runs) << c.name;
        DeleteFileW(Drop(L"policy.pending").c_str());
        DeleteFileW(Drop(L"policy.removepending").c_str());
    }
}

TEST_F(QueuePass, InstallerThatCannotStartGivesCodeOneAndEvent2106) {
    // Wine always finds msiexec; the seam starts a program that does not exist instead.
    SetStartCommandHook([](const Str&) {
        return StartCommand(Str("kvt-no-such-installer.exe /qn"), nullptr, true, true);
    });
    Request(L"nostart", L"signed-korvanta.msi");
    ExecuteServiceStep();
    EXPECT_EQ(ResultCode(L"nostart"), 1);
    EXPECT_TRUE(Logged("QELGUI-02106: Command start failed"));
    // Refused after the move: the moved copy is deleted from the update directory.
    EXPECT_FALSE(PathExists(Update(L"nostart.msi")));
    EXPECT_FALSE(PathExists(Drop(L"nostart.msi")));
}

TEST_F(QueuePass, MovedCopyIsCheckedAgain) {
    const std::wstring update = m_update;
    static std::wstring s_update;
    s_update = update;
    // Both checks pass in the drop directory; one of them fails on the moved copy.
    const struct {
        QueueChecks checks;
        int code;
    } cases[] = {
        {{[](const Str& p) { return Widen(p.Text()).rfind(s_update, 0) != 0; },
          [](const Str&) { return true; }},
         3},
        {{[](const Str&) { return true; },
          [](const Str& p) { return Widen(p.Text()).rfind(s_update, 0) != 0; }},
         2},
    };
    for (const auto& c : cases) {
        g_queueChecks = c.checks;
        Request(L"second", L"signed-korvanta.msi");
        ExecuteServiceStep();
        EXPECT_EQ(ResultCode(L"second"), c.code);
        EXPECT_FALSE(PathExists(Update(L"second.msi")));
        // The record was written before the second check and stays.
        EXPECT_EQ(ReadInstallerRecord(), Update(L"second.msi"));
    }
}

TEST_F(QueuePass, LockedPackageIsMarkedAndRetriedUntilItCanBeDeleted) {
    Request(L"locked", L"signed-korvanta.msi");
    // Held open without delete sharing: it can be read, but neither moved nor deleted.
    UniqueFile lock(CreateFileW(Drop(L"locked.msi").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(lock);
    ExecuteServiceStep();
    EXPECT_EQ(ResultCode(L"locked"), 4);
    EXPECT_TRUE(PathExists(Drop(L"locked.msi")));
    EXPECT_TRUE(PathExists(Drop(L"locked.removepending")));
    EXPECT_TRUE(PathExists(Update(L"locked.removepending"))); // the move's target
    EXPECT_FALSE(PathExists(Drop(L"locked.pending")));

    const std::string warning =
        "ExecuteServiceStep: Could not remove installer file [" + Narrow(Drop(L"locked.msi")) + "]";
    for (int pass = 0; pass < 2; ++pass) {
        s_lines.clear();
        ExecuteServiceStep();
        EXPECT_TRUE(Logged(warning)) << pass;
        EXPECT_TRUE(PathExists(Drop(L"locked.removepending")));
    }
    EXPECT_FALSE(PathExists(Update(L"locked.removepending")));

    lock.Reset();
    s_lines.clear();
    ExecuteServiceStep();
    EXPECT_FALSE(Logged(warning));
    EXPECT_FALSE(PathExists(Drop(L"locked.msi")));
    EXPECT_FALSE(PathExists(Drop(L"locked.removepending")));
}

TEST(QueuePassPieces, CommandLineAndResultLine) {
    EXPECT_EQ(InstallerCommandLine(Str("C:\\Program Files\\Korvanta\\Update\\a b.msi")),
              Str("msiexec.exe /qn /i \"C:\\Program Files\\Korvanta\\Update\\a b.msi\" "
                  "AUTOUPDATE=1"));
    const std::regex form(R"(^([01])\|\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d: (\d+)$)");
    for (uint32_t code : {0u, 1u, 7u}) {
        const std::string line = ResultLine(code).Text();
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, form)) << line;
        EXPECT_EQ(match[1], code == 0 ? "1" : "0");
        EXPECT_EQ(match[2], std::to_string(code));
    }
    const PolicyValue policy = OpenPolicyValue("AUTOUPDATE");
    EXPECT_EQ(policy.keyPath,
              Str("HKEY_LOCAL_MACHINE\\SOFTWARE\\Policies\\Korvanta\\NativeClient"));
    EXPECT_EQ(policy.subkey, Str("Cloud"));
}
