#include "signature.h"

#include <msi.h>
#include <softpub.h>
#include <wintrust.h>

#include <cwchar>

#include "handles.h"

namespace {

constexpr wchar_t kCompanyName[] = L"Korvanta Labs";
constexpr uint32_t kCompanyNameLength = sizeof(kCompanyName) / sizeof(wchar_t) - 1;
constexpr char kOidOrganizationName[] = "2.5.4.10";
constexpr char kOidOrganizationalUnitName[] = "2.5.4.11";

// The sizes the verifier is handed; they match the platform's own on x64.
static_assert(sizeof(WINTRUST_FILE_INFO) == 32, "WINTRUST_FILE_INFO must be 32 bytes");
static_assert(sizeof(WINTRUST_DATA) == 80, "WINTRUST_DATA must be 80 bytes");

bool IsCompanyName(const WStr& name) {
    return name.Length() == kCompanyNameLength &&
           wmemcmp(name.Text(), kCompanyName, kCompanyNameLength) == 0;
}

} // namespace

bool VerifyFileTrust(const Str& path, HANDLE handle) {
    const WStr widePath = WStr::FromUtf8(path);

    WINTRUST_FILE_INFO file = {};
    file.cbStruct = 32;
    file.pcwszFilePath = widePath.Text();
    file.hFile = handle;
    file.pgKnownSubject = nullptr;

    WINTRUST_DATA data = {};
    data.cbStruct = 80;
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file;
    data.dwStateAction = WTD_STATEACTION_VERIFY;

    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    const LONG result = WinVerifyTrust(nullptr, &action, &data);

    // Release the verifier's state whatever the verdict was.
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    WinVerifyTrust(nullptr, &action, &data);

    return result == 0;
}

bool IsCompanySigned(const Str& path) {
    const WStr widePath = WStr::FromUtf8(path);
    PCCERT_CONTEXT obtained = nullptr;
    const HRESULT hr =
        MsiGetFileSignatureInformationW(widePath.Text(), 0, &obtained, nullptr, nullptr);
    // Owned before anything is decided, so that it is freed on every path.
    const UniqueCertificate certificate(obtained);
    if (FAILED(hr) || !certificate)
        return false;

    if (IsCompanyName(GetCertificateNameAttribute(certificate.Get(), kOidOrganizationName)))
        return true;
    // Signers whose organization differs but whose unit is the company count as
    // the company too.
    return IsCompanyName(
        GetCertificateNameAttribute(certificate.Get(), kOidOrganizationalUnitName));
}

WStr GetCertificateNameAttribute(PCCERT_CONTEXT certificate, const char* oid) {
    WStr name;
    const DWORD length =
        CertGetNameStringW(certificate, CERT_NAME_ATTR_TYPE, 0, const_cast<char*>(oid), nullptr, 0);
    // Only the terminator: the subject has no such attribute.
    if (length < 2)
        return name;
    wchar_t* buffer = name.Reserve(length - 1);
    if (buffer == nullptr)
        return WStr();
    if (CertGetNameStringW(certificate, CERT_NAME_ATTR_TYPE, 0, const_cast<char*>(oid), buffer,
                           length) > 1)
        return name;
    return WStr();
}
