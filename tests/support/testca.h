// The throwaway test CA and the packages that tests/fixtures/make-fixtures.sh
// makes in KVT_FIXTURES (the file lists them).
#pragma once

#include <windows.h>

#include <string>

namespace testsupport {

// Adds KVT_FIXTURES\ca.der to the LocalMachine Root store of the prefix, so that
// packages signed by the test signers chain to a trusted root as they must on
// Windows. Idempotent. False when the file or the store cannot be used.
bool TrustTestCa();

// KVT_FIXTURES + "\" + name.
std::wstring FixturePath(const std::wstring& name);

// Makes one more package at outfile (a Windows path; blanks and non-ASCII
// characters are fine): product "Korvanta Test " + name, installing
// [ProgramFilesFolder]KorvantaTest\<name>\payload.txt, signed as signer
// (korvanta, ou, lower, blank, other, noo-ou, untrusted, damaged or unsigned).
// Runs make-fixtures.sh as a Unix program; Wine does not let a Windows program
// wait for one, so this waits up to timeoutMs for the file to appear. Wine only.
bool MakeFixturePackage(const std::wstring& name, const std::wstring& signer,
                        const std::wstring& outfile, DWORD timeoutMs = 60000);

} // namespace testsupport
