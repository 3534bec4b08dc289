#include "testsupport.h"

#include "handles.h"
#include "private/reportstate.h"
#include "trace.h"

#include <cstdio>
#include <utility>

#include <algorithm>
#include <atomic>
#include <thread>

namespace testsupport {

std::wstring Env(const wchar_t* name) {
    wchar_t buffer[32768];
    const DWORD n = GetEnvironmentVariableW(name, buffer, 32768);
    return n == 0 || n >= 32768 ? std::wstring() : std::wstring(buffer, n);
}

std::string Narrow(const std::wstring& text) {
    const int size = static_cast<int>(text.size());
    std::string out(
        WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, out.data(), static_cast<int>(out.size()),
                        nullptr, nullptr);
    return out;
}

std::wstring Widen(const std::string& text) {
    const int size = static_cast<int>(text.size());
    std::wstring out(MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), size, out.data(), static_cast<int>(out.size()));
    return out;
}

namespace {

void Drain(HANDLE pipe, std::string* sink) {
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(pipe, buffer, sizeof buffer, &got, nullptr) && got > 0)
        sink->append(buffer, got);
}

// The current environment less the variables named in extra, then extra's entries
// ("NAME=" alone removes the variable).
std::wstring BuildEnvironment(const std::wstring& extra) {
    const std::vector<std::string> items = SplitLines(Narrow(extra));
    std::wstring block; // entries each with its null, and one more null at the end
    LPWCH current = GetEnvironmentStringsW();
    for (const wchar_t* p = current; *p; p += wcslen(p) + 1) {
        const std::string entry = Narrow(p), key = entry.substr(0, entry.find('=', 1) + 1);
        bool overridden = false;
        for (const std::string& item : items)
            overridden |= _strnicmp(item.c_str(), key.c_str(), key.size()) == 0;
        if (!overridden)
            (block += p) += L'\0';
    }
    FreeEnvironmentStringsW(current);
    for (const std::string& item : items) {
        if (!item.empty() && item.back() != '=')
            (block += Widen(item)) += L'\0';
    }
    return block += L'\0';
}

} // namespace

ProcessResult RunProcess(const std::wstring& commandLine, const std::wstring& environment,
                         DWORD timeoutMs) {
    ProcessResult result;
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    UniqueHandle outRead, outWrite, errRead, errWrite;
    if (!CreatePipe(outRead.Put(), outWrite.Put(), &sa, 0) ||
        !CreatePipe(errRead.Put(), errWrite.Put(), &sa, 0))
        return result;
    SetHandleInformation(outRead.Get(), HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(errRead.Get(), HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    si.hStdOutput = outWrite.Get();
    si.hStdError = errWrite.Get();
    PROCESS_INFORMATION pi{};
    std::wstring env = environment.empty() ? L"" : BuildEnvironment(environment);
    result.started = CreateProcessW(nullptr, std::wstring(commandLine).data(), nullptr, nullptr,
                                    TRUE, CREATE_UNICODE_ENVIRONMENT,
                                    env.empty() ? nullptr : env.data(), nullptr, &si, &pi) != FALSE;
    outWrite.Reset(); // else the reads below never end
    errWrite.Reset();
    if (result.started) {
        const UniqueHandle process(pi.hProcess), thread(pi.hThread);
        std::thread errThread(Drain, errRead.Get(), &result.err);
        Drain(outRead.Get(), &result.out);
        errThread.join();
        if (WaitForSingleObject(pi.hProcess, timeoutMs) != WAIT_OBJECT_0)
            TerminateProcess(pi.hProcess, 999);
        GetExitCodeProcess(pi.hProcess, &result.exitCode);
    }
    return result;
}

ScratchDir::ScratchDir(const std::wstring& tag) {
    static std::atomic<unsigned> serial{0};
    const std::wstring base = Env(L"KVT_BUILD_DIR") + L"\\scratch"; // ctest always sets it
    CreateDirectoryW(base.c_str(), nullptr);
    m_path = base + L"\\" + tag + L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
             std::to_wstring(serial++);
    RemoveTree(m_path);
    CreateDirectoryW(m_path.c_str(), nullptr);
}

ScratchDir::~ScratchDir() {
    RemoveTree(m_path);
}

void RemoveTree(const std::wstring& path) {
    WIN32_FIND_DATAW data;
    UniqueFind find(FindFirstFileW((path + L"\\*").c_str(), &data));
    for (bool more = find.Valid(); more; more = FindNextFileW(find.Get(), &data)) {
        const std::wstring name = data.cFileName, child = path + L"\\" + name;
        if (name == L"." || name == L"..")
            continue;
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            RemoveTree(child);
        } else {
            SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
            DeleteFileW(child.c_str());
        }
    }
    find.Reset();
    RemoveDirectoryW(path.c_str());
}

bool WriteFileBytes(const std::wstring& path, const std::string& bytes) {
    const UniqueHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    return file && WriteFile(file.Get(), bytes.data(), DWORD(bytes.size()), &written, nullptr) &&
           written == bytes.size();
}

bool ReadFileBytes(const std::wstring& path, std::string& bytes) {
    const UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
    bytes.clear();
    Drain(file.Get(), &bytes); // reads nothing from an invalid handle
    return file.Valid();
}

bool PathExists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool WaitForPath(const std::wstring& path, DWORD timeoutMs) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    while (!PathExists(path) && GetTickCount64() <= deadline)
        Sleep(100);
    return PathExists(path);
}

namespace {
std::string s_reportLines;
}

ReportLines::ReportLines(bool bare) {
    s_reportLines.clear();
    // Flags of exactly 0xF000: no letters, no columns, no ": ".
    GetThreadReportState()->headerFlagsOverride = bare;
    GetThreadReportState()->headerFlags = 0xF000;
    SetTraceHook(
        [](const char* line, uint32_t) { return s_reportLines += line + std::string("\n"), true; });
}

ReportLines::~ReportLines() {
    SetTraceHook(nullptr);
    GetThreadReportState()->headerFlagsOverride = false;
}

std::string ReportLines::Take() {
    return std::exchange(s_reportLines, std::string());
}

bool ReportLines::Contains(const std::string& part) const {
    return s_reportLines.find(part) != std::string::npos;
}

std::string PlatformErrorText(DWORD code) {
    wchar_t text[512] = {};
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                       FORMAT_MESSAGE_MAX_WIDTH_MASK,
                   nullptr, code, 0, text, 512, nullptr);
    std::string out = Narrow(text);
    out.erase(out.find_last_not_of("\r\n ") + 1);
    char number[32];
    snprintf(number, sizeof number, " (0x%08lX/%lu)", code, code);
    return out + number;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        if (!lines.back().empty() && lines.back().back() == '\r')
            lines.back().pop_back();
    }
    return lines;
}

std::wstring ReadRegistryString(HKEY root, const wchar_t* key, const wchar_t* value) {
    wchar_t text[1024] = {};
    DWORD bytes = sizeof text;
    return RegGetValueW(root, key, value, RRF_RT_REG_SZ, nullptr, text, &bytes) == ERROR_SUCCESS
               ? text
               : L"";
}

} // namespace testsupport
