// The processing pass in-process, on the machine's real spool directories,
// with real signed packages, the real registry and real msiexec.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "handles.h"
#include "process.h"
#include "seams.h"
#include "servicestep.h"
#include "testca.h"
#include "testsupport.h"
#include "trace.h"

using namespace testsupport;

namespace {

const wchar_t kPolicyKey[] = L"SOFTWARE\\Policies\\Korvanta\\NativeClient\\Cloud";
const wchar_t kSetupsKey[] = L"SOFTWARE\\Korvanta\\WebClient\\Setups\\Cloud";

std::vector<std::string> s_lines;
std::wstring s_update;

class QueuePass : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(TrustTestCa());
        m_drop = Widen(GetDropDirectory().Text());
        s_update = Widen(GetUpdateDirectory().Text());
        ASSERT_FALSE(m_drop.empty() || s_update.empty());
        RemoveTree(m_drop);
        RemoveTree(s_update);
        CreateDirectoryW(m_drop.c_str(), nullptr);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kPolicyKey);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSetupsKey);
        s_lines.clear();
        SetTraceHook([](const char* line, uint32_t) { return s_lines.emplace_back(line), true; });
    }
    void TearDown() override {
        SetTraceHook(nullptr);
        SetQueueSeamsForTesting(nullptr);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kPolicyKey);
    }

    // Places <stem>.msi (a copy of a fixture, or nothing) and then <stem>.pending.
    void Request(const std::wstring& stem, const wchar_t* fixture) {
        ASSERT_TRUE(fixture == nullptr ||
                    CopyFileW(FixturePath(fixture).c_str(), Drop(stem + L".msi").c_str(), 0));
        ASSERT_TRUE(WriteFileBytes(Drop(stem + L".pending"), ""));
    }
    std::wstring Drop(const std::wstring& name) const { return m_drop + L"\\" + name; }
    static std::wstring Update(const std::wstring& name) { return s_update + L"\\" + name; }

    // Checks the result file's form and returns its code (-1 when there is none).
    static int ResultCode(const std::wstring& stem) {
        std::string text;
        if (!ReadFileBytes(Update(stem + L".result"), text))
            return -1;
        std::smatch match;
        static const std::regex form(R"(^([01])\|\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d: (\d)$)");
        if (!std::regex_match(text, match, form))
            return ADD_FAILURE() << text, -2;
        EXPECT_EQ(match[1], match[2] == "0" ? "1" : "0") << text; // the success flag
        return std::stoi(match[2]);
    }
    static bool Logged(const std::string& text) {
        return std::any_of(s_lines.begin(), s_lines.end(),
                           [&](const std::string& l) { return l.find(text) != std::string::npos; });
    }
    static std::wstring InstallerRecord() {
        return ReadRegistryString(HKEY_LOCAL_MACHINE, kSetupsKey, L"UpdateInstaller");
    }

    std::wstring m_drop;
};

} // namespace

TEST_F(QueuePass, AnswersEveryRequestWithItsCode) {
    const struct {
        std::wstring stem;
        const wchar_t* fixture;
        int code;
        // clang-format off
    } cases[] = {
        {L"korvanta", L"signed-korvanta.msi", 0}, {L"lower", L"signed-lower.msi", 5},
        {L"other organisation, unit Korvanta Labs", L"signed-ou.msi", 0},
        {L"trailing blank", L"signed-blank.msi", 5}, {L"other", L"signed-other.msi", 5},
        {L"unsigned", L"unsigned.msi", 6}, {L"damaged", L"damaged-signature.msi", 6},
        {L"no package \u00e4\u03a9", nullptr, 7},
        {L"Gr\u00fc\u00dfe \u20ac pkg", L"signed-korvanta.msi", 0}};
    // clang-format on
    for (const auto& c : cases)
        Request(c.stem, c.fixture);
    ExecuteServiceStep();
    for (const auto& c : cases) {
        SCOPED_TRACE(Narrow(c.stem));
        EXPECT_EQ(ResultCode(c.stem), c.code);
        EXPECT_FALSE(PathExists(Drop(c.stem + L".pending")) || PathExists(Drop(c.stem + L".msi")));
        EXPECT_EQ(PathExists(Update(c.stem + L".msi")), c.code == 0);
    }
    EXPECT_EQ(InstallerRecord().rfind(s_update + L"\\", 0), 0u) << Narrow(InstallerRecord());
    // The missing package is marked, and the next pass removes the marker.
    EXPECT_TRUE(PathExists(Drop(L"no package \u00e4\u03a9.removepending")));
    ExecuteServiceStep();
    EXPECT_FALSE(PathExists(Drop(L"no package \u00e4\u03a9.removepending")));
}

