// The spool directories held for one pass, and the service's own files there.
#include "spool.h"

#include <windows.h>

#include <cstring>

#include "report.h"
#include "servicestep.h"

namespace {

// The service's own names in the update directory; no client stem gives them,
// since a client's names there end in ".msi", ".result" or ".removepending".
const WStr kRecordName(L"inhand.record");
const WStr kResultTempName(L"result.tmp");

constexpr uint32_t kRecordMagic = 0x3151564B; // "KVQ1"
constexpr uint32_t kStemRoom = 256;           // a name's 255 characters and more

// The record as written: one write of the whole, always at the start.
struct RecordImage {
    uint32_t magic;
    uint32_t state;
    uint32_t code;
    uint32_t moved;
    uint64_t package;
    uint64_t result;
    uint32_t stemLength;
    wchar_t stem[kStemRoom];
};

// Refusals are reported when they begin and when they end, not on every pass.
bool s_dropRefused = false;
bool s_updateRefused = false;

bool HoldDirectory(const Str& path, HeldDirectory& directory, bool& refused) {
    const bool held = OpenHeldDirectory(path, directory);
    const DWORD error = GetLastError();
    // A missing directory is no refusal: there is nothing to serve yet.
    const bool nowRefused = !held && error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
    if (nowRefused != refused) {
        refused = nowRefused;
        if (nowRefused) {
            ReportWithSystemError(
                kCategoryBase, kSeverityError, kQueueSourceFile, __LINE__,
                StrFormat("ExecuteServiceStep: Refused the directory [%s]", path.Text()).Text());
        } else {
            WriteReportF(kCategoryBase, kSeverityInfo, kQueueSourceFile, __LINE__,
                         "ExecuteServiceStep: Serving the directory [%s] again", path.Text());
        }
    }
    SetLastError(error);
    return held;
}

bool OpenRecord(const Spool& spool, UniqueHandle& record) {
    record = OpenInDirectory(spool.update, kRecordName, FILE_READ_DATA, FILE_SHARE_READ, 0);
    return record.Valid();
}

} // namespace

bool OpenSpool(const Str& dropPath, const Str& updatePath, Spool& spool) {
    if (!HoldDirectory(updatePath, spool.update, s_updateRefused))
        return false;
    HoldDirectory(dropPath, spool.drop, s_dropRefused);
    return true;
}

void CloseSpool(Spool& spool) {
    if (spool.record)
        DeleteOpenedFile(spool.record.Get());
    else if (spool.recordFound)
        DeleteInDirectory(spool.update, kRecordName);
    spool.record.Reset();
}

WStr WithExtension(const WStr& stem, const wchar_t* extension) {
    WStr name = stem;
    if (!name.Append(extension))
        return WStr();
    return name;
}

WStr NameStem(const WStr& name) {
    const wchar_t* text = name.Text();
    for (uint32_t i = name.Length(); i > 0; --i)
        if (text[i - 1] == L'.')
            return WStr(text, i - 1);
    return name;
}

Str PathIn(const HeldDirectory& directory, const WStr& name) {
    const Str utf8 = Str::FromUtf16(name);
    Str path = directory.path;
    if (utf8.IsEmpty() || !AppendPathComponent(path, utf8.Text()))
        return Str();
    return path;
}

void MarkForRemoval(const HeldDirectory& directory, const WStr& stem) {
    const WStr marker = WithExtension(stem, L".removepending");
    if (!marker.IsEmpty() && CreateFreshFile(directory, marker, GENERIC_READ | GENERIC_WRITE))
        return;
    // Without its marker nothing will try again (a name too long for the
    // marker, a planted link that cannot be removed): say so now.
    ReportAndConfirm(kCategoryBase, kSeverityError, kQueueSourceFile, 178,
                     StrFormat("ExecuteServiceStep: Could not remove installer file [%s]",
                               PathIn(directory, WithExtension(stem, L".msi")).Text())
                         .Text());
}

