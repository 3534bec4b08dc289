// The installer queue's processing pass: every request in the drop directory
// is answered once, by starting a silent installation of its package from the
// administrators-only update directory, or by refusing it with a result code.
//
// The drop directory is writable by every local user and the pass runs as
// LocalSystem, so the pass works from handles, not paths: both directories are
// held open for the pass, each file is opened relative to them without
// following links, and a package is held open denying writers and deleters
// while it is checked, and again, once moved, until its installer has started.
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
#include "spool.h"

namespace {

SeamSlot<QueueSeams> s_seams;

// Not a result code: the request passed the steps so far.
constexpr uint32_t kPassed = 0xFFFFFFFF;

const char kPolicyKey[] = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Policies\\Korvanta\\NativeClient";
const char kSetupsKey[] = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Korvanta\\WebClient\\Setups";

bool StartInstaller(const Str& commandLine) {
    return StartCommand(commandLine);
}

bool VerifyTrust(const Str& path, HANDLE file) {
    return s_seams.Pick(&QueueSeams::verifyTrust, VerifyFileTrust)(path, file);
}

bool CompanySigned(const Str& path) {
    return s_seams.Pick(&QueueSeams::isCompanySigned, IsCompanySigned)(path);
}

void AtSeam(void (*QueueSeams::*point)(const Str&), const Str& path) {
    const QueueSeams* seams = s_seams.Get();
    if (seams != nullptr && seams->*point != nullptr)
        (seams->*point)(path);
}

bool NoSuchName(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
           error == ERROR_INVALID_NAME;
}

// The first checks, on the package in the drop directory, held open denying
// writers and deleters so that the file checked is the file the path names.
uint32_t CheckDroppedPackage(const Spool& spool, InHand& hand) {
    const WStr name = WithExtension(hand.stem, L".msi");
    FileFacts facts;
    const UniqueHandle package =
        OpenInDirectory(spool.drop, name, FILE_READ_DATA, FILE_SHARE_READ, 0, &facts);
    // Anything else of that name counts as the package (a directory, a link,
    // a file in use): the checks refuse it.
    if (!package)
        return NoSuchName(GetLastError()) ? kResultNoPackage : kResultNotTrusted;
    hand.package = facts.id;
    // A second name would let its holder rewrite the package after the move.
    if (facts.links != 1)
        return kResultNotTrusted;
    const Str path = PathIn(spool.drop, name);
    if (!VerifyTrust(path, package.Get()))
        return kResultNotTrusted;
    if (!CompanySigned(path))
        return kResultNotCompanySigned;
    return kPassed;
}

// Moves the checked package into the update directory through its handle.
uint32_t MoveDroppedPackage(Spool& spool, InHand& hand) {
    const WStr name = WithExtension(hand.stem, L".msi");
    AtSeam(&QueueSeams::beforeMove, PathIn(spool.drop, name));
    bool moved = false;
    {
        // Deleters denied: nobody renames it meanwhile; writers denied: a writer
        // that opened since the check makes this fail.
        FileFacts facts;
        const UniqueHandle package =
            OpenInDirectory(spool.drop, name, DELETE, FILE_SHARE_READ, 0, &facts);
        if (package && facts.id == hand.package && facts.links == 1) {
            hand.state = kInHandMoving;
            moved = WriteInHand(spool, hand) &&
                    RenameOpenedFile(package.Get(), spool.update, name, true);
        }
    }
    if (moved) {
        AtSeam(&QueueSeams::afterMove, PathIn(spool.update, name));
        return kPassed;
    }
    // As for any failed move: the target goes, or is marked when it cannot
    // (also when it is not there).
    if (!DeleteInDirectory(spool.update, name))
        MarkForRemoval(spool.update, hand.stem);
    return kResultNotSecured;
}

// From the step after the move: security, the second checks on the moved copy
// (held open denying writers and deleters) and the installer start.
uint32_t InstallMovedPackage(Spool& spool, InHand& hand) {
    const WStr name = WithExtension(hand.stem, L".msi");
    const Str moved = PathIn(spool.update, name);
    if (!SecureInstallerFile(moved)) {
        if (!DeleteInDirectory(spool.update, name))
            MarkForRemoval(spool.update, hand.stem);
        return kResultNotSecured;
    }
    hand.moved = true;
    FileFacts facts;
    const UniqueHandle package =
        OpenInDirectory(spool.update, name, FILE_READ_DATA, FILE_SHARE_READ, 0, &facts);
    // Still held by a writer from before the move, or given a second name.
    if (!package || facts.id != hand.package || facts.links != 1)
        return kResultNotSecured;
    WriteInstallerRecord(moved);
    if (!VerifyTrust(moved, package.Get()))
        return kResultMovedNotTrusted;
    if (!CompanySigned(moved))
        return kResultMovedNotCompanySigned;
    return s_seams.Pick(&QueueSeams::startInstaller, StartInstaller)(InstallerCommandLine(moved))
               ? kResultStarted
               : kResultNotStarted;
}

// Everything after the code is known; run again in full when a pass ended
// midway, so each step may find its work already done.
void FinishRequest(Spool& spool, InHand& hand, uint32_t code) {
    hand.code = code;
    hand.state = kInHandAnswered;
    WriteInHand(spool, hand);
    const HeldDirectory& holder = hand.moved ? spool.update : spool.drop;
    if (code != kResultStarted && holder.handle &&
        !DeleteInDirectory(holder, WithExtension(hand.stem, L".msi")))
        MarkForRemoval(holder, hand.stem);
    if (spool.drop.handle)
        DeleteInDirectory(spool.drop, WithExtension(hand.stem, L".pending"));
    WriteReportF(kCategoryBase, 1, kQueueSourceFile, 267, "Result code %u", code);
    WriteResultFile(spool, hand, ResultLine(code));
}

void AnswerRequest(Spool& spool, const WStr& requestName) {
    InHand hand;
    hand.stem = NameStem(requestName);
    uint32_t code = CheckDroppedPackage(spool, hand);
    if (code == kPassed)
        code = MoveDroppedPackage(spool, hand);
    if (code == kPassed)
        code = InstallMovedPackage(spool, hand);
    FinishRequest(spool, hand, code);
}

// Finishes what the record of a former pass says was in hand. A package in
// the update directory counts as moved only when it is the very file the
// record names: an older package of that name is never taken for it.
void ResumeRequestInHand(Spool& spool) {
    InHand hand;
    if (!ReadInHand(spool, hand))
        return;
    switch (hand.state) {
    case kInHandMoving: {
        FileFacts facts;
        if (!OpenInDirectory(spool.update, WithExtension(hand.stem, L".msi"), FILE_READ_ATTRIBUTES,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, 0, &facts) ||
            facts.id != hand.package)
            return; // not moved: the request is still pending as it was
        FinishRequest(spool, hand, InstallMovedPackage(spool, hand));
        return;
    }
    case kInHandAnswered:
        FinishRequest(spool, hand, hand.code);
        return;
    case kInHandResult:
        if (!ResultFileWritten(spool, hand))
            WriteResultFile(spool, hand, ResultLine(hand.code));
        return;
    default:
        return;
    }
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

bool SecureInstallerFile(const Str& movedPath) {
    alignas(DWORD) BYTE aclBuffer[8];
    auto* acl = reinterpret_cast<PACL>(aclBuffer);
    SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
    UniqueSid administrators;
    if (movedPath.IsEmpty() || !InitializeAcl(acl, sizeof aclBuffer, ACL_REVISION) ||
        !AllocateAndInitializeSid(&nt, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0,
                                  0, 0, 0, 0, 0, administrators.Put()))
        return false;
    WStr wide = ToPlatformPath(movedPath);
    const DWORD status = s_seams.Pick(&QueueSeams::setNamedSecurityInfo, &SetNamedSecurityInfoW)(
        wide.MutableText(), SE_FILE_OBJECT,
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
            UNPROTECTED_DACL_SECURITY_INFORMATION,
        administrators.Get(), administrators.Get(), acl, nullptr);
    if (status != ERROR_SUCCESS)
        SetLastError(status);
    return status == ERROR_SUCCESS;
}

void ExecuteServiceStep() {
    if (AutoUpdateSwitchedOff())
        return;
    if (!QueueWithoutProductFolder) {
        const PolicyValue url = OpenPolicyValue("AUTOUPDATE_URL");
        if (ReadRegistryTextAt(url.keyPath.Text(), url.subkey.Text(), url.valueName).IsEmpty())
            return;
    }
    const Str dropDirectory = GetDropDirectory();
    if (dropDirectory.IsEmpty())
        return;
    const Str updateDirectory = GetUpdateDirectory();
    if (updateDirectory.IsEmpty())
        return;
    // Both held for the whole pass: neither can be swapped for a link midway.
    // A drop directory that does not exist is simply not served.
    Spool spool;
    if (!OpenSpool(dropDirectory, updateDirectory, spool))
        return;
    ResumeRequestInHand(spool);
    if (spool.drop.handle)
        RemoveMarkedInstallers(spool.drop);
    RemoveMarkedInstallers(spool.update);
    if (spool.drop.handle) {
        // Read a bounded batch at a time, however many entries there are.
        VisitDirectory(spool.drop, [&](const DirectoryEntry& entry) {
            if (!(entry.attributes & FILE_ATTRIBUTE_DIRECTORY) &&
                EntryHasSuffix(entry, L".pending"))
                AnswerRequest(spool, WStr(entry.name, entry.length));
            return true;
        });
    }
    CloseSpool(spool);
}
