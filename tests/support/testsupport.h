// Helpers shared by the tests: environment, child processes, scratch directories.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

// An environment variable of the test run ("" when absent).
std::wstring Env(const wchar_t* name);
std::string Narrow(const std::wstring& text); // UTF-16 -> UTF-8
std::wstring Widen(const std::string& text);  // UTF-8 -> UTF-16

struct ProcessResult {
    bool started = false;
    DWORD exitCode = 0;
    std::string out; // standard output, raw bytes
    std::string err; // standard error, raw bytes
};

// Runs a command line to its end with standard output and error captured.
// environment: extra "NAME=value" entries separated by '\n' (empty: inherit as is).
ProcessResult RunProcess(const std::wstring& commandLine, const std::wstring& environment = L"",
                         DWORD timeoutMs = 60000);

// A fresh directory below the build tree's scratch area, removed by its owner's destructor.
class ScratchDir {
  public:
    explicit ScratchDir(const std::wstring& tag);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::wstring& Path() const { return m_path; }
    std::wstring Join(const std::wstring& name) const { return m_path + L"\\" + name; }

  private:
    std::wstring m_path;
};

void RemoveTree(const std::wstring& path);
bool WriteFileBytes(const std::wstring& path, const std::string& bytes);
bool ReadFileBytes(const std::wstring& path, std::string& bytes);
bool PathExists(const std::wstring& path);
// Polls until the path exists or the time runs out.
bool WaitForPath(const std::wstring& path, DWORD timeoutMs);

// The report lines written while one lives (through the trace hook, which it
// installs and removes). Bare: this thread's lines come without a header.
class ReportLines {
  public:
    explicit ReportLines(bool bare = false);
    ~ReportLines();
    ReportLines(const ReportLines&) = delete;
    ReportLines& operator=(const ReportLines&) = delete;
    // The lines so far, each followed by '\n', and forgets them.
    std::string Take();
    bool Contains(const std::string& part) const;
};

// The system's own text for an error code, as FormatSystemError quotes it:
// "<text> (0x%08lX/%lu)".
std::string PlatformErrorText(DWORD code);

// The lines of a text, split at LF with a CR before it removed.
std::vector<std::string> SplitLines(const std::string& text);
// A REG_SZ value ("" when absent).
std::wstring ReadRegistryString(HKEY root, const wchar_t* key, const wchar_t* value);

} // namespace testsupport
