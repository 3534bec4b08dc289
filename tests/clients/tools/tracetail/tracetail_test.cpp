// The trace viewer as a developer runs it: started first, it takes whole lines
// from several writing processes at once and sets the session's header word.
// The trace pipe and map are common to the prefix: this runs under their lock.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "handles.h"
#include "report.h"
#include "testsupport.h"
#include "trace.h"

using namespace testsupport;

namespace {

// tracetail with its standard output in a file; ended by the destructor.
struct Viewer {
    ScratchDir dir{L"tracetail"};
    std::wstring out = dir.Join(L"out.txt"), copy = dir.Join(L"copy.txt");
    PROCESS_INFORMATION process{};
    explicit Viewer(const std::wstring& options) {
        SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
        UniqueHandle file(CreateFileW(out.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                                      CREATE_ALWAYS, 0, nullptr));
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = startup.hStdError = file.Get();
        std::wstring command = L"\"" + Env(L"KVT_BUILD_DIR") +
                               L"\\clients\\tools\\tracetail\\tracetail.exe\" --file \"" + copy +
                               L"\" " + options;
        CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                       &startup, &process);
        // Serving once its pipe can be opened.
        for (int i = 0; i < 200 && !WaitNamedPipeA("\\\\.\\pipe\\ZemTracePipe", 50); ++i)
            Sleep(25);
    }
    ~Viewer() {
        TerminateProcess(process.hProcess, 0);
        WaitForSingleObject(process.hProcess, 5000);
        CloseHandle(process.hProcess), CloseHandle(process.hThread);
    }
    std::vector<std::string> Lines(const std::wstring& path) const {
        std::string text;
        ReadFileBytes(path, text);
        return SplitLines(text);
    }
};

size_t Count(const std::vector<std::string>& lines, const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
}

} // namespace

TEST(TraceTail, WholeLinesFromSeveralWritersAtOnce) {
    Viewer viewer(L"--pid --module --filter Korvanta");
    ASSERT_NE(viewer.process.hProcess, nullptr) << GetLastError();
    // The service's executable reports an unknown log type on its way.
    std::thread service([] {
        RunProcess(L"\"" + Env(L"KVT_BUILD_DIR") +
                       L"\\clients\\services\\winupdate\\KorvantaCloudUS.exe\"",
                   L"LOGTYPE=bogus");
    });
    const std::string pid =
        StrFormat("|0x%lx|%s: ", GetCurrentProcessId(), GetModuleBaseName().Text()).Text();
    std::vector<std::thread> writers;
    for (int w = 0; w < 2; ++w)
        writers.emplace_back([w] {
            for (int i = 0; i < 300; ++i)
                WriteReportF(4096, 2, nullptr, 0, "Korvanta writer %d line %d %s", w, i,
                             std::string(200, char('a' + i % 26)).c_str());
        });
    for (std::thread& writer : writers)
        writer.join();
    WriteReport(4096, 2, nullptr, 0, "left out by the filter");
    service.join();
    Sleep(500);
    for (const std::wstring& path : {viewer.out, viewer.copy}) {
        const std::vector<std::string> lines = viewer.Lines(path);
        SCOPED_TRACE(Narrow(path));
        size_t missing = 0;
        for (int w = 0; w < 2; ++w)
            for (int i = 0; i < 300; ++i)
                missing +=
                    Count(lines, StrFormat("EX%sKorvanta writer %d line %d %s", pid.c_str(), w, i,
                                           std::string(200, char('a' + i % 26)).c_str())
                                     .Text()) != 1;
        EXPECT_EQ(missing, 0u) << lines.size() << " lines";
        EXPECT_EQ(Count(lines, "EX" + pid + "left out by the filter"), 0u);
        bool fromService = false;
        for (const std::string& line : lines)
            fromService =
                fromService || (line.find("|KorvantaCloudUS: GetLogType: Unknown type [bogus]") !=
                                    std::string::npos &&
                                line.find(pid) == std::string::npos);
        EXPECT_TRUE(fromService);
    }
    EXPECT_EQ(GetSharedHeaderFlags(), kHeaderProcessId | kHeaderModule);
}
