// pushupdate.exe from the outside: the real tool as a child process against a
// spool in a scratch directory, with the push event and the service's answers
// played by this test process.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "handles.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

const wchar_t kPushEventName[] = L"Global\\com.korvanta.updateservice.msipush";
const char kPushEventNameText[] = "Global\\com.korvanta.updateservice.msipush";

std::wstring ToolPath() {
    return Env(L"KVT_BUILD_DIR") + L"\\clients\\tools\\pushupdate\\pushupdate.exe";
}

ProcessResult RunTool(const std::vector<std::wstring>& arguments) {
    std::wstring commandLine = L"\"" + ToolPath() + L"\"";
    for (const std::wstring& argument : arguments)
        commandLine += L" \"" + argument + L"\"";
    return RunProcess(commandLine);
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Not a real installer: the tool only carries the bytes.
std::string PackageBytes(size_t size) {
    std::string bytes(size, '\0');
    uint32_t state = 2463534242u;
    for (char& c : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        c = static_cast<char>(state);
    }
    return bytes;
}

std::vector<std::wstring> ListDirectory(const std::wstring& directory) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW data;
    UniqueFind find(FindFirstFileW((directory + L"\\*").c_str(), &data));
    if (!find)
        return names;
    do {
        const std::wstring name = data.cFileName;
        if (name != L"." && name != L"..")
            names.push_back(name);
    } while (FindNextFileW(find.Get(), &data));
    std::sort(names.begin(), names.end());
    return names;
}

