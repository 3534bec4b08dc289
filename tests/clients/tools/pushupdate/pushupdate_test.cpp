// pushupdate.exe from the outside: the real tool as a child process against a
// spool in a scratch directory, with the push event and the service's answers
// played by this test process.
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "handles.h"
#include "testsupport.h"

using namespace testsupport;

namespace {

const wchar_t kPushEventName[] = L"Global\\com.korvanta.updateservice.msipush";

ProcessResult RunTool(const std::vector<std::wstring>& arguments) {
    std::wstring commandLine =
        L"\"" + Env(L"KVT_BUILD_DIR") + L"\\clients\\tools\\pushupdate\\pushupdate.exe\"";
    for (const std::wstring& argument : arguments)
        commandLine += L" \"" + argument + L"\"";
    return RunProcess(commandLine);
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The names in a directory, sorted, separated by blanks.
std::string Listing(const std::wstring& directory) {
    std::set<std::string> names;
    WIN32_FIND_DATAW data;
    UniqueFind find(FindFirstFileW((directory + L"\\*").c_str(), &data));
    for (bool more = find.Valid(); more; more = FindNextFileW(find.Get(), &data))
        names.insert(Narrow(data.cFileName));
    std::string listing;
    for (const std::string& name : names)
        listing += name[0] == '.' ? "" : (listing.empty() ? "" : " ") + name;
    return listing;
}

// A package (not a real installer: the tool only carries the bytes), a drop and a
// results directory below a scratch directory.
struct Spool {
    ScratchDir root{L"pushupdate"};
    std::string bytes = std::string(1 << 20, '\0');
    std::wstring drop = root.Join(L"ProgramData\\korvanta.plugin"), results = root.Join(L"Update");

    Spool() {
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
    }
    std::wstring Package(const std::wstring& name) {
        return WriteFileBytes(root.Join(name), bytes) ? root.Join(name) : L"";
    }
    std::vector<std::wstring> Arguments(const std::wstring& package,
                                        std::vector<std::wstring> more = {}) const {
        more.insert(more.begin(),
                    {package, L"--drop", drop, L"--results", results, L"--timeout", L"20"});
        return more;
    }
    // The service's answer to a taken request: the package moves away, the marker
    // goes, the result file comes.
    void TakeAndAnswer(const std::wstring& stem, const std::string& line) const {
        CreateDirectoryW(results.c_str(), nullptr);
        MoveFileExW((drop + L"\\" + stem + L".msi").c_str(),
                    (results + L"\\" + stem + L".msi").c_str(), MOVEFILE_REPLACE_EXISTING);
        DeleteFileW((drop + L"\\" + stem + L".pending").c_str());
        WriteFileBytes(results + L"\\" + stem + L".result", line);
    }
};

// Plays the service: owns the push event and runs the answer on its own thread
// when the first push comes.
struct FakeService {
    explicit FakeService(std::function<void()> answer) {
        event.Reset(CreateEventW(nullptr, FALSE, FALSE, kPushEventName));
        created = event && GetLastError() != ERROR_ALREADY_EXISTS && stop;
        if (created)
            thread = std::thread([this, answer] {
                const HANDLE events[2] = {event.Get(), stop.Get()};
                if (WaitForMultipleObjects(2, events, FALSE, 30000) != WAIT_OBJECT_0)
                    return;
                ++pushes;
                answer();
            });
    }
    ~FakeService() { Pushes(); }
    // Signals seen; a signal after the first is still pending on the event.
    int Pushes() {
        if (thread.joinable()) {
            SetEvent(stop.Get());
            thread.join();
            pushes += WaitForSingleObject(event.Get(), 0) == WAIT_OBJECT_0;
        }
        return pushes;
    }

    UniqueHandle event, stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::thread thread;
    int pushes = 0;
    bool created = false;
};

} // namespace

// Refusals before anything is written: no service is running for any of them.
TEST(PushUpdate, RefusesWithoutWriting) {
    ASSERT_FALSE(UniqueHandle(OpenEventW(SYNCHRONIZE, FALSE, kPushEventName)))
        << "an update service is running in this prefix";
    Spool spool;
    const std::wstring package = spool.Package(L"Cloud.msi"), missing = spool.root.Join(L"M.msi");
    const std::string notRunning = "The update service is not running: its push event "
                                   "[Global\\com.korvanta.updateservice.msipush] does not exist";
    // Arguments, exit code, parts of the error, the drop directory there beforehand.
    const std::tuple<std::vector<std::wstring>, DWORD, std::vector<std::string>, bool> cases[] = {
        {{}, 2, {"Usage: pushupdate.exe <package.msi>"}, false},
        {spool.Arguments(package, {L"--timeout", L"86401"}), 2, {"[86401] is not a whole"}, false},
        {spool.Arguments(package, {L"--stem", L"a\\b"}), 2, {"[a\\b] cannot be used as"}, false},
        {spool.Arguments(missing),
         10,
         {"[" + Narrow(missing) + "] cannot be", "(0x00000002/2)"},
         false},
        // Accepted, so they get as far as looking for the service.
        {spool.Arguments(package), 11, {notRunning}, false},
        {spool.Arguments(package), 11, {notRunning}, true}};
    for (const auto& [arguments, exitCode, errorParts, dropThere] : cases) {
        SCOPED_TRACE(exitCode);
        if (dropThere) {
            ASSERT_TRUE(CreateDirectoryW(spool.root.Join(L"ProgramData").c_str(), nullptr));
            ASSERT_TRUE(CreateDirectoryW(spool.drop.c_str(), nullptr));
        }
        const ProcessResult run = RunTool(arguments);
        ASSERT_TRUE(run.started);
        EXPECT_EQ(run.exitCode, exitCode) << run.err;
        for (const std::string& part : errorParts)
            EXPECT_TRUE(Contains(run.err, part)) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(PathExists(spool.drop), dropThere);
        EXPECT_EQ(Listing(spool.drop), "");
    }
}

// Pushes against a service played here. The drop directory is made; the package is
// complete whenever it can be seen under its name, and its marker comes after it;
// nothing is left behind but what the service has not taken; only an answer
// written for this push counts, is printed and becomes the exit code.
TEST(PushUpdate, AnswersAndTimeOuts) {
    const auto line = [](int code) {
        return (code ? "0|2024-07-15T10:23:45: " : "1|2024-07-15T10:23:45: ") +
               std::to_string(code);
    };
    // The answer ("": none), its delay, exit code, parts of output and of error, the drop
    // afterwards, the stem, an earlier answer present beforehand.
    const std::tuple<std::string, DWORD, DWORD, std::string, std::string, std::string, std::wstring,
                     std::string>
        cases[] = {
            {line(0), 0, 0, line(0) + "\r\nResult code 0: installation started (msiexec", "", "",
             L"Cloud Setup 24.7.0", ""},
            {line(3), 0, 3, line(3) + "\r\nResult code 3: the moved package failed the trust", "",
             "", L"\u00C9t\u00E9 \u00FCber \u96F2", ""},
            // An answer already there belongs to an earlier request, however fresh.
            {line(6), 700, 6, line(6) + "\r\nResult code 6: the package's signature is not", "", "",
             L"Cloud", "1|2000-01-01T00:00:00: 0"},
            // No answer in time: our marker goes, the package may be in the service's hands.
            {"", 0, 12, "",
             "No answer from the update service within 1 s, and the request was "
             "still waiting: it was withdrawn by deleting [",
             "Cloud.msi", L"Cloud", ""},
        };
    for (const auto& [answer, delay, exitCode, output, error, left, stem, earlier] : cases) {
        SCOPED_TRACE(exitCode);
        Spool spool;
        ASSERT_TRUE(CreateDirectoryW(spool.results.c_str(), nullptr));
        if (!earlier.empty()) {
            ASSERT_TRUE(WriteFileBytes(spool.results + L"\\" + stem + L".result", earlier));
        }
        const std::wstring msi = spool.drop + L"\\" + stem + L".msi";
        const std::wstring pending = spool.drop + L"\\" + stem + L".pending";
        std::atomic<bool> stop{false};
        std::atomic<int> partial{0}; // seen under its name incomplete, or marked before complete
        std::thread watcher;
        bool placed = false;
        FakeService service([&] {
            stop = true; // the watcher's reads would stand in the way of taking the package
            watcher.join();
            std::string seen;
            placed = ReadFileBytes(msi, seen) && seen == spool.bytes && PathExists(pending);
            Sleep(delay);
            if (!answer.empty())
                spool.TakeAndAnswer(stem, answer);
        });
        ASSERT_TRUE(service.created) << "an update service is running in this prefix";
        // Watches the drop directory as often as it can until the push comes.
        watcher = std::thread([&] {
            while (!stop) {
                const bool marked = PathExists(pending);
                WIN32_FILE_ATTRIBUTE_DATA data;
                std::string seen;
                const bool there = GetFileAttributesExW(msi.c_str(), GetFileExInfoStandard, &data),
                           read = ReadFileBytes(msi, seen), whole = read && seen == spool.bytes;
                partial +=
                    (there && (data.nFileSizeLow != spool.bytes.size() || (read && !whole))) ||
                    (marked && !whole);
            }
        });
        const ULONGLONG start = GetTickCount64();
        const ProcessResult run =
            RunTool(spool.Arguments(spool.Package(stem + L".msi"),
                                    answer.empty() ? std::vector<std::wstring>{L"--timeout", L"1"}
                                                   : std::vector<std::wstring>{}));
        const ULONGLONG elapsed = GetTickCount64() - start;
        EXPECT_EQ(service.Pushes(), 1);
        stop = true;
        if (watcher.joinable())
            watcher.join();
        EXPECT_TRUE(placed);
        EXPECT_EQ(partial.load(), 0);
        EXPECT_EQ(run.exitCode, exitCode) << run.err;
        EXPECT_TRUE(Contains(run.out, output)) << run.out;
        EXPECT_TRUE(Contains(run.err, error)) << run.err;
        EXPECT_EQ(error.empty(), run.err.empty()) << run.err;
        EXPECT_TRUE(earlier.empty() || !Contains(run.out, earlier)) << run.out;
        EXPECT_TRUE(exitCode != 0 || Contains(run.out, Narrow(msi))) << run.out;
        EXPECT_TRUE(
            Contains(run.out, "Created the drop directory [" + Narrow(spool.drop) + "].\r\n"))
            << run.out;
        EXPECT_TRUE(exitCode != 12 || (elapsed >= 1000 && elapsed < 10000)) << elapsed;
        EXPECT_EQ(Listing(spool.drop), left);
        std::string kept;
        EXPECT_TRUE(left.empty() || (ReadFileBytes(msi, kept) && kept == spool.bytes));
    }
}
