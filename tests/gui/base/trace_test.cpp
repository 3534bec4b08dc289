// The trace map as other processes see it (its protection and its shared
// word) and the trace file destination. The map is common to the session:
// this program runs under the trace viewer's lock. It re-invokes itself with
// "--map-child" to look at the map from a second process.
#include <gtest/gtest.h>

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "handles.h"
#include "report.h"
#include "security.h"
#include "testsupport.h"
#include "trace.h"

using namespace testsupport;

namespace {

// The object's owner, group, access list and label as SDDL ("?" when unreadable).
std::string Sddl(HANDLE object) {
    const SECURITY_INFORMATION what = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                      DACL_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION;
    UniqueLocal descriptor;
    char* text = nullptr;
    if (GetSecurityInfo(object, SE_KERNEL_OBJECT, what, nullptr, nullptr, nullptr, nullptr,
                        reinterpret_cast<PSECURITY_DESCRIPTOR*>(descriptor.Put())) !=
            ERROR_SUCCESS ||
        !ConvertSecurityDescriptorToStringSecurityDescriptorA(descriptor.Get(), SDDL_REVISION_1,
                                                              what, &text, nullptr))
        return "?";
    UniqueLocal owner(text);
    return text;
}

std::string ProcessUserSid() {
    UniqueHandle token;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Put());
    alignas(8) BYTE buffer[512];
    DWORD length = 0;
    char* text = nullptr;
    if (!GetTokenInformation(token.Get(), TokenUser, buffer, sizeof buffer, &length) ||
        !ConvertSidToStringSidA(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text))
        return "?";
    UniqueLocal owner(text);
    return text;
}

ProcessResult MapChild() {
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    return RunProcess(L"\"" + std::wstring(self) + L"\" --map-child");
}

} // namespace

TEST(TraceMap, ProtectedWhenNewAndItsWordKeptByTheNextProcess) {
    ASSERT_TRUE(SetSharedHeaderFlags(0x1234)); // this process makes the map
    const ProcessResult child = MapChild();
    ASSERT_EQ(child.exitCode, 0u) << child.err;
    const std::string user = ProcessUserSid();
    // Owner and group the creating user; its entry, LocalSystem, Administrators
    // (all rights) and Everyone (no change of permissions or owner), in this order.
    const std::string expected = "O:" + user + "G:" + user + "D:(A;;0x1fffff;;;" + user +
                                 ")(A;;0x1fffff;;;SY)(A;;0x1fffff;;;BA)(A;;0x1301bf;;;WD)";
    EXPECT_EQ(child.out.substr(0, child.out.find("S:")), "map " + expected) << child.out;
    // Wine keeps no mandatory label on kernel objects; Windows shows the low one.
    if (child.out.find("S:") != std::string::npos) {
        EXPECT_NE(child.out.find("S:(ML;;NW;;;LW)"), std::string::npos) << child.out;
    }
    EXPECT_NE(child.err.find("word 1234"), std::string::npos) << child.err;
}

TEST(Security, LabelLevelsAndTheEntriesOfAKernelObject) {
    UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const std::string before = Sddl(event.Get());
    for (const unsigned level : {5u, 6u, 0xFFFFFFFFu}) {
        SetLastError(0);
        EXPECT_FALSE(SetIntegrityLabel(event.Get(), Str(), level)) << level;
        EXPECT_EQ(Sddl(event.Get()), before) << "a level of " << level << " changed the object";
    }
    ASSERT_TRUE(SecureObjectForUser(event.Get(), Str(), false, false));
    const std::string user = ProcessUserSid();
    EXPECT_EQ(Sddl(event.Get()), "O:" + user + "G:" + user + "D:(A;;0x1fffff;;;" + user + ")")
        << "without well-known trustees: the user alone";
}

TEST(TraceFile, AddsItsBitClearsTheDebuggersAndTakesTheLines) {
    ScratchDir dir(L"tracefile");
    SetTraceDestinations(3);
    EXPECT_FALSE(OpenTraceFile(Str(Narrow(dir.Join(L"missing\\trace.log")).c_str())));
    EXPECT_EQ(GetTraceDestinations(), 3u);
    ASSERT_TRUE(OpenTraceFile(Str(Narrow(dir.Join(L"trace.log")).c_str())));
    EXPECT_EQ(GetTraceDestinations(), 9u);
    WriteReport(4096, 2, nullptr, 0, "into the file");
    CloseTraceFile();
    std::string text;
    ASSERT_TRUE(ReadFileBytes(dir.Join(L"trace.log"), text));
    EXPECT_NE(text.find("into the file"), std::string::npos) << text;
    SetTraceDestinations(3);
}

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "--map-child") == 0) {
        UniqueHandle map(OpenFileMappingA(READ_CONTROL, FALSE, "ZemTraceMap"));
        printf("map %s", map ? Sddl(map.Get()).c_str() : "missing");
        // Reporting builds this process's view of the map: the word stays.
        fprintf(stderr, "word %x\n", GetSharedHeaderFlags());
        return 0;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
