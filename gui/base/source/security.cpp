// Integrity labels and per-user access lists for shared objects.
#include "security.h"

#include <aclapi.h>
#include <sddl.h>

#include <cstring>
#include <memory>
#include <new>

#include "handles.h"

namespace {

constexpr DWORD kAllRights = 0x1FFFFF;
// Read, write, execute and delete, without changing permissions or owner.
constexpr DWORD kEveryoneRights = 0x1301BF;
constexpr DWORD kTokenAccess = TOKEN_QUERY | READ_CONTROL;
constexpr DWORD kTokenBuffer = 8192;

// The user SID of a token, in a buffer of its own.
struct UserBuffer {
    alignas(8) BYTE buffer[kTokenBuffer];
    PSID Sid() const { return reinterpret_cast<const TOKEN_USER*>(buffer)->User.Sid; }
};

bool ReadTokenUser(HANDLE token, UserBuffer* user) {
    memset(user->buffer, 0, sizeof user->buffer);
    DWORD length = 0;
    return GetTokenInformation(token, TokenUser, user->buffer, sizeof user->buffer, &length) &&
           user->Sid() != nullptr;
}

UniqueSid WellKnownSid(SID_IDENTIFIER_AUTHORITY authority, BYTE count, DWORD first,
                       DWORD second = 0) {
    UniqueSid sid;
    AllocateAndInitializeSid(&authority, count, first, second, 0, 0, 0, 0, 0, 0, sid.Put());
    return sid;
}

struct AccessEntry {
    PSID sid;
    DWORD rights;
};

// Builds the ACL into `buffer` (entries in order, inherited when asked).
bool BuildAcl(const AccessEntry* entries, size_t count, bool inherit,
              std::unique_ptr<BYTE[]>& buffer) {
    // The fixed part of an ACL and five entries fit well within 104 bytes.
    DWORD size = 104;
    for (size_t i = 0; i < count; ++i)
        size += GetLengthSid(entries[i].sid);
    buffer.reset(new (std::nothrow) BYTE[size]);
    auto* acl = reinterpret_cast<PACL>(buffer.get());
    if (acl == nullptr || !InitializeAcl(acl, size, ACL_REVISION))
        return false;
    for (size_t i = 0; i < count; ++i)
        if (!AddAccessAllowedAce(acl, ACL_REVISION, entries[i].rights, entries[i].sid))
            return false;
    if (!IsValidAcl(acl))
        return false;
    void* ace = nullptr;
    for (DWORD index = 0; inherit && GetAce(acl, index, &ace); ++index)
        static_cast<ACE_HEADER*>(ace)->AceFlags |= OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
    return true;
}

bool ApplyDescriptor(HANDLE object, const Str& path, PSID user, PACL acl) {
    SECURITY_DESCRIPTOR descriptor;
    if (!InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorOwner(&descriptor, user, FALSE) ||
        !SetSecurityDescriptorGroup(&descriptor, user, FALSE) ||
        !SetSecurityDescriptorDacl(&descriptor, TRUE, acl, FALSE))
        return false;
    const SECURITY_INFORMATION what =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    if (object != nullptr)
        return SetKernelObjectSecurity(object, what, &descriptor) != FALSE;
    const WStr widePath = WStr::FromUtf8(path);
    return SetFileSecurityW(widePath.Text(), what, &descriptor) != FALSE;
}

} // namespace

bool SetIntegrityLabel(HANDLE object, const Str& path, unsigned level) {
    static const char* const kLevels[] = {"LW", "ME", "MP", "HI", "SI"};
    if (level >= sizeof kLevels / sizeof kLevels[0])
        return false;
    char text[32];
    strcpy(text, "S:(ML;;NW;;;");
    strcat(text, kLevels[level]);
    strcat(text, ")");
    UniqueLocal descriptor;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(
            text, SDDL_REVISION_1, reinterpret_cast<PSECURITY_DESCRIPTOR*>(descriptor.Put()),
            nullptr))
        return false;
    BOOL present = FALSE, defaulted = FALSE;
    PACL sacl = nullptr;
    if (!GetSecurityDescriptorSacl(descriptor.Get(), &present, &sacl, &defaulted))
        return false;
    // SE_FILE_OBJECT for kernel objects too: the label is applied the same way.
    if (object != nullptr)
        return SetSecurityInfo(object, SE_FILE_OBJECT, LABEL_SECURITY_INFORMATION, nullptr, nullptr,
                               nullptr, sacl) == ERROR_SUCCESS;
    WStr widePath = WStr::FromUtf8(path);
    return SetNamedSecurityInfoW(widePath.MutableText(), SE_FILE_OBJECT, LABEL_SECURITY_INFORMATION,
                                 nullptr, nullptr, nullptr, sacl) == ERROR_SUCCESS;
}

bool SecureObjectForUser(HANDLE object, const Str& path, bool inherit, bool withWellKnown) {
    UniqueHandle threadToken, processToken;
    OpenThreadToken(GetCurrentThread(), kTokenAccess, TRUE, threadToken.Put());
    OpenProcessToken(GetCurrentProcess(), kTokenAccess, processToken.Put());
    if (!threadToken && !processToken)
        return false;
    // Two SIDs of up to 8 KB each: from the heap, not the stack.
    std::unique_ptr<UserBuffer[]> users(new (std::nothrow) UserBuffer[2]);
    if (users == nullptr)
        return false;
    const bool threadUser = threadToken && ReadTokenUser(threadToken.Get(), &users[0]);
    const bool processUser = processToken && ReadTokenUser(processToken.Get(), &users[1]);
    threadToken.Reset(), processToken.Reset();
    const PSID effective = threadUser ? users[0].Sid() : processUser ? users[1].Sid() : nullptr;

    UniqueSid system, administrators, everyone;
    if (withWellKnown) {
        system = WellKnownSid(SECURITY_NT_AUTHORITY, 1, SECURITY_LOCAL_SYSTEM_RID);
        administrators = WellKnownSid(SECURITY_NT_AUTHORITY, 2, SECURITY_BUILTIN_DOMAIN_RID,
                                      DOMAIN_ALIAS_RID_ADMINS);
        everyone = WellKnownSid(SECURITY_WORLD_SID_AUTHORITY, 1, SECURITY_WORLD_RID);
        SetIntegrityLabel(object, path, kIntegrityLow);
    }
    if (effective == nullptr)
        return false;

    AccessEntry entries[5];
    size_t count = 0;
    entries[count++] = {effective, kAllRights};
    if (processUser && !EqualSid(users[1].Sid(), effective))
        entries[count++] = {users[1].Sid(), kAllRights};
    for (const AccessEntry& entry :
         {AccessEntry{system.Get(), kAllRights}, AccessEntry{administrators.Get(), kAllRights},
          AccessEntry{everyone.Get(), kEveryoneRights}})
        if (entry.sid != nullptr)
            entries[count++] = entry;
    std::unique_ptr<BYTE[]> acl;
    if (!BuildAcl(entries, count, inherit, acl))
        return false;
    return ApplyDescriptor(object, path, effective, reinterpret_cast<PACL>(acl.get()));
}

bool SecureKernelObject(HANDLE object) {
    return SecureObjectForUser(object, Str(), false, true);
}

bool IsServiceAccountSid(PSID sid) {
    for (WELL_KNOWN_SID_TYPE type : {WinLocalSystemSid, WinLocalServiceSid, WinNetworkServiceSid})
        if (sid != nullptr && IsValidSid(sid) && IsWellKnownSid(sid, type))
            return true;
    return false;
}
