// Trust and signer checks against real signed packages made by
// tests/fixtures/make-fixtures.sh, with the test CA trusted as on Windows.
#include <gtest/gtest.h>

#include <windows.h>

#include <msi.h>
#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <cstdio>
#include <string>

#include "signature.h"
#include "testca.h"
#include "testsupport.h"

namespace {

using testsupport::FixturePath;
using testsupport::Narrow;

bool UnderWine() {
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

Str Utf8(const std::wstring& path) {
    const std::string text = Narrow(path);
    return Str(text.c_str(), static_cast<uint32_t>(text.size()));
}

std::string Hex(LONG code) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08lX", static_cast<unsigned long>(code));
    return text;
}

std::wstring Wide(const WStr& text) {
    return std::wstring(text.Text(), text.Length());
}

// The platform's own verdict, for comparison with VerifyFileTrust.
LONG WinVerifyTrustCode(const std::wstring& path) {
    WINTRUST_FILE_INFO file = {};
    file.cbStruct = sizeof(file);
    file.pcwszFilePath = path.c_str();
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

struct Certificate {
    PCCERT_CONTEXT context = nullptr;
    Certificate() = default;
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;
    ~Certificate() {
        if (context != nullptr)
            CertFreeCertificateContext(context);
    }
};

// A signer certificate straight from its PEM file, not through a package.
bool LoadPemCertificate(const std::wstring& path, Certificate& certificate) {
    std::string pem;
    if (!testsupport::ReadFileBytes(path, pem))
        return false;
    DWORD size = 0;
    if (!CryptStringToBinaryA(pem.data(), static_cast<DWORD>(pem.size()), CRYPT_STRING_BASE64HEADER,
                              nullptr, &size, nullptr, nullptr))
        return false;
    std::string der(size, '\0');
    if (!CryptStringToBinaryA(pem.data(), static_cast<DWORD>(pem.size()), CRYPT_STRING_BASE64HEADER,
                              reinterpret_cast<BYTE*>(der.data()), &size, nullptr, nullptr))
        return false;
    certificate.context = CertCreateCertificateContext(
        X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()), size);
    return certificate.context != nullptr;
}

class SignatureTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(testsupport::Env(L"KVT_FIXTURES").empty());
        ASSERT_TRUE(testsupport::TrustTestCa()) << "error " << GetLastError();
    }
};

TEST_F(SignatureTest, TrustAndSignerOfEachPackage) {
    struct Row {
        const wchar_t* file;
        bool trusted;
        bool company;
        LONG wineCode; // WinVerifyTrust's result under Wine; Windows may differ on failures
    };
    const Row rows[] = {
        {L"signed-korvanta.msi", true, true, 0},
        {L"signed-ou.msi", true, true, 0},
        {L"signed-lower.msi", true, false, 0},
        {L"signed-blank.msi", true, false, 0},
        {L"signed-other.msi", true, false, 0},
        {L"signed-noo-ou.msi", true, true, 0},
        {L"unsigned.msi", false, false, TRUST_E_NOSIGNATURE},
        // The signer's signature value does not verify. The certificate itself is
        // intact, but the installer verifies before it hands out the signer, so
        // there is no certificate to look at.
        {L"damaged-signature.msi", false, false, TRUST_E_CERT_SIGNATURE},
        {L"no-such-package.msi", false, false, ERROR_FILE_NOT_FOUND},
    };
    const bool wine = UnderWine();
    for (const Row& row : rows) {
        const std::wstring path = FixturePath(row.file);
        SCOPED_TRACE(Narrow(row.file));
        const LONG code = WinVerifyTrustCode(path);
        std::printf("WinVerifyTrust %-24ls %s\n", row.file, Hex(code).c_str());
        if (wine) {
            EXPECT_EQ(code, row.wineCode);
        }
        EXPECT_EQ(code == 0, row.trusted);
        EXPECT_EQ(VerifyFileTrust(Utf8(path)), row.trusted);
        EXPECT_EQ(IsCompanySigned(Utf8(path)), row.company);
    }
}