void RemoveMarkedInstallers(const HeldDirectory& directory) {
    VisitDirectory(directory, [&](const DirectoryEntry& entry) {
        if ((entry.attributes & FILE_ATTRIBUTE_DIRECTORY) ||
            !EntryHasSuffix(entry, L".removepending"))
            return true;
        const WStr marker(entry.name, entry.length);
        const WStr package = WithExtension(NameStem(marker), L".msi");
        // One attempt answers both questions: gone already, or deleted now.
        if (DeleteInDirectory(directory, package) || GetLastError() == ERROR_FILE_NOT_FOUND ||
            GetLastError() == ERROR_PATH_NOT_FOUND || GetLastError() == ERROR_INVALID_NAME) {
            DeleteInDirectory(directory, marker);
        } else {
            ReportAndConfirm(kCategoryBase, kSeverityError, kQueueSourceFile, 178,
                             StrFormat("ExecuteServiceStep: Could not remove installer file [%s]",
                                       PathIn(directory, package).Text())
                                 .Text());
        }
        return true;
    });
}

bool WriteInHand(Spool& spool, const InHand& hand) {
    if (hand.stem.Length() >= kStemRoom)
        return false;
    if (!spool.record) {
        spool.record = CreateFreshFile(spool.update, kRecordName, GENERIC_WRITE | DELETE);
        if (!spool.record)
            return false;
    }
    RecordImage image = {};
    image.magic = kRecordMagic;
    image.state = hand.state;
    image.code = hand.code;
    image.moved = hand.moved ? 1 : 0;
    image.package = hand.package;
    image.result = hand.result;
    image.stemLength = hand.stem.Length();
    memcpy(image.stem, hand.stem.Text(), hand.stem.Length() * sizeof(wchar_t));
    OVERLAPPED start = {};
    DWORD written = 0;
    return WriteFile(spool.record.Get(), &image, sizeof image, &written, &start) &&
           written == sizeof image;
}

bool ReadInHand(Spool& spool, InHand& hand) {
    UniqueHandle record;
    if (!OpenRecord(spool, record))
        return false;
    spool.recordFound = true;
    RecordImage image = {};
    DWORD read = 0;
    if (!ReadFile(record.Get(), &image, sizeof image, &read, nullptr) || read != sizeof image ||
        image.magic != kRecordMagic || image.stemLength == 0 || image.stemLength >= kStemRoom)
        return false;
    hand.state = image.state;
    hand.code = image.code;
    hand.moved = image.moved != 0;
    hand.package = image.package;
    hand.result = image.result;
    hand.stem = WStr(image.stem, image.stemLength);
    return true;
}

void WriteResultFile(Spool& spool, InHand& hand, const Str& line) {
    const WStr name = WithExtension(hand.stem, L".result");
    FileFacts facts;
    UniqueHandle file =
        CreateFreshFile(spool.update, kResultTempName, GENERIC_READ | GENERIC_WRITE | DELETE,
                        kSequentialScan, &facts);
    DWORD written = 0;
    if (name.IsEmpty() || !file ||
        !WriteFile(file.Get(), line.Text(), line.Length(), &written, nullptr)) {
        if (file)
            DeleteOpenedFile(file.Get());
        return;
    }
    hand.state = kInHandResult;
    hand.result = facts.id;
    WriteInHand(spool, hand);
    // Readers see either no result or the whole line; an older result goes.
    if (!RenameOpenedFile(file.Get(), spool.update, name, true))
        DeleteOpenedFile(file.Get());
}

bool ResultFileWritten(const Spool& spool, const InHand& hand) {
    FileFacts facts;
    return OpenInDirectory(spool.update, WithExtension(hand.stem, L".result"), FILE_READ_ATTRIBUTES,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, 0, &facts)
               .Valid() &&
           facts.id == hand.result;
}
