// Trust and signer checks against real signed packages made by
// tests/fixtures/make-fixtures.sh, with the test CA trusted as on Windows.
#include <gtest/gtest.h>

#include <windows.h>

#include <msi.h>
#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <string>
#include <tuple>

#include "signature.h"
#include "testca.h"
#include "testsupport.h"

namespace {

using testsupport::FixturePath;
using testsupport::Narrow;

bool UnderWine() {
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

Str Utf8(const std::wstring& path) {
    return Str(Narrow(path).c_str());
}

std::wstring Wide(const WStr& text) {
    return std::wstring(text.Text(), text.Length());
}

// The platform's own verdict, for comparison with VerifyFileTrust.
LONG WinVerifyTrustCode(const std::wstring& path) {
    WINTRUST_FILE_INFO file = {sizeof(file), path.c_str(), nullptr, nullptr};
    WINTRUST_DATA data = {};
    data.cbStruct = sizeof(data);
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file;
    data.dwStateAction = WTD_STATEACTION_VERIFY;
    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    const LONG code = WinVerifyTrust(nullptr, &action, &data);
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    WinVerifyTrust(nullptr, &action, &data);
    return code;
}

// Owns a certificate context (none of the shared owners covers one).
struct Certificate {
    PCCERT_CONTEXT context = nullptr;
    ~Certificate() { CertFreeCertificateContext(context); }
};

class SignatureTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(testsupport::Env(L"KVT_FIXTURES").empty());
        ASSERT_TRUE(testsupport::TrustTestCa()) << "error " << GetLastError();
    }
};

// Copies go to a name with blanks and characters outside every ANSI code page: the UTF-8
// path must reach the wide interfaces intact. The issuing CA has O and OU "Korvanta Labs":
// reading the issuer instead of the signer's subject shows up as a wrong or non-empty value.
TEST_F(SignatureTest, TrustAndSignerOfEachPackage) {
    // Package, trusted, company-signed, WinVerifyTrust's result under Wine (Windows may
    // differ on failures), the signer's O and OU (null: no signer to look at).
    using W = const wchar_t*;
    const std::tuple<W, bool, bool, LONG, W, W> rows[] = {
        {L"signed-korvanta.msi", true, true, 0, L"Korvanta Labs", L""},
        {L"signed-ou.msi", true, true, 0, L"Other", L"Korvanta Labs"},
        {L"signed-lower.msi", true, false, 0, L"korvanta labs", L""},
        {L"signed-blank.msi", true, false, 0, L"Korvanta Labs ", L""},
        {L"signed-other.msi", true, false, 0, L"Other", L""},
        {L"signed-noo-ou.msi", true, true, 0, L"", L"Korvanta Labs"},
        {L"unsigned.msi", false, false, TRUST_E_NOSIGNATURE, nullptr, nullptr},
        // The signature value does not verify, so the installer hands out no signer.
        {L"damaged-signature.msi", false, false, TRUST_E_CERT_SIGNATURE, nullptr, nullptr},
        {L"no-such-package.msi", false, false, ERROR_FILE_NOT_FOUND, nullptr, nullptr},
    };
    testsupport::ScratchDir dir(L"signature");
    const std::wstring copy = dir.Join(L"Gr\u00FC\u00DFe \u03A9\u20AC \U0001F600.msi");
    for (const auto& [file, trusted, company, wineCode, organization, unit] : rows) {
        const std::wstring path = FixturePath(file);
        SCOPED_TRACE(Narrow(file));
        const LONG code = WinVerifyTrustCode(path);
        EXPECT_EQ(code, UnderWine() ? wineCode : code);
        EXPECT_EQ(code == 0, trusted);
        CopyFileW(path.c_str(), copy.c_str(), FALSE); // the missing one stays missing
        for (const std::wstring& where : {path, copy}) {
            EXPECT_EQ(VerifyFileTrust(Utf8(where)), trusted);
            EXPECT_EQ(IsCompanySigned(Utf8(where)), company);
        }
        DeleteFileW(copy.c_str());
        Certificate cert; // the signer as the installer reports it
        EXPECT_EQ(MsiGetFileSignatureInformationW(path.c_str(), 0, &cert.context, nullptr,
                                                  nullptr) == S_OK,
                  organization != nullptr);
        if (organization != nullptr && cert.context != nullptr) {
            EXPECT_EQ(Wide(GetCertificateNameAttribute(cert.context, "2.5.4.10")), organization);
            EXPECT_EQ(Wide(GetCertificateNameAttribute(cert.context, "2.5.4.11")), unit);
            EXPECT_TRUE(GetCertificateNameAttribute(cert.context, "2.5.4.7").IsEmpty());
        }
    }
    // A directory and an empty path are no signed files.
    EXPECT_FALSE(VerifyFileTrust(Utf8(dir.Path())) || IsCompanySigned(Utf8(dir.Path())));
    EXPECT_FALSE(VerifyFileTrust(Str()) || IsCompanySigned(Str()));
}

// Wine accepts a chain that ends in a root nobody trusts; Windows must refuse it
// (CERT_E_UNTRUSTEDROOT), and that refusal is what keeps foreign packages out.
TEST_F(SignatureTest, WindowsOnly_UntrustedRootRefused) {
    const std::wstring path = FixturePath(L"signed-untrusted.msi");
    if (UnderWine())
        GTEST_SKIP() << "Wine's WinVerifyTrust does not check that the root is trusted (it says "
                     << std::hex << WinVerifyTrustCode(path) << ")";
    EXPECT_EQ(WinVerifyTrustCode(path), CERT_E_UNTRUSTEDROOT);
    EXPECT_FALSE(VerifyFileTrust(Utf8(path)));
}

// Wine does not compare an MSI package's content with its signed digest;
// Windows must refuse a package changed after signing (TRUST_E_BAD_DIGEST).
TEST_F(SignatureTest, WindowsOnly_ChangedContentRefused) {
    std::string bytes;
    ASSERT_TRUE(testsupport::ReadFileBytes(FixturePath(L"signed-korvanta.msi"), bytes));
    // The product name is covered by the signature and not part of it.
    const size_t at = bytes.find("Korvanta Test Fixture");
    ASSERT_NE(at, std::string::npos);
    bytes[at + 20] = 'f';
    testsupport::ScratchDir dir(L"signature");
    const std::wstring path = dir.Join(L"changed.msi");
    ASSERT_TRUE(testsupport::WriteFileBytes(path, bytes));
    if (UnderWine())
        GTEST_SKIP() << "Wine's WinVerifyTrust does not check an MSI package's digest (it says "
                     << std::hex << WinVerifyTrustCode(path) << ")";
    EXPECT_EQ(WinVerifyTrustCode(path), TRUST_E_BAD_DIGEST);
    EXPECT_FALSE(VerifyFileTrust(Utf8(path)));
}

} // namespace
