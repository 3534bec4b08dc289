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
    std::set<std::wstring> names;
    WIN32_FIND_DATAW data;
    UniqueFind find(FindFirstFileW((directory + L"\\*").c_str(), &data));
    for (bool more = find.Valid(); more; more = FindNextFileW(find.Get(), &data))
        names.insert(data.cFileName);
    std::string listing;
    for (const std::wstring& name : names) {
        if (name != L"." && name != L"..")
            listing += (listing.empty() ? "" : " ") + Narrow(name);
    }
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
                if (answer)
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
    const std::wstring package = spool.Package(L"Cloud.msi"), dotOnly = spool.Package(L".msi");
    const std::wstring missing = spool.root.Join(L"Missing.msi"),
                       folder = spool.root.Join(L"F.msi");
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    const auto with = [&](std::vector<std::wstring> more) {
        return spool.Arguments(package, std::move(more));
    };
    const std::string usage = "Usage: pushupdate.exe <package.msi>", badName = "cannot be used as";
    const std::string notRunning = "The update service is not running: its push event "
                                   "[Global\\com.korvanta.updateservice.msipush] does not exist";
    struct Refusal {
        std::vector<std::wstring> arguments;
        DWORD exitCode;
        std::vector<std::string> errorParts;
        const char* outputPart = nullptr; // then standard error stays empty
        bool dropThere = false;           // beforehand
    } cases[] = {
        {{}, 2, {usage}},
        {{L"--help"}, 2, {}, usage.c_str()},
        {with({L"--force"}), 2, {"Unknown option [--force]"}},
        {with({L"--timeout", L"0"}), 2, {"[0] is not a whole"}},
        {with({L"--timeout", L"86401"}), 2, {"[86401] is not a whole"}},
        {with({package}), 2, {"More than one package"}},
        {with({L"--stem", L"a\\b"}), 2, {"[a\\b] " + badName}},
        {spool.Arguments(dotOnly), 2, {"Give a request name with --stem"}},
        {with({L"--stem", std::wstring(242, L'x')}), 2, {"at most 241 characters"}},
        {spool.Arguments(missing), 10, {"[" + Narrow(missing) + "] cannot be", "(0x00000002/2)"}},
        {spool.Arguments(folder), 10, {"is a directory, not a file"}},
        // Accepted, so they get as far as looking for the service.
        {with({L"--stem", std::wstring(241, L'x')}), 11, {notRunning}},
        {with({}), 11, {notRunning}},
        {with({}), 11, {notRunning}, nullptr, true},
    };
    for (const Refusal& c : cases) {
        SCOPED_TRACE(&c - cases);
        if (c.dropThere) {
            ASSERT_TRUE(CreateDirectoryW(spool.root.Join(L"ProgramData").c_str(), nullptr));
            ASSERT_TRUE(CreateDirectoryW(spool.drop.c_str(), nullptr));
        }
        const ProcessResult run = RunTool(c.arguments);
        ASSERT_TRUE(run.started);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
        for (const std::string& part : c.errorParts)
            EXPECT_TRUE(Contains(run.err, part)) << run.err;
        EXPECT_TRUE(Contains(run.out, c.outputPart ? c.outputPart : "")) << run.out;
        EXPECT_EQ(c.outputPart ? run.err : run.out, "");
        EXPECT_EQ(PathExists(spool.drop), c.dropThere);
        EXPECT_EQ(Listing(spool.drop), "");
    }
}