FILETIME FileTimeFromNow(int64_t seconds) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const uint64_t value = ((static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime) +
                           static_cast<uint64_t>(seconds * 10000000);
    return FILETIME{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

bool SetWriteTime(const std::wstring& path, const FILETIME& time) {
    UniqueFile file(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    return file && SetFileTime(file.Get(), nullptr, nullptr, &time);
}

// A package, a drop and a results directory below a scratch directory.
struct Spool {
    ScratchDir root{L"pushupdate"};
    std::string bytes = PackageBytes(1 << 20);
    std::wstring drop = root.Join(L"ProgramData\\korvanta.plugin");
    std::wstring results = root.Join(L"Update");

    std::wstring Package(const std::wstring& name) {
        const std::wstring path = root.Join(name);
        if (!PathExists(path))
            WriteFileBytes(path, bytes);
        return path;
    }
    std::vector<std::wstring> Arguments(const std::wstring& package,
                                        std::vector<std::wstring> more = {}) const {
        std::vector<std::wstring> arguments = {package, L"--drop",    drop, L"--results",
                                               results, L"--timeout", L"20"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }
};

// The push event as the service makes it; false when somebody else has it.
bool CreatePushEvent(UniqueHandle& event) {
    const HANDLE handle = CreateEventW(nullptr, FALSE, FALSE, kPushEventName);
    const DWORD error = GetLastError();
    event.Reset(handle);
    return handle != nullptr && error != ERROR_ALREADY_EXISTS;
}

bool PushEventExists() {
    UniqueHandle event(OpenEventW(SYNCHRONIZE, FALSE, kPushEventName));
    return event.Valid();
}

// Plays the service: waits for the push, then runs the answer on its own thread.
class FakeService {
  public:
    explicit FakeService(std::function<void()> answer) : m_answer(std::move(answer)) {
        m_created = CreatePushEvent(m_event);
        m_stop.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (m_created && m_stop)
            m_thread = std::thread([this] {
                const HANDLE events[2] = {m_event.Get(), m_stop.Get()};
                if (WaitForMultipleObjects(2, events, FALSE, 30000) != WAIT_OBJECT_0)
                    return;
                ++m_pushes;
                if (m_answer)
                    m_answer();
            });
    }
    ~FakeService() { Join(); }
    bool Created() const { return m_created && m_stop.Valid(); }
    // Signals seen; a signal after the first is still pending on the event.
    int Pushes() {
        Join();
        if (m_event && WaitForSingleObject(m_event.Get(), 0) == WAIT_OBJECT_0)
            ++m_pushes;
        return m_pushes;
    }

  private:
    void Join() {
        if (m_thread.joinable()) {
            SetEvent(m_stop.Get());
            m_thread.join();
        }
    }

    UniqueHandle m_event;
    UniqueHandle m_stop;
    std::function<void()> m_answer;
    std::thread m_thread;
    int m_pushes = 0;
    bool m_created = false;
};

// The service's answer to a taken request: the package moves away, the marker
// goes, the result file comes.
void TakeAndAnswer(const std::wstring& drop, const std::wstring& results, const std::wstring& stem,
                   const std::string& line) {
    CreateDirectoryW(results.c_str(), nullptr);
    MoveFileExW((drop + L"\\" + stem + L".msi").c_str(), (results + L"\\" + stem + L".msi").c_str(),
                MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED);
    DeleteFileW((drop + L"\\" + stem + L".pending").c_str());
    WriteFileBytes(results + L"\\" + stem + L".result", line);
}

} // namespace

TEST(PushUpdate, RejectsBadCommandLines) {
    ASSERT_FALSE(PushEventExists()) << "an update service is running in this prefix";
    Spool spool;
    const std::wstring package = spool.Package(L"Cloud.msi");
    const std::wstring dotOnly = spool.Package(L".msi");
    const std::wstring longest(241, L'x');
    const std::wstring tooLong(242, L'x');
    struct Case {
        const char* name;
        std::vector<std::wstring> arguments;
        DWORD exitCode;
        const char* errorPart; // on standard error, or on standard output when null
        const char* outputPart;
    };
    const Case cases[] = {
        {"no arguments", {}, 2, "Usage: pushupdate.exe <package.msi>", nullptr},
        {"help", {L"--help"}, 2, nullptr, "Usage: pushupdate.exe <package.msi>"},
        {"help after a package", spool.Arguments(package, {L"-h"}), 2, nullptr, "Exit codes:"},
        {"unknown option", spool.Arguments(package, {L"--force"}), 2, "Unknown option [--force]",
         nullptr},
        {"option without value", spool.Arguments(package, {L"--timeout"}), 2,
         "The option --timeout needs a value", nullptr},
        {"time-out 0", spool.Arguments(package, {L"--timeout", L"0"}), 2, "[0] is not a whole",
         nullptr},
        {"time-out not a number", spool.Arguments(package, {L"--timeout", L"5s"}), 2,
         "[5s] is not a whole", nullptr},
        {"time-out too long", spool.Arguments(package, {L"--timeout", L"86401"}), 2,
         "[86401] is not a whole", nullptr},
        {"two packages", spool.Arguments(package, {package}), 2, "More than one package", nullptr},
        {"no package", {L"--timeout", L"5"}, 2, "No package given", nullptr},
        {"empty drop", spool.Arguments(package, {L"--drop", L""}), 2,
         "The option --drop needs a directory", nullptr},
        {"stem with backslash", spool.Arguments(package, {L"--stem", L"a\\b"}), 2,
         "[a\\b] cannot be used as a file name", nullptr},
        {"stem with colon", spool.Arguments(package, {L"--stem", L"a:b"}), 2,
         "cannot be used as a file name", nullptr},
        {"stem with wildcard", spool.Arguments(package, {L"--stem", L"a*"}), 2,
         "cannot be used as a file name", nullptr},
        {"empty stem", spool.Arguments(package, {L"--stem", L""}), 2,
         "cannot be used as a file name", nullptr},
        {"dots only", spool.Arguments(package, {L"--stem", L".."}), 2,
         "cannot be used as a file name", nullptr},
        {"package name without stem", spool.Arguments(dotOnly), 2,
         "Give a request name with --stem", nullptr},
        {"stem too long for its marker names", spool.Arguments(package, {L"--stem", tooLong}), 2,
         "is too long: at most 241 characters", nullptr},
        // Accepted, so it gets as far as looking for the service.
        {"longest stem", spool.Arguments(package, {L"--stem", longest}), 11,
         "The update service is not running", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const ProcessResult run = RunTool(c.arguments);
        ASSERT_TRUE(run.started);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
        if (c.errorPart != nullptr) {
            EXPECT_TRUE(Contains(run.err, c.errorPart)) << run.err;
        }
        if (c.outputPart != nullptr) {
            EXPECT_TRUE(Contains(run.out, c.outputPart)) << run.out;
            EXPECT_EQ(run.err, "");
        }
    }
    EXPECT_FALSE(PathExists(spool.drop));
}

TEST(PushUpdate, MissingPackageExits10) {
    Spool spool;
    const std::wstring directory = spool.root.Join(L"Folder.msi");
    ASSERT_TRUE(CreateDirectoryW(directory.c_str(), nullptr));
    const struct {
        const char* name;
        std::wstring package;
        const char* message;
    } cases[] = {
        {"no such file", spool.root.Join(L"Missing.msi"), "cannot be found"},
        {"no such directory", spool.root.Join(L"Nowhere\\Missing.msi"), "cannot be found"},
        {"a directory", directory, "is a directory, not a file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const ProcessResult run = RunTool(spool.Arguments(c.package));
        EXPECT_EQ(run.exitCode, 10u) << run.err;
        EXPECT_TRUE(Contains(run.err, "[" + Narrow(c.package) + "]")) << run.err;
        EXPECT_TRUE(Contains(run.err, c.message)) << run.err;
        EXPECT_EQ(run.out, "");
    }
    // The system's text is part of the message.
    const ProcessResult run = RunTool(spool.Arguments(cases[0].package));
    EXPECT_TRUE(Contains(run.err, "(0x00000002/2)")) << run.err;
    EXPECT_FALSE(PathExists(spool.drop));
}

TEST(PushUpdate, WithoutServiceExits11AndWritesNothing) {
    ASSERT_FALSE(PushEventExists()) << "an update service is running in this prefix";
    for (const bool dropExists : {false, true}) {
        SCOPED_TRACE(dropExists ? "drop directory present" : "drop directory missing");
        Spool spool;
        if (dropExists) {
            CreateDirectoryW(spool.root.Join(L"ProgramData").c_str(), nullptr);
            ASSERT_TRUE(CreateDirectoryW(spool.drop.c_str(), nullptr));
        }
        const ProcessResult run = RunTool(spool.Arguments(spool.Package(L"Cloud.msi")));
        EXPECT_EQ(run.exitCode, 11u) << run.err;
        EXPECT_TRUE(Contains(run.err, "The update service is not running")) << run.err;
        EXPECT_TRUE(Contains(run.err, kPushEventNameText)) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(PathExists(spool.drop), dropExists);
        EXPECT_TRUE(ListDirectory(spool.drop).empty());
    }
}

// The whole push against a service played here: the drop directory is made, the
// package is complete whenever it can be seen under its name, the marker comes
// after it, and the answer is printed and becomes the exit code.
TEST(PushUpdate, PushesCompletePackageThenMarkerAndReportsAnswer) {
    Spool spool;
    const std::wstring msi = spool.drop + L"\\Cloud.msi";
    const std::wstring pending = spool.drop + L"\\Cloud.pending";
    std::atomic<bool> stop{false};
    std::atomic<int> packageSightings{0};
    std::atomic<int> partialSightings{0};
    std::atomic<int> markerBeforePackage{0};
    std::atomic<int> markerSightings{0};
    std::thread watcher;
    bool complete = false;
    bool marked = false;
    FakeService service([&] {
        // The watcher's reads would stand in the way of taking the package.
        stop.store(true);
        watcher.join();
        std::string seen;
        complete = ReadFileBytes(msi, seen) && seen == spool.bytes;
        marked = PathExists(pending);
        TakeAndAnswer(spool.drop, spool.results, L"Cloud", "0|2024-07-15T10:23:45: 6");
    });
    ASSERT_TRUE(service.Created()) << "an update service is running in this prefix";
    // Watches the drop directory as often as it can until the push comes.
    watcher = std::thread([&] {
        while (!stop.load()) {
            const bool markerThere = PathExists(pending);
            WIN32_FILE_ATTRIBUTE_DATA data;
            const bool packageThere =
                GetFileAttributesExW(msi.c_str(), GetFileExInfoStandard, &data) != FALSE;
            if (packageThere) {
                packageSightings.fetch_add(1);
                std::string seen;
                if (data.nFileSizeLow != spool.bytes.size() ||
                    (ReadFileBytes(msi, seen) && seen != spool.bytes))
                    partialSightings.fetch_add(1);
            }
            if (markerThere) {
                markerSightings.fetch_add(1);
                std::string seen;
                if (!ReadFileBytes(msi, seen) || seen != spool.bytes)
                    markerBeforePackage.fetch_add(1);
            }
        }
    });
    const ProcessResult run = RunTool(spool.Arguments(spool.Package(L"Cloud.msi")));
    EXPECT_EQ(service.Pushes(), 1);
    if (watcher.joinable()) {
        stop.store(true);
        watcher.join();
    }
    EXPECT_TRUE(complete);
    EXPECT_TRUE(marked);
    EXPECT_EQ(partialSightings.load(), 0) << "of " << packageSightings.load();
    EXPECT_EQ(markerBeforePackage.load(), 0) << "of " << markerSightings.load();
    EXPECT_EQ(run.exitCode, 6u) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(Contains(run.out, "Created the drop directory [" + Narrow(spool.drop) + "].\r\n"))
        << run.out;
    EXPECT_TRUE(Contains(run.out, "\r\n0|2024-07-15T10:23:45: 6\r\nResult code 6: the package's "
                                  "signature is not trusted (unsigned or broken).\r\n"))
        << run.out;
    // Nothing left behind: no temporary copy, no marker.
    EXPECT_TRUE(ListDirectory(spool.drop).empty());
}

TEST(PushUpdate, ExitsWithEachResultCode) {
    const char* const meanings[] = {
        "installation started (msiexec launched for the moved package)",
        "the installer could not be started",
        "the moved package failed the signer check",
        "the moved package failed the trust check",
        "the package could not be moved into the update directory or secured",
        "the package is not signed by Korvanta Labs",
        "the package's signature is not trusted (unsigned or broken)",
        "no package was found beside the request",
    };
    Spool spool;
    const std::wstring package = spool.Package(L"Cloud.msi");
    for (uint32_t code = 0; code <= 8; ++code) {
        SCOPED_TRACE(code);
        const std::string line =
            std::to_string(code == 0 ? 1 : 0) + "|2024-07-15T10:23:45: " + std::to_string(code);
        FakeService service([&] { TakeAndAnswer(spool.drop, spool.results, L"Cloud", line); });
        ASSERT_TRUE(service.Created());
        const ProcessResult run = RunTool(spool.Arguments(package));
        EXPECT_TRUE(Contains(run.out, line + "\r\n")) << run.out;
        if (code < 8) {
            EXPECT_EQ(run.exitCode, code) << run.err;
            EXPECT_TRUE(Contains(run.out, "Result code " + std::to_string(code) + ": " +
                                              meanings[code] + ".\r\n"))
                << run.out;
        } else {
            EXPECT_EQ(run.exitCode, 14u);
            EXPECT_TRUE(Contains(run.err, "unknown result code 8")) << run.err;
        }
    }
}

// An answer already there before the push belongs to an earlier request; and an
// answer is read only once the service has finished writing it.
TEST(PushUpdate, WaitsForTheAnswerToThisPush) {
    const std::string oldLine = "1|2000-01-01T00:00:00: 0";
    const std::string newLine = "0|2024-07-15T10:23:45: 5";
    struct Case {
        const char* name;
        int64_t oldAge; // seconds; negative: no earlier result
        std::function<void(const Spool&)> answer;
    };
    const auto delayedAnswer = [&](const Spool& spool) {
        Sleep(700);
        TakeAndAnswer(spool.drop, spool.results, L"Cloud", newLine);
    };
    const Case cases[] = {
        {"earlier result an hour old", 3600, delayedAnswer},
        {"earlier result written just before the push", 0, delayedAnswer},
        {"new result stamped an hour back, none before", -1,
         [&](const Spool& spool) {
             // Renamed into place with its time set, so only the stamp can tell.
             const std::wstring aside = spool.results + L"\\aside.tmp";
             WriteFileBytes(aside, newLine);
             SetWriteTime(aside, FileTimeFromNow(-3600));
             DeleteFileW((spool.drop + L"\\Cloud.pending").c_str());
             MoveFileExW(aside.c_str(), (spool.results + L"\\Cloud.result").c_str(),
                         MOVEFILE_REPLACE_EXISTING);
         }},
        {"writer keeps the result open, empty at first", -1,
         [&](const Spool& spool) {
             DeleteFileW((spool.drop + L"\\Cloud.pending").c_str());
             // As the service opens it: read and write, shared for reading.
             UniqueFile file(CreateFileW((spool.results + L"\\Cloud.result").c_str(),
                                         GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                         CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
             Sleep(500);
             DWORD written = 0;
             WriteFile(file.Get(), newLine.data(), static_cast<DWORD>(newLine.size()), &written,
                       nullptr);
             Sleep(300);
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Spool spool;
        ASSERT_TRUE(CreateDirectoryW(spool.results.c_str(), nullptr));
        const std::wstring result = spool.results + L"\\Cloud.result";
        if (c.oldAge >= 0) {
            ASSERT_TRUE(WriteFileBytes(result, oldLine));
            ASSERT_TRUE(SetWriteTime(result, FileTimeFromNow(-c.oldAge)));
        }
        FakeService service([&] { c.answer(spool); });
        ASSERT_TRUE(service.Created());
        const ProcessResult run = RunTool(spool.Arguments(spool.Package(L"Cloud.msi")));
        EXPECT_EQ(run.exitCode, 5u) << run.err;
        EXPECT_TRUE(Contains(run.out, "\r\n" + newLine + "\r\n")) << run.out;
        EXPECT_FALSE(Contains(run.out, oldLine)) << run.out;
    }
}

TEST(PushUpdate, TimeOutWithdrawsOnlyAnUntakenRequest) {
    struct Case {
        const char* name;
        bool serviceTakes;
        const char* message;
    };
    const Case cases[] = {
        {"request never taken", false, "the request was still waiting: it was withdrawn"},
        {"request taken, no answer", true, "it took the request, but no answer appeared"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Spool spool;
        const std::wstring msi = spool.drop + L"\\Cloud.msi";
        const std::wstring pending = spool.drop + L"\\Cloud.pending";
        bool pendingAtPush = false;
        FakeService service([&] {
            pendingAtPush = PathExists(pending);
            if (c.serviceTakes)
                DeleteFileW(pending.c_str()); // working on the package, which stays
        });
        ASSERT_TRUE(service.Created());
        const ULONGLONG start = GetTickCount64();
        const ProcessResult run =
            RunTool(spool.Arguments(spool.Package(L"Cloud.msi"), {L"--timeout", L"1"}));
        const ULONGLONG elapsed = GetTickCount64() - start;
        EXPECT_EQ(service.Pushes(), 1);
        EXPECT_TRUE(pendingAtPush);
        EXPECT_EQ(run.exitCode, 12u) << run.err;
        EXPECT_TRUE(Contains(run.err, "No answer from the update service within 1 s")) << run.err;
        EXPECT_TRUE(Contains(run.err, c.message)) << run.err;
        EXPECT_GE(elapsed, 1000u);
        EXPECT_LT(elapsed, 10000u);
        EXPECT_FALSE(PathExists(pending));
        // The package may be in the service's hands: never removed.
        std::string seen;
        EXPECT_TRUE(ReadFileBytes(msi, seen) && seen == spool.bytes);
    }
}

TEST(PushUpdate, RefusesToPlaceRequestsItCannotPlace) {
    Spool spool;
    const std::wstring package = spool.Package(L"Cloud.msi");
    {
        SCOPED_TRACE("a request of the same name is waiting");
        ASSERT_TRUE(CreateDirectoryW(spool.root.Join(L"ProgramData").c_str(), nullptr));
        ASSERT_TRUE(CreateDirectoryW(spool.drop.c_str(), nullptr));
        ASSERT_TRUE(WriteFileBytes(spool.drop + L"\\Cloud.msi", "theirs"));
        ASSERT_TRUE(WriteFileBytes(spool.drop + L"\\Cloud.pending", ""));
        FakeService service(nullptr);
        ASSERT_TRUE(service.Created());
        const ProcessResult run = RunTool(spool.Arguments(package));
        EXPECT_EQ(run.exitCode, 13u) << run.err;
        EXPECT_TRUE(Contains(run.err, "A request named [Cloud] is already waiting")) << run.err;
        std::string theirs;
        EXPECT_TRUE(ReadFileBytes(spool.drop + L"\\Cloud.msi", theirs) && theirs == "theirs");
        EXPECT_EQ(ListDirectory(spool.drop).size(), 2u);
        EXPECT_EQ(service.Pushes(), 0);
    }
    {
        SCOPED_TRACE("the drop directory is a file");
        const std::wstring dropFile = spool.root.Join(L"drop-file");
        ASSERT_TRUE(WriteFileBytes(dropFile, "x"));
        FakeService service(nullptr);
        ASSERT_TRUE(service.Created());
        const ProcessResult run =
            RunTool({package, L"--drop", dropFile, L"--results", spool.results});
        EXPECT_EQ(run.exitCode, 13u) << run.err;
        EXPECT_TRUE(Contains(run.err, "[" + Narrow(dropFile) + "] is a file")) << run.err;
    }
}

TEST(PushUpdate, StemsWithBlanksAndNonAsciiCharacters) {
    struct Case {
        const wchar_t* package;
        const wchar_t* stemOption; // null: the stem comes from the package's name
        const wchar_t* stem;
    };
    const Case cases[] = {
        {L"Cloud Setup 24.7.0.msi", nullptr, L"Cloud Setup 24.7.0"},
        {L"\u00C9t\u00E9 \u00FCber \u96F2.msi", nullptr, L"\u00C9t\u00E9 \u00FCber \u96F2"},
        {L"plain.msi", L"Gr\u00FC\u00DFe \u2013 \U0001F600 x",
         L"Gr\u00FC\u00DFe \u2013 \U0001F600 x"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.stem));
        Spool spool;
        const std::wstring stem = c.stem;
        bool complete = false;
        FakeService service([&] {
            std::string seen;
            complete = ReadFileBytes(spool.drop + L"\\" + stem + L".msi", seen) &&
                       seen == spool.bytes && PathExists(spool.drop + L"\\" + stem + L".pending");
            TakeAndAnswer(spool.drop, spool.results, stem, "1|2024-07-15T10:23:45: 0");
        });
        ASSERT_TRUE(service.Created());
        std::vector<std::wstring> more;
        if (c.stemOption != nullptr)
            more = {L"--stem", c.stemOption};
        const ProcessResult run = RunTool(spool.Arguments(spool.Package(c.package), more));
        EXPECT_EQ(run.exitCode, 0u) << run.err;
        EXPECT_TRUE(complete);
        EXPECT_TRUE(Contains(run.out, Narrow(spool.drop + L"\\" + stem + L".msi"))) << run.out;
        EXPECT_TRUE(Contains(run.out, "Result code 0: installation started")) << run.out;
        EXPECT_TRUE(PathExists(spool.results + L"\\" + stem + L".msi"));
        EXPECT_TRUE(ListDirectory(spool.drop).empty());
    }
}