TEST_F(QueuePass, RefusalsAfterTheMoveDeleteTheMovedCopy) {
    // Wine always finds msiexec; the seam starts a program that does not exist instead.
    static const QueueSeams noStart = {nullptr,
                                       nullptr,
                                       nullptr,
                                       [](const Str&) {
                                           return StartCommand(Str("kvt-no-such-installer.exe /qn"),
                                                               nullptr, true, true);
                                       },
                                       nullptr,
                                       nullptr};
    SetQueueSeamsForTesting(&noStart);
    Request(L"nostart", L"signed-korvanta.msi");
    ExecuteServiceStep();
    EXPECT_EQ(ResultCode(L"nostart"), 1);
    EXPECT_TRUE(Logged("QELGUI-02106: Command start failed"));
    EXPECT_FALSE(PathExists(Update(L"nostart.msi")) || PathExists(Drop(L"nostart.msi")));
    // Both checks pass in the drop directory; one of them fails on the moved copy.
    const auto inDrop = [](const Str& p) { return Widen(p.Text()).rfind(s_update, 0) != 0; };
    const auto trustInDrop = [](const Str& p, HANDLE) {
        return Widen(p.Text()).rfind(s_update, 0) != 0;
    };
    const auto pass = [](const Str&) { return true; };
    const auto trust = [](const Str&, HANDLE) { return true; };
    for (const auto& [checks, code] :
         {std::pair{QueueSeams{trustInDrop, pass, nullptr, nullptr, nullptr, nullptr}, 3},
          std::pair{QueueSeams{trust, inDrop, nullptr, nullptr, nullptr, nullptr}, 2}}) {
        SetQueueSeamsForTesting(&checks);
        Request(L"second", L"signed-korvanta.msi");
        ExecuteServiceStep();
        EXPECT_EQ(ResultCode(L"second"), code);
        EXPECT_FALSE(PathExists(Update(L"second.msi")));
        // The record was written before the second check and stays.
        EXPECT_EQ(InstallerRecord(), Update(L"second.msi"));
    }
}