// The UTF-8 path must reach the wide interfaces intact: blanks and characters
// outside every ANSI code page.
TEST_F(SignatureTest, PathsWithBlanksAndNonAsciiCharacters) {
    testsupport::ScratchDir dir(L"signature");
    struct Row {
        const wchar_t* source;
        const wchar_t* copy;
        bool trusted;
        bool company;
    };
    const Row rows[] = {
        {L"signed-korvanta.msi", L"Korvanta Gr\u00FC\u00DFe \u03A9\u20AC \U0001F600.msi", true,
         true},
        {L"signed-other.msi", L"andere Gr\u00FC\u00DFe \u03A9.msi", true, false},
        {L"unsigned.msi", L"unsign\u00E9 \u03A9.msi", false, false},
    };
    for (const Row& row : rows) {
        const std::wstring path = dir.Join(row.copy);
        SCOPED_TRACE(Narrow(path));
        ASSERT_TRUE(CopyFileW(FixturePath(row.source).c_str(), path.c_str(), FALSE));
        EXPECT_EQ(VerifyFileTrust(Utf8(path)), row.trusted);
        EXPECT_EQ(IsCompanySigned(Utf8(path)), row.company);
    }
    // A directory and an empty path are no signed files.
    EXPECT_FALSE(VerifyFileTrust(Utf8(dir.Path())));
    EXPECT_FALSE(IsCompanySigned(Utf8(dir.Path())));
    EXPECT_FALSE(VerifyFileTrust(Str()));
    EXPECT_FALSE(IsCompanySigned(Str()));
}