// Pushes against a service played here. The drop directory is made; the package is
// complete whenever it can be seen under its name, and its marker comes after it;
// nothing is left behind but what the service has not taken; only an answer
// written for this push counts, is printed and becomes the exit code.
TEST(PushUpdate, AnswersAndTimeOuts) {
    using Answer = std::function<void(const Spool&, const std::wstring& stem)>;
    const auto answerWith = [](std::string line, DWORD delay = 0) -> Answer {
        return [line, delay](const Spool& spool, const std::wstring& stem) {
            Sleep(delay);
            spool.TakeAndAnswer(stem, line);
        };
    };
    const auto line = [](int code) {
        return (code ? "0|2024-07-15T10:23:45: " : "1|2024-07-15T10:23:45: ") +
               std::to_string(code);
    };
    // Written as the service writes it, kept open and empty at first; or stamped long
    // ago and renamed into place, so that only its stamp could tell it from an old one.
    const auto write = [&](const Spool& spool, bool keepOpen) {
        DeleteFileW((spool.drop + L"\\Cloud.pending").c_str());
        const std::wstring result = spool.results + L"\\Cloud.result", aside = result + L".tmp";
        UniqueFile file(CreateFileW((keepOpen ? result : aside).c_str(),
                                    GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    CREATE_ALWAYS, 0, nullptr));
        Sleep(keepOpen ? 500 : 0);
        DWORD written = 0;
        WriteFile(file.Get(), line(5).data(), DWORD(line(5).size()), &written, nullptr);
        const FILETIME longAgo = {0x256D4000, 0x01BF53EB}; // 2000-01-01
        SetFileTime(file.Get(), nullptr, nullptr, keepOpen ? nullptr : &longAgo);
        Sleep(keepOpen ? 300 : 0);
        file.Reset();
        MoveFileExW(aside.c_str(), result.c_str(), MOVEFILE_REPLACE_EXISTING);
    };
    const Answer keptOpen = [&](const Spool& spool, const std::wstring&) { write(spool, true); };
    const Answer longAgo = [&](const Spool& spool, const std::wstring&) { write(spool, false); };
    // Takes the request and keeps working on the package.
    const Answer takeOnly = [](const Spool& spool, const std::wstring&) {
        DeleteFileW((spool.drop + L"\\Cloud.pending").c_str());
    };
    const std::wstring blanks = L"Cloud Setup 24.7.0", accents = L"\u00C9t\u00E9 \u00FCber \u96F2";
    const std::wstring given = L"Gr\u00FC\u00DFe \u2013 \U0001F600 x";
    const std::string started =
        "\r\nResult code 0: installation started (msiexec launched for the moved package).\r\n";
    const std::string trust = "\r\nResult code 3: the moved package failed the trust check.\r\n";
    const std::string untrusted =
        "\r\nResult code 6: the package's signature is not trusted (unsigned or broken).\r\n";
    const std::string withdrawn =
        "No answer from the update service within 1 s, and the request was still waiting: it "
        "was withdrawn by deleting [";
    const std::string untaken = "within 1 s: it took the request, but no answer appeared";
    const std::string waitingText = "A request named [Cloud] is already waiting";
    const std::string unknown = "unknown result code 8", old = "1|2000-01-01T00:00:00: 0";
    const std::vector<std::wstring> oneSecond = {L"--timeout", L"1"},
                                    stemGiven = {L"--stem", given};
    struct Push {
        Answer answer; // null: none
        DWORD exitCode;
        std::string output, error = {}, left = {}; // parts of output and error, the drop after
        std::vector<std::wstring> more = {};       // further arguments ("--stem" first: given)
        std::wstring stem = L"Cloud";
        std::string earlier = {}; // an earlier answer present beforehand
        bool waiting = false;     // another request of the same name is waiting
    } cases[] = {
        {answerWith(line(0)), 0, line(0) + started, "", "", {}, blanks},
        {answerWith(line(3)), 3, line(3) + trust, "", "", {}, accents},
        {answerWith(line(8)), 14, line(8) + "\r\n", unknown, "", stemGiven, given},
        // An answer already there belongs to an earlier request, however fresh.
        {answerWith(line(6), 700), 6, line(6) + untrusted, "", "", {}, L"Cloud", old},
        {longAgo, 5, line(5), "", "Cloud.msi"},
        {keptOpen, 5, line(5), "", "Cloud.msi"},
        // No answer in time: our marker goes, the package may be in the service's hands.
        {nullptr, 12, "", withdrawn, "Cloud.msi", oneSecond},
        {takeOnly, 12, "", untaken, "Cloud.msi", oneSecond},
        // Another request of the same name is waiting: it stays as it was, no push.
        {nullptr, 13, "", waitingText, "Cloud.msi Cloud.pending", {}, L"Cloud", "", true},
    };
    for (const Push& c : cases) {
        SCOPED_TRACE(&c - cases);
        Spool spool;
        ASSERT_TRUE(CreateDirectoryW(spool.results.c_str(), nullptr));
        if (!c.earlier.empty()) {
            ASSERT_TRUE(WriteFileBytes(spool.results + L"\\" + c.stem + L".result", c.earlier));
        }
        if (c.waiting) {
            ASSERT_TRUE(CreateDirectoryW(spool.root.Join(L"ProgramData").c_str(), nullptr));
            ASSERT_TRUE(CreateDirectoryW(spool.drop.c_str(), nullptr));
            ASSERT_TRUE(WriteFileBytes(spool.drop + L"\\Cloud.msi", "theirs"));
            ASSERT_TRUE(WriteFileBytes(spool.drop + L"\\Cloud.pending", ""));
        }
        const std::wstring msi = spool.drop + L"\\" + c.stem + L".msi";
        const std::wstring pending = spool.drop + L"\\" + c.stem + L".pending";
        std::atomic<bool> stop{false};
        std::atomic<int> partial{0}, early{0};
        std::thread watcher;
        bool placed = false;
        FakeService service([&] {
            stop = true; // the watcher's reads would stand in the way of taking the package
            if (watcher.joinable())
                watcher.join();
            std::string seen;
            placed = ReadFileBytes(msi, seen) && seen == spool.bytes && PathExists(pending);
            if (c.answer)
                c.answer(spool, c.stem);
        });
        ASSERT_TRUE(service.created) << "an update service is running in this prefix";
        // Watches the drop directory as often as it can until the push comes.
        if (!c.waiting) {
            watcher = std::thread([&] {
                while (!stop) {
                    const bool marked = PathExists(pending);
                    WIN32_FILE_ATTRIBUTE_DATA data;
                    std::string seen;
                    if (GetFileAttributesExW(msi.c_str(), GetFileExInfoStandard, &data)) {
                        partial += data.nFileSizeLow != spool.bytes.size() ||
                                   (ReadFileBytes(msi, seen) && seen != spool.bytes);
                    }
                    early += marked && !(ReadFileBytes(msi, seen) && seen == spool.bytes);
                }
            });
        }
        const bool given = !c.more.empty() && c.more[0] == L"--stem";
        const ULONGLONG start = GetTickCount64();
        const ProcessResult run = RunTool(
            spool.Arguments(spool.Package(given ? L"plain.msi" : c.stem + L".msi"), c.more));
        const ULONGLONG elapsed = GetTickCount64() - start;
        EXPECT_EQ(service.Pushes(), c.waiting ? 0 : 1);
        stop = true;
        if (watcher.joinable())
            watcher.join();
        EXPECT_EQ(placed, !c.waiting);
        EXPECT_EQ(partial.load(), 0);
        EXPECT_EQ(early.load(), 0);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
        EXPECT_TRUE(Contains(run.out, c.output)) << run.out;
        EXPECT_TRUE(Contains(run.err, c.error)) << run.err;
        EXPECT_EQ(c.error.empty(), run.err.empty()) << run.err;
        EXPECT_TRUE(c.earlier.empty() || !Contains(run.out, c.earlier)) << run.out;
        EXPECT_TRUE(c.exitCode != 0 || Contains(run.out, Narrow(msi))) << run.out;
        EXPECT_TRUE(c.waiting || Contains(run.out, "Created the drop directory [" +
                                                       Narrow(spool.drop) + "].\r\n"))
            << run.out;
        EXPECT_TRUE(c.exitCode != 12 || (elapsed >= 1000 && elapsed < 10000)) << elapsed;
        EXPECT_EQ(Listing(spool.drop), c.left);
        std::string kept;
        EXPECT_TRUE(c.left.empty() ||
                    (ReadFileBytes(msi, kept) && kept == (c.waiting ? "theirs" : spool.bytes)));
    }
}
