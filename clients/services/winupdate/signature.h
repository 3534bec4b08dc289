// Authenticode trust and signer checks for the packages the service installs.
// Nothing here reports: every failure is a false result (or an empty name).
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include "str.h"

// True when WinVerifyTrust accepts the file's signature (no revocation check).
// path: full path, UTF-8. file: an open handle of that file, or null; the
// verifier reads through it where the file's format lets it (for MSI packages
// it still opens the path, so the caller's handle should deny writers and
// deleters while the check runs).
bool VerifyFileTrust(const Str& path, HANDLE file = nullptr);

// True when the signer certificate's O, or else its OU, is exactly "Korvanta Labs".
// path: full path, UTF-8.
bool IsCompanySigned(const Str& path);

// The certificate subject's attribute of that object identifier ("2.5.4.10"),
// empty when the subject has none.
WStr GetCertificateNameAttribute(PCCERT_CONTEXT certificate, const char* oid);
