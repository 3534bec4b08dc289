#include "testca.h"

#include <wincrypt.h>

#include <cstdio>

#include "handles.h"
#include "testsupport.h"

namespace testsupport {

namespace {

// The Unix path of a Windows path through Wine's own mapping; "" elsewhere.
std::wstring UnixPath(const std::wstring& path) {
    using Function = char*(CDECL*)(LPCWSTR);
    const HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
    const FARPROC address =
        kernel32 == nullptr ? nullptr : GetProcAddress(kernel32, "wine_get_unix_file_name");
    if (address == nullptr)
        return {};
    char* unixPath = reinterpret_cast<Function>(reinterpret_cast<void*>(address))(path.c_str());
    if (unixPath == nullptr)
        return {};
    std::wstring result = Widen(unixPath);
    HeapFree(GetProcessHeap(), 0, unixPath);
    return result;
}

// One argument, quoted so that the command-line parser gives it back unchanged.
std::wstring Quote(const std::wstring& argument) {
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, L'\\');
    quoted += L'"';
    return quoted;
}

} // namespace

std::wstring FixturePath(const std::wstring& name) {
    return Env(L"KVT_FIXTURES") + L"\\" + name;
}

bool TrustTestCa() {
    std::string der;
    if (!ReadFileBytes(FixturePath(L"ca.der"), der) || der.empty())
        return false;
    const UniqueCertStore store(
        CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root"));
    if (!store)
        return false;
    return CertAddEncodedCertificateToStore(store.Get(), X509_ASN_ENCODING | PKCS_7_ASN_ENCODING,
                                            reinterpret_cast<const BYTE*>(der.data()),
                                            static_cast<DWORD>(der.size()),
                                            CERT_STORE_ADD_REPLACE_EXISTING, nullptr) != FALSE;
}

bool MakeFixturePackage(const std::wstring& name, const std::wstring& signer,
                        const std::wstring& outfile, DWORD timeoutMs) {
    const std::wstring scriptPath = Env(L"KVT_SOURCE_DIR") + L"\\tests\\fixtures\\make-fixtures.sh";
    const std::wstring script = UnixPath(scriptPath);
    const std::wstring fixtures = UnixPath(Env(L"KVT_FIXTURES"));
    const std::wstring target = UnixPath(outfile);
    if (!PathExists(scriptPath) || script.empty() || fixtures.empty() || target.empty())
        return false;
    const std::wstring failed = outfile + L".failed";
    DeleteFileW(outfile.c_str());
    DeleteFileW(failed.c_str());

    // Wine starts Unix programs, with their arguments as given (no path mapping).
    std::wstring command = L"Z:\\bin\\bash " + Quote(script) + L" " + Quote(fixtures) +
                           L" package " + Quote(name) + L" " + Quote(signer) + L" " + Quote(target);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &process))
        return false;
    const UniqueHandle processHandle(process.hProcess);
    const UniqueHandle threadHandle(process.hThread);

    // The process handle of a Unix program is signalled at once, so watch for
    // the script's result instead: the package, or a marker with the message.
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;) {
        if (PathExists(outfile))
            return true;
        if (PathExists(failed)) {
            std::string message;
            ReadFileBytes(failed, message);
            std::fprintf(stderr, "%s", message.c_str());
            DeleteFileW(failed.c_str());
            return false;
        }
        if (GetTickCount64() >= deadline)
            return false;
        Sleep(20);
    }
}

} // namespace testsupport
