// Authenticode trust and signer checks for the packages the service installs.
// Nothing here reports: every failure is a false result (or an empty name).
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include "str.h"

// True when WinVerifyTrust accepts the file's signature (no revocation check).
// path: full path, UTF-8.
bool VerifyFileTrust(const Str& path);

// True when the signer certificate's O, or else its OU, is exactly "Korvanta Labs".
// path: full path, UTF-8.
bool IsCompanySigned(const Str& path);

// The certificate subject's attribute of that object identifier ("2.5.4.10"),
// empty when the subject has none.
WStr GetCertificateNameAttribute(PCCERT_CONTEXT certificate, const char* oid);
