// The installer queue: the spool directories, the update policy and the
// processing pass that answers every pushed request with a result file.
#pragma once

#include <cstdint>

#include "str.h"

// The source name the pass's reports carry.
inline constexpr char kQueueSourceFile[] = "clients\\services\\winupdate\\servicestep";

// Result codes of one request.
enum ResultCode : uint32_t {
    kResultStarted = 0,
    kResultNotStarted = 1,
    kResultMovedNotCompanySigned = 2,
    kResultMovedNotTrusted = 3,
    kResultNotSecured = 4,
    kResultNotCompanySigned = 5,
    kResultNotTrusted = 6,
    kResultNoPackage = 7,
};

// The update directory below the program files folder, created when missing;
// empty when it could not be created.
Str GetUpdateDirectory();
// The drop directory below the common application data folder (not created).
Str GetDropDirectory();

// The policy key (with the product subkey) and value name for a policy read.
struct PolicyValue {
    Str keyPath;
    Str subkey;
    const char* valueName;
};
PolicyValue OpenPolicyValue(const char* valueName);
// True when the "AUTOUPDATE" policy is a number and that number is 0.
bool AutoUpdateSwitchedOff();
// Records the package handed to the installer ("UpdateInstaller").
bool WriteInstallerRecord(const Str& packagePath);
// "msiexec.exe /qn /i \"<path>\" AUTOUPDATE=1"
Str InstallerCommandLine(const Str& packagePath);
// The result file's text: "%u|%s: %u" (success flag, local time, code).
Str ResultLine(uint32_t code);

// Owner and group Administrators and an empty, unprotected DACL for the moved
// package, so that it keeps only what it inherits from the update directory.
bool SecureInstallerFile(const Str& movedPath);
// One pass over the drop directory: every request found is answered once.
void ExecuteServiceStep();
