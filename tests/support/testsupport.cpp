#include "testsupport.h"

#include <atomic>
#include <thread>
#include <vector>

namespace testsupport {

std::wstring Env(const wchar_t* name) {
    wchar_t buffer[32768];
    const DWORD n = GetEnvironmentVariableW(name, buffer, 32768);
    return n == 0 || n >= 32768 ? std::wstring() : std::wstring(buffer, n);
}

std::string Narrow(const std::wstring& text) {
    if (text.empty())
        return {};
    const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                      nullptr, 0, nullptr, nullptr);
    std::string out(n, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n,
                        nullptr, nullptr);
    return out;
}

std::wstring Widen(const std::string& text) {
    if (text.empty())
        return {};
    const int n =
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(n, L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
    return out;
}

namespace {

void Drain(HANDLE pipe, std::string* sink) {
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(pipe, buffer, sizeof buffer, &got, nullptr) && got > 0)
        sink->append(buffer, got);
}

std::vector<wchar_t> BuildEnvironment(const std::wstring& extra) {
    std::vector<wchar_t> block;
    LPWCH current = GetEnvironmentStringsW();
    for (const wchar_t* p = current; *p; p += wcslen(p) + 1) {
        std::wstring entry(p);
        const size_t eq = entry.find(L'=', 1);
        bool overridden = false;
        size_t start = 0;
        while (start < extra.size() && eq != std::wstring::npos) {
            size_t end = extra.find(L'\n', start);
            if (end == std::wstring::npos)
                end = extra.size();
            const std::wstring item = extra.substr(start, end - start);
            if (_wcsnicmp(item.c_str(), entry.c_str(), eq + 1) == 0)
                overridden = true;
            start = end + 1;
        }
        if (!overridden)
            block.insert(block.end(), entry.c_str(), entry.c_str() + entry.size() + 1);
    }
    FreeEnvironmentStringsW(current);
    size_t start = 0;
    while (start < extra.size()) {
        size_t end = extra.find(L'\n', start);
        if (end == std::wstring::npos)
            end = extra.size();
        const std::wstring item = extra.substr(start, end - start);
        // "NAME=" alone removes the variable.
        if (!item.empty() && item.back() != L'=')
            block.insert(block.end(), item.c_str(), item.c_str() + item.size() + 1);
        start = end + 1;
    }
    block.push_back(L'\0');
    return block;
}

} // namespace

ProcessResult RunProcess(const std::wstring& commandLine, const std::wstring& environment,
                         DWORD timeoutMs) {
    ProcessResult result;
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    HANDLE outRead, outWrite, errRead, errWrite;
    if (!CreatePipe(&outRead, &outWrite, &sa, 0))
        return result;
    if (!CreatePipe(&errRead, &errWrite, &sa, 0)) {
        CloseHandle(outRead);
        CloseHandle(outWrite);
        return result;
    }
    SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(errRead, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    si.hStdOutput = outWrite;
    si.hStdError = errWrite;
    PROCESS_INFORMATION pi{};
    std::vector<wchar_t> cmd(commandLine.begin(), commandLine.end());
    cmd.push_back(L'\0');
    std::vector<wchar_t> env;
    if (!environment.empty())
        env = BuildEnvironment(environment);
    result.started =
        CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                       env.empty() ? nullptr : env.data(), nullptr, &si, &pi) != FALSE;
    CloseHandle(outWrite);
    CloseHandle(errWrite);
    if (result.started) {
        std::thread errThread(Drain, errRead, &result.err);
        Drain(outRead, &result.out);
        errThread.join();
        if (WaitForSingleObject(pi.hProcess, timeoutMs) != WAIT_OBJECT_0)
            TerminateProcess(pi.hProcess, 999);
        GetExitCodeProcess(pi.hProcess, &result.exitCode);
        CloseHandle(pi.hThread);
        CloseHandle(pi.hProcess);
    }
    CloseHandle(outRead);
    CloseHandle(errRead);
    return result;
}

ScratchDir::ScratchDir(const std::wstring& tag) {
    static std::atomic<unsigned> serial{0};
    std::wstring base = Env(L"KVT_BUILD_DIR");
    if (base.empty()) {
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        base = temp;
    }
    base += L"\\scratch";
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
    HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = data.cFileName;
            if (name == L"." || name == L"..")
                continue;
            const std::wstring child = path + L"\\" + name;
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                RemoveTree(child);
            } else {
                SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
                DeleteFileW(child.c_str());
            }
        } while (FindNextFileW(find, &data));
        FindClose(find);
    }
    RemoveDirectoryW(path.c_str());
}

bool WriteFileBytes(const std::wstring& path, const std::string& bytes) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    const bool ok =
        WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
        written == bytes.size();
    CloseHandle(file);
    return ok;
}

bool ReadFileBytes(const std::wstring& path, std::string& bytes) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    bytes.clear();
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0)
        bytes.append(buffer, got);
    CloseHandle(file);
    return true;
}

bool PathExists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool WaitForPath(const std::wstring& path, DWORD timeoutMs) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    while (!PathExists(path)) {
        if (GetTickCount64() > deadline)
            return false;
        Sleep(100);
    }
    return true;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

std::wstring ReadRegistryString(HKEY root, const wchar_t* key, const wchar_t* value) {
    wchar_t text[1024] = {};
    DWORD bytes = sizeof text;
    if (RegGetValueW(root, key, value, RRF_RT_REG_SZ, nullptr, text, &bytes) != ERROR_SUCCESS)
        return L"";
    return text;
}

} // namespace testsupport
