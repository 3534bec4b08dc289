// Trust and signer checks against real signed packages made by
// tests/fixtures/make-fixtures.sh, with the test CA trusted as on Windows.
#include <gtest/gtest.h>

#include <windows.h>

#include <msi.h>

#include <string>
#include <tuple>

#include "handles.h"
#include "servicectl.h"
#include "signature.h"
#include "testca.h"
#include "testsupport.h"

namespace {

using testsupport::FixturePath;
using testsupport::Narrow;

Str Utf8(const std::wstring& path) {
    return Str(Narrow(path).c_str());
}

class SignatureTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(testsupport::TrustTestCa()) << GetLastError(); }
};

// Copies go to a name with blanks and characters outside every ANSI code page: the UTF-8
// path must reach the wide interfaces intact. The issuing CA has O and OU "Korvanta Labs":
// reading the issuer instead of the signer's subject shows up as a wrong or non-empty value.
TEST_F(SignatureTest, TrustAndSignerOfEachPackage) {
    // Package, trusted, company-signed, the signer's O and OU (null: no signer to look at).
    using W = const wchar_t*;
    const std::tuple<W, bool, bool, W, W> rows[] = {
        {L"signed-korvanta.msi", true, true, L"Korvanta Labs", L""},
        {L"signed-ou.msi", true, true, L"Other", L"Korvanta Labs"},
        {L"signed-lower.msi", true, false, L"korvanta labs", L""},
        {L"signed-blank.msi", true, false, L"Korvanta Labs ", L""},
        {L"signed-other.msi", true, false, L"Other", L""},
        {L"signed-noo-ou.msi", true, true, L"", L"Korvanta Labs"},
        {L"unsigned.msi", false, false, nullptr, nullptr},
        // The signature value does not verify, so the installer hands out no signer.
        {L"damaged-signature.msi", false, false, nullptr, nullptr},
        {L"no-such-package.msi", false, false, nullptr, nullptr},
    };
    testsupport::ScratchDir dir(L"signature");
    const std::wstring copy = dir.Join(L"Gr\u00FC\u00DFe \u03A9\u20AC \U0001F600.msi");
    for (const auto& [file, trusted, company, organization, unit] : rows) {
        const std::wstring path = FixturePath(file);
        SCOPED_TRACE(Narrow(file));
        CopyFileW(path.c_str(), copy.c_str(), FALSE); // the missing one stays missing
        for (const std::wstring& where : {path, copy}) {
            EXPECT_EQ(VerifyFileTrust(Utf8(where)), trusted);
            EXPECT_EQ(IsCompanySigned(Utf8(where)), company);
        }
        DeleteFileW(copy.c_str());
        UniqueCertificate signer;
        MsiGetFileSignatureInformationW(path.c_str(), 0, signer.Put(), nullptr, nullptr);
        ASSERT_EQ(signer.Valid(), organization != nullptr);
        if (!signer)
            continue;
        const auto attribute = [&signer](const char* oid) {
            const WStr text = GetCertificateNameAttribute(signer.Get(), oid);
            return std::wstring(text.Text(), text.Length());
        };
        EXPECT_EQ(attribute("2.5.4.10"), organization);
        EXPECT_EQ(attribute("2.5.4.11"), unit);
        EXPECT_EQ(attribute("2.5.4.7"), L""); // no locality
    }
    // A directory and an empty path are no signed files.
    EXPECT_FALSE(VerifyFileTrust(Utf8(dir.Path())) || IsCompanySigned(Utf8(dir.Path())));
    EXPECT_FALSE(VerifyFileTrust(Str()) || IsCompanySigned(Str()));
}

// Refusals that keep foreign packages out on Windows, where Wine accepts the package:
// a chain that ends in a root nobody trusts (CERT_E_UNTRUSTEDROOT), and content changed
// after signing (TRUST_E_BAD_DIGEST; the product name is covered by the signature).
TEST_F(SignatureTest, WindowsOnly_UntrustedRootAndChangedContentRefused) {
    if (testsupport::RunningUnderWine())
        GTEST_SKIP() << "Wine's WinVerifyTrust checks neither the root's trust nor an MSI "
                        "package's digest";
    std::string bytes;
    ASSERT_TRUE(testsupport::ReadFileBytes(FixturePath(L"signed-korvanta.msi"), bytes));
    const size_t at = bytes.find("Korvanta Test Fixture");
    ASSERT_NE(at, std::string::npos);
    bytes[at + 20] = 'f';
    testsupport::ScratchDir dir(L"signature");
    ASSERT_TRUE(testsupport::WriteFileBytes(dir.Join(L"changed.msi"), bytes));
    EXPECT_FALSE(VerifyFileTrust(Utf8(FixturePath(L"signed-untrusted.msi"))));
    EXPECT_FALSE(VerifyFileTrust(Utf8(dir.Join(L"changed.msi"))));
}

} // namespace
