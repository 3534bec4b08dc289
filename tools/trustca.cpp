// Adds a DER certificate to the machine's trusted root store, so that packages
// signed by a throwaway test CA chain to a trusted root, as they must on Windows:
//   kvt_trustca.exe <certificate.der>
#include <windows.h>

#include <wincrypt.h>

#include <cstdio>
#include <vector>

#include "handles.h"

int wmain(int argc, wchar_t** argv) {
    if (argc != 2) {
        fwprintf(stderr, L"usage: kvt_trustca <certificate.der>\n");
        return 2;
    }
    const UniqueHandle file(CreateFileW(argv[1], GENERIC_READ, FILE_SHARE_READ, nullptr,
                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        fwprintf(stderr, L"kvt_trustca: cannot open %ls (error %lu)\n", argv[1], GetLastError());
        return 1;
    }
    std::vector<BYTE> der(GetFileSize(file.Get(), nullptr));
    DWORD got = 0;
    const BOOL read =
        ReadFile(file.Get(), der.data(), static_cast<DWORD>(der.size()), &got, nullptr);
    const UniqueCertStore store(
        CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root"));
    const BOOL added =
        read && store &&
        CertAddEncodedCertificateToStore(store.Get(), X509_ASN_ENCODING | PKCS_7_ASN_ENCODING,
                                         der.data(), got, CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
    const DWORD error = GetLastError();
    if (!added) {
        fwprintf(stderr, L"kvt_trustca: cannot add %ls to the Root store (error %lu)\n", argv[1],
                 error);
        return 1;
    }
    wprintf(L"Trusted root added: %ls\n", argv[1]);
    return 0;
}