TEST_F(SignatureTest, SubjectAttributesOfTheSignerCertificates) {
    struct Row {
        const wchar_t* signer;
        const wchar_t* organization;
        const wchar_t* unit;
    };
    // The issuing CA has O and OU "Korvanta Labs": reading the issuer instead of
    // the subject shows up as a wrong or non-empty value here.
    const Row rows[] = {
        {L"korvanta", L"Korvanta Labs", L""},
        {L"ou", L"Other", L"Korvanta Labs"},
        {L"lower", L"korvanta labs", L""},
        {L"blank", L"Korvanta Labs ", L""},
        {L"other", L"Other", L""},
        {L"noo-ou", L"", L"Korvanta Labs"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(Narrow(row.signer));
        // From the certificate file ...
        Certificate file;
        ASSERT_TRUE(
            LoadPemCertificate(FixturePath(L"signer-" + std::wstring(row.signer) + L".crt"), file));
        EXPECT_EQ(Wide(GetCertificateNameAttribute(file.context, "2.5.4.10")), row.organization);
        EXPECT_EQ(Wide(GetCertificateNameAttribute(file.context, "2.5.4.11")), row.unit);
        // ... and as the installer reports the signer of the package.
        Certificate signer;
        const std::wstring package = FixturePath(L"signed-" + std::wstring(row.signer) + L".msi");
        ASSERT_EQ(
            MsiGetFileSignatureInformationW(package.c_str(), 0, &signer.context, nullptr, nullptr),
            S_OK);
        ASSERT_NE(signer.context, nullptr);
        EXPECT_TRUE(CertCompareCertificate(X509_ASN_ENCODING, signer.context->pCertInfo,
                                           file.context->pCertInfo));
        EXPECT_EQ(Wide(GetCertificateNameAttribute(signer.context, "2.5.4.10")), row.organization);
        EXPECT_EQ(Wide(GetCertificateNameAttribute(signer.context, "2.5.4.11")), row.unit);
    }

    Certificate korvanta;
    ASSERT_TRUE(LoadPemCertificate(FixturePath(L"signer-korvanta.crt"), korvanta));
    EXPECT_EQ(Wide(GetCertificateNameAttribute(korvanta.context, "2.5.4.3")),
              L"Korvanta Test Signer");
    // Attributes the subject does not have: locality, country.
    EXPECT_TRUE(GetCertificateNameAttribute(korvanta.context, "2.5.4.7").IsEmpty());
    EXPECT_TRUE(GetCertificateNameAttribute(korvanta.context, "2.5.4.6").IsEmpty());
}

// Packages made on demand for other tests: names with blanks and characters
// outside every ANSI code page, in the package and in its file name.
TEST_F(SignatureTest, PackagesMadeOnDemand) {
    if (!UnderWine())
        GTEST_SKIP() << "the packages are made by a Unix script that Wine starts";
    testsupport::ScratchDir dir(L"signature");
    struct Row {
        const wchar_t* name;
        const wchar_t* signer;
        const wchar_t* file;
        bool trusted;
        bool company;
    };
    const Row rows[] = {
        {L"Extra Gr\u00FC\u00DFe \u03A9", L"korvanta", L"Gr\u00FC\u00DFe \u03A9 \u20AC.msi", true,
         true},
        {L"Extra ou", L"ou", L"extra ou.msi", true, true},
        {L"Extra other", L"other", L"extra other.msi", true, false},
        {L"Extra unsigned", L"unsigned", L"extra unsigned.msi", false, false},
        {L"Extra damaged", L"damaged", L"extra damaged.msi", false, false},
    };
    for (const Row& row : rows) {
        const std::wstring path = dir.Join(row.file);
        SCOPED_TRACE(Narrow(path));
        ASSERT_TRUE(testsupport::MakeFixturePackage(row.name, row.signer, path));
        EXPECT_EQ(VerifyFileTrust(Utf8(path)), row.trusted);
        EXPECT_EQ(IsCompanySigned(Utf8(path)), row.company);
    }
    EXPECT_FALSE(testsupport::MakeFixturePackage(L"Extra", L"nobody", dir.Join(L"nobody.msi")));
    EXPECT_FALSE(testsupport::PathExists(dir.Join(L"nobody.msi")));
}

// Wine accepts a chain that ends in a root nobody trusts; Windows must refuse it
// (CERT_E_UNTRUSTEDROOT), and that refusal is what keeps foreign packages out.
TEST_F(SignatureTest, WindowsOnly_UntrustedRootRefused) {
    const std::wstring path = FixturePath(L"signed-untrusted.msi");
    if (UnderWine())
        GTEST_SKIP() << "Wine's WinVerifyTrust does not check that the root is trusted (it says "
                     << Hex(WinVerifyTrustCode(path)) << ")";
    EXPECT_EQ(WinVerifyTrustCode(path), CERT_E_UNTRUSTEDROOT);
    EXPECT_FALSE(VerifyFileTrust(Utf8(path)));
}

// Wine does not compare an MSI package's content with its signed digest;
// Windows must refuse a package changed after signing (TRUST_E_BAD_DIGEST).
TEST_F(SignatureTest, WindowsOnly_ChangedContentRefused) {
    std::string bytes;
    ASSERT_TRUE(testsupport::ReadFileBytes(FixturePath(L"signed-korvanta.msi"), bytes));
    // The product name lives in the string pool and the summary information,
    // both covered by the signature; the signature itself does not contain it.
    const size_t at = bytes.find("Korvanta Test Fixture");
    ASSERT_NE(at, std::string::npos);
    bytes[at + 20] = 'f';
    testsupport::ScratchDir dir(L"signature");
    const std::wstring path = dir.Join(L"changed.msi");
    ASSERT_TRUE(testsupport::WriteFileBytes(path, bytes));
    if (UnderWine())
        GTEST_SKIP() << "Wine's WinVerifyTrust does not check an MSI package's digest (it says "
                     << Hex(WinVerifyTrustCode(path)) << ")";
    EXPECT_EQ(WinVerifyTrustCode(path), TRUST_E_BAD_DIGEST);
    EXPECT_FALSE(VerifyFileTrust(Utf8(path)));
}

} // namespace
