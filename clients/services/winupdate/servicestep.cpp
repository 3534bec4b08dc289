// The installer queue's processing pass: every request in the drop directory
// is answered once, by starting a silent installation of its package from the
// administrators-only update directory, or by refusing it with a result code.
#include "servicestep.h"

#include <windows.h>

#include <aclapi.h>

#include "constants.h"
#include "datetime.h"
#include "files.h"
#include "handles.h"
#include "host.h"
#include "process.h"
#include "registry.h"
#include "report.h"
#include "seams.h"
#include "signature.h"

namespace {

SeamSlot<QueueSeams> s_seams;

bool StartInstaller(const Str& commandLine) {
    return StartCommand(commandLine);
}

const char kSourceFile[] = "clients\\services\\winupdate\\servicestep";
const char kPolicyKey[] = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Policies\\Korvanta\\NativeClient";
const char kSetupsKey[] = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Korvanta\\WebClient\\Setups";

// directory + "\" + stem + extension; empty when any step fails.
Str SiblingPath(const Str& directory, const Str& stem, const char* extension) {
    Str path = directory;
    Str name = stem;
    if (!name.Append(extension) || !AppendPathComponent(path, name.Text()))
        return Str();
    return path;
}

// Leaves an empty "<stem>.removepending" beside a package that could not be deleted.
void MarkForRemoval(const Str& package) {
    const Str marker = SiblingPath(PathDirectory(package), PathStem(package), ".removepending");
    if (!marker.IsEmpty())
        CreateEmptyFile(marker);
}

void WriteResultFile(const Str& path, uint32_t code) {
    const Str line = ResultLine(code);
    const WStr wide = ToPlatformPath(path);
    UniqueHandle file(CreateFileW(wide.Text(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                  nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file)
        return;
    DWORD written = 0;
    WriteFile(file.Get(), line.Text(), line.Length(), &written, nullptr);
}

uint32_t AnswerRequest(const Str& dropDirectory, const Str& updateDirectory, const Str& request) {
    const auto verifyTrust = s_seams.Pick(&QueueSeams::verifyTrust, VerifyFileTrust);
    const auto isCompanySigned = s_seams.Pick(&QueueSeams::isCompanySigned, IsCompanySigned);
    const Str package = SiblingPath(dropDirectory, PathStem(request), ".msi");
    Str working = package;
    uint32_t code;
    // Anything of that name counts as the package here, a directory too: the
    // checks then refuse it.
    if (!PathExists(package)) {
        code = kResultNoPackage;
    } else if (!verifyTrust(package)) {
        code = kResultNotTrusted;
    } else if (!isCompanySigned(package)) {
        code = kResultNotCompanySigned;
    } else {
        const Str moved = SecureInstallerFile(updateDirectory, package);
        if (moved.IsEmpty()) {
            code = kResultNotSecured;
        } else {
            WriteInstallerRecord(moved);
            working = moved;
            // The moved copy is the file that gets installed: check it again.
            if (!verifyTrust(moved))
                code = kResultMovedNotTrusted;
            else if (!isCompanySigned(moved))
                code = kResultMovedNotCompanySigned;
            else
                code = s_seams.Pick(&QueueSeams::startInstaller,
                                    StartInstaller)(InstallerCommandLine(moved))
                           ? kResultStarted
                           : kResultNotStarted;
        }
    }
    if (code != kResultStarted && !DeleteFilePath(working, false))
        MarkForRemoval(working);
    return code;
}

} // namespace

void SetQueueSeamsForTesting(const QueueSeams* seams) {
    s_seams.Set(seams);
}

Str GetDropDirectory() {
    Str directory = GetWellKnownDirectory(kDirectoryCommonAppData);
    if (directory.IsEmpty() || !AppendPathComponent(directory, kDropFolder))
        return Str();
    if (!QueueWithoutProductFolder &&
        !AppendPathComponent(directory, ProductConstants.productFolder))
        return Str();
    return directory;
}

Str GetUpdateDirectory() {
    Str directory = GetWellKnownDirectory(kDirectoryProgramFiles);
    if (directory.IsEmpty() || !AppendPathComponent(directory, kUpdateCompanyFolder) ||
        !AppendPathComponent(directory, kUpdateFolder))
        return Str();
    // Default security: the directory inherits the program files folder's rules.
    if (!CreateDirectoryPath(directory, true, false))
        return Str();
    return directory;
}

PolicyValue OpenPolicyValue(const char* valueName) {
    return {Str(kPolicyKey), Str(ProductConstants.productFolder), valueName};
}

bool AutoUpdateSwitchedOff() {
    const PolicyValue policy = OpenPolicyValue("AUTOUPDATE");
    Str key = policy.keyPath;
    if (!AppendPathComponent(key, policy.subkey.Text()))
        return false;
    // Present and reading as 0: a value of another type than a 4-byte REG_DWORD
    // reads as the default 0 too, and so switches the pass off.
    return RegistryValueExists(key.Text(), policy.valueName) &&
           ReadRegistryNumber(policy.keyPath.Text(), policy.subkey.Text(), policy.valueName, 0,
                              true) == 0;
}

bool WriteInstallerRecord(const Str& packagePath) {
    return WriteRegistryText(kSetupsKey, ProductConstants.productFolder, "UpdateInstaller",
                             packagePath.Text());
}

Str InstallerCommandLine(const Str& packagePath) {
    // One argument for /i through the quotes; the path is not escaped further.
    Str command("msiexec.exe /qn /i \"");
    command.Append(packagePath);
    command.Append("\" AUTOUPDATE=1");
    return command;
}

Str ResultLine(uint32_t code) {
    return StrFormat("%u|%s: %u", code == kResultStarted ? 1u : 0u,
                     LocalTimeText(kTimeTextSeconds).Text(), code);
}

void RemoveMarkedInstallers(const Str& directory) {
    Str pattern = directory;
    if (!AppendPathComponent(pattern, "*.removepending"))
        return;
    for (const Str& name : EnumerateFiles(pattern)) {
        if (name.IsEmpty())
            continue;
        Str marker = directory;
        if (!AppendPathComponent(marker, name.Text()))
            continue;
        const Str package = SiblingPath(directory, PathStem(name), ".msi");
        if (!PathExists(package) || DeleteFilePath(package, false)) {
            DeleteFilePath(marker, false);
        } else {
            ReportAndConfirm(kCategoryBase, kSeverityError, kSourceFile, 178,
                             StrFormat("ExecuteServiceStep: Could not remove installer file [%s]",
                                       package.Text())
                                 .Text());
        }
    }
}

Str SecureInstallerFile(const Str& updateDirectory, const Str& package) {
    Str result;
    if (updateDirectory.IsEmpty())
        return result;
    Str target = updateDirectory;
    if (!AppendPathComponent(target, PathFileName(package).Text()))
        return result;
    if (MoveFilePath(package, target, false)) {
        // An empty, unprotected DACL: the file keeps only what it inherits from
        // the update directory, and Administrators own it.
        alignas(DWORD) BYTE aclBuffer[8];
        auto* acl = reinterpret_cast<PACL>(aclBuffer);
        SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
        UniqueSid administrators;
        if (InitializeAcl(acl, sizeof aclBuffer, ACL_REVISION) &&
            AllocateAndInitializeSid(&nt, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS,
                                     0, 0, 0, 0, 0, 0, administrators.Put())) {
            WStr wide = ToPlatformPath(target);
            const DWORD status =
                s_seams.Pick(&QueueSeams::setNamedSecurityInfo, &SetNamedSecurityInfoW)(
                    wide.MutableText(), SE_FILE_OBJECT,
                    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                        DACL_SECURITY_INFORMATION | UNPROTECTED_DACL_SECURITY_INFORMATION,
                    administrators.Get(), administrators.Get(), acl, nullptr);
            if (status == ERROR_SUCCESS)
                result = target;
            else
                SetLastError(status);
        }
    }
    if (result.IsEmpty() && !DeleteFilePath(target, false))
        MarkForRemoval(target);
    return result;
}

void ExecuteServiceStep() {
    if (AutoUpdateSwitchedOff())
        return;
    if (!QueueWithoutProductFolder) {
        const PolicyValue url = OpenPolicyValue("AUTOUPDATE_URL");
        if (ReadRegistryTextAt(url.keyPath.Text(), url.subkey.Text(), url.valueName).IsEmpty())
            return;
    }
    // The drop directory need not exist: enumeration then finds nothing.
    const Str dropDirectory = GetDropDirectory();
    if (dropDirectory.IsEmpty())
        return;
    const Str updateDirectory = GetUpdateDirectory();
    if (updateDirectory.IsEmpty())
        return;

    RemoveMarkedInstallers(dropDirectory);
    RemoveMarkedInstallers(updateDirectory);

    Str pattern = dropDirectory;
    if (!AppendPathComponent(pattern, "*.pending"))
        return;
    for (const Str& name : EnumerateFiles(pattern)) {
        if (name.IsEmpty())
            continue;
        const uint32_t code = AnswerRequest(dropDirectory, updateDirectory, name);
        Str request = dropDirectory;
        if (AppendPathComponent(request, name.Text()))
            DeleteFilePath(request, false);
        WriteReportF(kCategoryBase, 1, kSourceFile, 267, "Result code %u", code);
        const Str result = SiblingPath(updateDirectory, PathStem(name), ".result");
        if (!result.IsEmpty())
            WriteResultFile(result, code);
    }
}