TEST_F(QueuePass, LockedPackageIsMarkedAndRetriedUntilItCanBeDeleted) {
    Request(L"locked", L"signed-korvanta.msi");
    // Held open without delete sharing: it can be read, but neither moved nor deleted.
    UniqueHandle lock(CreateFileW(Drop(L"locked.msi").c_str(), GENERIC_READ, FILE_SHARE_READ,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(lock);
    ExecuteServiceStep();
    EXPECT_EQ(ResultCode(L"locked"), 4);
    EXPECT_TRUE(PathExists(Drop(L"locked.msi")) && PathExists(Drop(L"locked.removepending")));
    EXPECT_TRUE(PathExists(Update(L"locked.removepending")) &&
                !PathExists(Drop(L"locked.pending")));
    const std::string warning =
        "ExecuteServiceStep: Could not remove installer file [" + Narrow(Drop(L"locked.msi")) + "]";
    for (int pass = 0; pass < 3; ++pass) {
        if (pass == 2)
            lock.Reset();
        s_lines.clear();
        ExecuteServiceStep();
        EXPECT_EQ(Logged(warning), pass < 2) << pass;
        EXPECT_EQ(PathExists(Drop(L"locked.removepending")), pass < 2) << pass;
        EXPECT_FALSE(PathExists(Update(L"locked.removepending"))) << pass;
    }
    EXPECT_FALSE(PathExists(Drop(L"locked.msi")));
}

namespace {

std::vector<std::wstring> s_started; // installer command lines
bool RecordStart(const Str& commandLine) {
    s_started.push_back(Widen(commandLine.Text()));
    return true;
}
UniqueHandle s_writer; // a writer a seam opens and holds

} // namespace

// What a local user can plant in the drop directory, answered without harm to
// anything the service was not handed. "victim" is a file of someone else's.
TEST_F(QueuePass, HostileDropsAreRefusedAndHarmNothingElse) {
    static const QueueSeams recordStarts = {nullptr,     nullptr, nullptr,
                                            RecordStart, nullptr, nullptr};
    ScratchDir scratch(L"hostile");
    const std::wstring victim = scratch.Join(L"victim.msi");
    const auto plantVictim = [&] {
        ASSERT_TRUE(CopyFileW(FixturePath(L"signed-korvanta.msi").c_str(), victim.c_str(), 0));
    };
    const auto victimIntact = [&] {
        std::string bytes, original;
        return ReadFileBytes(victim, bytes) &&
               ReadFileBytes(FixturePath(L"signed-korvanta.msi"), original) && bytes == original;
    };
    const struct {
        const char* name;
        std::function<void(const std::wstring& stem)> plant;
        QueueSeams seams;
        int code;
    } rows[] = {
        {"a package with a second name is refused; that name's file stays",
         [&](const std::wstring& stem) {
             plantVictim();
             ASSERT_TRUE(CreateHardLinkW(Drop(stem + L".msi").c_str(), victim.c_str(), nullptr));
             ASSERT_TRUE(WriteFileBytes(Drop(stem + L".pending"), ""));
         },
         recordStarts, 6},
        {"a writer held from before the push: refused by the check",
         [&](const std::wstring& stem) {
             Request(stem, L"signed-korvanta.msi");
             s_writer.Reset(CreateFileW(Drop(stem + L".msi").c_str(), GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, 0, nullptr));
         },
         recordStarts, 6},
        {"a writer opened between the check and the move: not installed",
         [&](const std::wstring& stem) { Request(stem, L"signed-korvanta.msi"); },
         {nullptr, nullptr, nullptr, RecordStart,
          [](const Str& package) {
              s_writer.Reset(CreateFileW(Widen(package.Text()).c_str(), GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                         nullptr, OPEN_EXISTING, 0, nullptr));
          },
          nullptr},
         4},
        {"a result name planted as a link: its file stays",
         [&](const std::wstring& stem) {
             plantVictim();
             CreateDirectoryW(s_update.c_str(), nullptr);
             ASSERT_TRUE(
                 CreateHardLinkW(Update(stem + L".result").c_str(), victim.c_str(), nullptr));
             Request(stem, L"unsigned.msi");
         },
         recordStarts, 6},
        {"a marker name planted as a link: its file stays",
         [&](const std::wstring& stem) {
             plantVictim();
             ASSERT_TRUE(
                 CreateHardLinkW(Drop(stem + L".removepending").c_str(), victim.c_str(), nullptr));
             Request(stem, nullptr);
         },
         recordStarts, 7},
        {"a zero-byte package is refused",
         [&](const std::wstring& stem) {
             ASSERT_TRUE(WriteFileBytes(Drop(stem + L".msi"), "") &&
                         WriteFileBytes(Drop(stem + L".pending"), ""));
         },
         recordStarts, 6},
        {"a truncated package is refused",
         [&](const std::wstring& stem) {
             std::string bytes;
             ASSERT_TRUE(ReadFileBytes(FixturePath(L"signed-korvanta.msi"), bytes));
             ASSERT_TRUE(WriteFileBytes(Drop(stem + L".msi"), bytes.substr(0, bytes.size() / 2)) &&
                         WriteFileBytes(Drop(stem + L".pending"), ""));
         },
         recordStarts, 6},
        {"a directory named as a request is passed over",
         [&](const std::wstring& stem) {
             ASSERT_TRUE(CreateDirectoryW(Drop(stem + L".pending").c_str(), nullptr));
         },
         recordStarts, -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::wstring stem = L"hostile " + std::to_wstring(&row - rows) + L" \u00e4";
        s_started.clear();
        row.plant(stem);
        SetQueueSeamsForTesting(&row.seams);
        ExecuteServiceStep();
        SetQueueSeamsForTesting(nullptr);
        EXPECT_EQ(ResultCode(stem), row.code);
        EXPECT_EQ(s_started.size(), size_t(row.code == 0));
        EXPECT_EQ(PathExists(Drop(stem + L".pending")), row.code < 0);
        s_writer.Reset();
        if (PathExists(victim)) {
            EXPECT_TRUE(victimIntact());
            DeleteFileW(victim.c_str());
        }
    }
}

// A service ended between the move and the result: the next pass answers the
// request from the step after the move, once; an old package of another
// request's name is never taken for a package that was not moved.
TEST_F(QueuePass, APassEndedAfterTheMoveIsFinishedByTheNext) {
    Request(L"killed", L"signed-korvanta.msi");
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    const ProcessResult child = RunProcess(L"\"" + std::wstring(self) + L"\" --die-after-move");
    EXPECT_EQ(child.exitCode, 3u) << child.out << child.err;
    EXPECT_TRUE(PathExists(Update(L"killed.msi")) && ResultCode(L"killed") == -1);
    // An old package whose request never got as far: still "no package".
    ASSERT_TRUE(
        CopyFileW(FixturePath(L"signed-korvanta.msi").c_str(), Update(L"old.msi").c_str(), 0));
    Request(L"old", nullptr);
    static const QueueSeams recordStarts = {nullptr,     nullptr, nullptr,
                                            RecordStart, nullptr, nullptr};
    s_started.clear();
    SetQueueSeamsForTesting(&recordStarts);
    ExecuteServiceStep();
    ExecuteServiceStep();
    EXPECT_EQ(ResultCode(L"killed"), 0);
    EXPECT_EQ(ResultCode(L"old"), 7);
    EXPECT_EQ(s_started, std::vector<std::wstring>{L"msiexec.exe /qn /i \"" +
                                                   Update(L"killed.msi") + L"\" AUTOUPDATE=1"});
    EXPECT_FALSE(PathExists(Drop(L"killed.pending")) || PathExists(Drop(L"killed.msi")));
}

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "--die-after-move") == 0) {
        static const QueueSeams die = {nullptr, nullptr, nullptr,
                                       nullptr, nullptr, [](const Str&) { ExitProcess(3); }};
        SetQueueSeamsForTesting(&die);
        ExecuteServiceStep();
        return 0;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
