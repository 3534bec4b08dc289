// pushupdate: hands a Windows Installer package to the Client Update Service and
// waits for its answer. The reference for client programs that push updates.
//
// The request: the package goes into the drop directory as <stem>.msi, then the
// empty marker <stem>.pending, then the service's push event is signalled. The
// service takes the package as soon as it sees the marker, so the package is
// copied under a temporary name and renamed into place before the marker is
// made. The answer is <stem>.result in the service's update directory, one line
// "<success flag>|<local time>: <result code>".
#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "constants.h"
#include "files.h"
#include "handles.h"
#include "private/system.h"
#include "report.h"
#include "str.h"

namespace {

// Exit codes besides the service's result codes 0 to 7.
constexpr int kExitUsage = 2;
constexpr int kExitNoPackage = 10;
constexpr int kExitNoService = 11;
constexpr int kExitTimedOut = 12;
constexpr int kExitNotPlaced = 13; // the request could not be placed
constexpr int kExitBadAnswer = 14; // the answer could not be read or understood

constexpr uint32_t kDefaultTimeoutSeconds = 120;
constexpr uint32_t kMaximumTimeoutSeconds = 86400;
constexpr DWORD kPollMs = 100;
// File times can be as coarse as 2 s: an answer may carry a time up to that much
// before the moment the push began.
constexpr uint64_t kFileTimeSlack = 2ull * 10000000ull;
// Every name the service derives from a stem must fit in one component; this
// suffix is the longest of them.
constexpr char kLongestSuffix[] = ".removepending";
constexpr uint32_t kMaximumComponent = 255;

const char* const kResultMeanings[] = {
    "installation started (msiexec launched for the moved package)",
    "the installer could not be started",
    "the moved package failed the signer check",
    "the moved package failed the trust check",
    "the package could not be moved into the update directory or secured",
    "the package is not signed by Korvanta Labs",
    "the package's signature is not trusted (unsigned or broken)",
    "no package was found beside the request",
};
constexpr uint32_t kResultCodeCount = sizeof kResultMeanings / sizeof kResultMeanings[0];

const char kUsage[] =
    "Usage: pushupdate.exe <package.msi> [--stem NAME] [--timeout SECONDS] [--drop DIR]\r\n"
    "                      [--results DIR]\r\n"
    "\r\n"
    "Hands a Windows Installer package to the Korvanta Cloud Client Update Service\r\n"
    "and waits for its answer.\r\n"
    "\r\n"
    "  --stem NAME        request name (default: the package's file name without\r\n"
    "                     its extension)\r\n"
    "  --timeout SECONDS  how long to wait for the answer (default 120, at most 86400)\r\n"
    "  --drop DIR         drop directory (default: the common application data\r\n"
    "                     folder + korvanta.plugin)\r\n"
    "  --results DIR      directory of the answers (default: the program files\r\n"
    "                     folder + Korvanta\\Update)\r\n"
    "\r\n"
    "Exit codes: 0-7 the service's result code (0: installation started),\r\n"
    "2 usage, 10 package not found, 11 service not running, 12 no answer in time,\r\n"
    "13 the request could not be placed, 14 the answer could not be read.\r\n";

// Text to a standard handle: wide to a console, UTF-8 bytes to pipes and files.
void WriteStd(DWORD which, const Str& text) {
    LastErrorKeeper keep;
    const HANDLE handle = GetStdHandle(which);
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE || text.IsEmpty())
        return;
    DWORD written = 0;
    DWORD mode = 0;
    if (GetConsoleMode(handle, &mode)) {
        const WStr wide = WStr::FromUtf8(text);
        WriteConsoleW(handle, wide.Text(), wide.Length(), &written, nullptr);
        return;
    }
    WriteFile(handle, text.Text(), text.Length(), &written, nullptr);
}

void WriteLine(DWORD which, Str text) {
    text.Append("\r\n");
    WriteStd(which, text);
}

// Normal output, one line.
void Say(const char* format, ...) __attribute__((format(gnu_printf, 1, 2)));
void Say(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const Str text = StrFormatV(format, arguments);
    va_end(arguments);
    WriteLine(STD_OUTPUT_HANDLE, text);
}

// A failure, one line on standard error.
void Fail(const char* format, ...) __attribute__((format(gnu_printf, 1, 2)));
void Fail(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Str text("pushupdate: ");
    text.Append(StrFormatV(format, arguments));
    va_end(arguments);
    WriteLine(STD_ERROR_HANDLE, text);
}

// A failure with the system's text for the error code appended (none for 0).
void FailWithError(DWORD error, const char* format, ...) __attribute__((format(gnu_printf, 2, 3)));
void FailWithError(DWORD error, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Str text("pushupdate: ");
    text.Append(StrFormatV(format, arguments));
    va_end(arguments);
    if (error != 0) {
        text.Append(": ");
        text.Append(FormatSystemError(error));
    } else {
        text.Append(".");
    }
    WriteLine(STD_ERROR_HANDLE, text);
}

struct Options {
    Str package;
    Str stem;
    bool stemGiven = false;
    Str dropDirectory;
    Str resultDirectory;
    uint32_t timeoutSeconds = kDefaultTimeoutSeconds;
    bool help = false;
};

// A whole decimal number in [1, maximum].
bool ParseSeconds(const Str& text, uint32_t maximum, uint32_t& value) {
    uint64_t number = 0;
    const char* end = ParseDecimal(text.Text(), maximum, number);
    if (end == nullptr || *end != 0 || number == 0)
        return false;
    value = static_cast<uint32_t>(number);
    return true;
}

// False after saying what is wrong.
bool ParseArguments(Options& options) {
    const uint32_t count = CommandLineArgumentCount();
    for (uint32_t i = 1; i < count; ++i) {
        const Str argument = CommandLineArgument(i);
        const char* text = argument.Text();
        if (strcmp(text, "--help") == 0 || strcmp(text, "-h") == 0 || strcmp(text, "/?") == 0) {
            options.help = true;
            return true;
        }
        const bool stem = strcmp(text, "--stem") == 0;
        const bool timeout = strcmp(text, "--timeout") == 0;
        const bool drop = strcmp(text, "--drop") == 0;
        const bool results = strcmp(text, "--results") == 0;
        if (stem || timeout || drop || results) {
            if (i + 1 >= count) {
                Fail("The option %s needs a value.", text);
                return false;
            }
            const Str value = CommandLineArgument(++i);
            if (stem) {
                options.stem = value;
                options.stemGiven = true;
            } else if (timeout) {
                if (!ParseSeconds(value, kMaximumTimeoutSeconds, options.timeoutSeconds)) {
                    Fail("The time-out [%s] is not a whole number of seconds from 1 to %u.",
                         value.Text(), kMaximumTimeoutSeconds);
                    return false;
                }
            } else if (value.IsEmpty()) {
                Fail("The option %s needs a directory.", text);
                return false;
            } else {
                (drop ? options.dropDirectory : options.resultDirectory) = value;
            }
            continue;
        }
        if (text[0] == '-' && text[1] == '-') {
            Fail("Unknown option [%s].", text);
            return false;
        }
        if (!options.package.IsEmpty()) {
            Fail("More than one package given: [%s] and [%s].", options.package.Text(), text);
            return false;
        }
        if (argument.IsEmpty()) {
            Fail("The package path is empty.");
            return false;
        }
        options.package = argument;
    }
    if (!options.help && options.package.IsEmpty()) {
        Fail("No package given.");
        return false;
    }
    return true;
}

// The stem names four files in two directories: each must be a plain file name.
bool CheckStem(const Str& stem) {
    if (!IsValidFileName(stem, kMaximumComponent)) {
        Fail("The request name [%s] cannot be used as a file name (it must not be empty or "
             "only dots, nor hold \\ / : * ? \" < > | or control characters).",
             stem.Text());
        return false;
    }
    Str longest(stem);
    if (!longest.Append(kLongestSuffix) || !IsValidFileName(longest, kMaximumComponent)) {
        Fail("The request name [%s] is too long: at most %u characters.", stem.Text(),
             kMaximumComponent - static_cast<uint32_t>(strlen(kLongestSuffix)));
        return false;
    }
    return true;
}

// The path of a file in a directory; empty (with the reason said) when it cannot be built.
Str FileIn(const Str& directory, const Str& stem, const char* extension) {
    Str name(stem);
    Str path(directory);
    if (!name.Append(extension) || !AppendPathComponent(path, name.Text())) {
        FailWithError(GetLastError(), "The path of [%s%s] in [%s] cannot be built", stem.Text(),
                      extension, directory.Text());
        return Str();
    }
    return path;
}

// A well-known folder with further components; empty after saying why.
Str FolderBelow(uint32_t number, const char* folderName, const char* first, const char* second) {
    Str path = GetWellKnownDirectory(number);
    if (path.IsEmpty()) {
        FailWithError(GetLastError(), "The %s cannot be determined", folderName);
        return Str();
    }
    if (!AppendPathComponent(path, first) ||
        (second != nullptr && !AppendPathComponent(path, second))) {
        FailWithError(GetLastError(), "The path below the %s [%s] cannot be built", folderName,
                      path.Text());
        return Str();
    }
    return path;
}

uint64_t NowFileTime() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

struct FileStamp {
    bool exists = false;
    uint64_t written = 0;
};

FileStamp StampOf(const Str& path) {
    LastErrorKeeper keep;
    FileStamp stamp;
    WIN32_FILE_ATTRIBUTE_DATA data;
    const WStr platform = ToPlatformPath(path);
    if (!platform.IsEmpty() &&
        GetFileAttributesExW(platform.Text(), GetFileExInfoStandard, &data) &&
        (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        stamp.exists = true;
        stamp.written = (static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                        data.ftLastWriteTime.dwLowDateTime;
    }
    return stamp;
}

// Whether the result file now there answers the push that began at pushTime.
// One that was already there counts only when it is not older than the push; if
// the earlier one was itself that recent, only once it has been written again.
bool IsAnswer(const FileStamp& before, const FileStamp& now, uint64_t pushTime) {
    if (!now.exists)
        return false;
    if (!before.exists)
        return true;
    const uint64_t earliest = pushTime > kFileTimeSlack ? pushTime - kFileTimeSlack : 0;
    if (now.written < earliest)
        return false;
    return before.written < earliest || now.written != before.written;
}

// Reads the result text. The file is opened sharing reading only, so this fails
// (sharing violation) while the service still has it open for writing.
bool ReadResultText(const Str& path, Str& text) {
    const WStr platform = ToPlatformPath(path);
    if (platform.IsEmpty())
        return false;
    UniqueHandle file(CreateFileW(platform.Text(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return false;
    char buffer[512];
    DWORD got = 0;
    if (!ReadFile(file.Get(), buffer, sizeof buffer, &got, nullptr))
        return false;
    text = Str(buffer, got);
    return true;
}

// "%u|%s: %u"; the line may not end in a line break, but one is tolerated.
bool ParseResultLine(const Str& line, uint32_t& code) {
    uint64_t flag = 0, number = 0;
    const char* p = ParseDecimal(line.Text(), 0xFFFFFFFF, flag);
    if (p == nullptr || *p != '|')
        return false;
    const char* separator = strstr(p + 1, ": ");
    p = separator != nullptr ? ParseDecimal(separator + 2, 0xFFFFFFFF, number) : nullptr;
    if (p == nullptr)
        return false;
    while (*p == '\r' || *p == '\n')
        ++p;
    code = static_cast<uint32_t>(number);
    return *p == 0;
}

Str WithoutLineEnd(const Str& line) {
    uint32_t length = line.Length();
    while (length > 0 && (line.Text()[length - 1] == '\r' || line.Text()[length - 1] == '\n'))
        --length;
    return Str(line.Text(), length);
}

// Takes back a request the service has not taken: the marker only. The package
// stays, since the service may already be working on it. False with the last
// error when the marker could not be deleted (not found: taken meanwhile).
bool WithdrawRequest(const Str& marker) {
    return DeleteFilePath(marker, false);
}

bool IsNotFound(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

// The files of one request and its answer.
struct Request {
    Str stem;
    Str drop;    // the drop directory
    Str package; // <stem>.msi in the drop directory
    Str marker;  // <stem>.pending beside it
    Str result;  // <stem>.result in the results directory
};

// Reads the options; an exit code when there is nothing more to do.
int ReadOptions(Options& options) {
    if (CommandLineArgumentCount() <= 1) {
        WriteStd(STD_ERROR_HANDLE, Str(kUsage));
        return kExitUsage;
    }
    if (!ParseArguments(options)) {
        Fail("Run pushupdate.exe --help for the usage.");
        return kExitUsage;
    }
    if (options.help) {
        WriteStd(STD_OUTPUT_HANDLE, Str(kUsage));
        return kExitUsage;
    }
    return -1;
}

// The package must be a file, and its stem a name for four files; an exit code when not.
int CheckPackage(const Options& options, Str& stem) {
    const WStr platform = ToPlatformPath(options.package);
    const DWORD attributes =
        platform.IsEmpty() ? INVALID_FILE_ATTRIBUTES : GetFileAttributesW(platform.Text());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        FailWithError(GetLastError(), "The package [%s] cannot be found", options.package.Text());
        return kExitNoPackage;
    }
    if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
        Fail("The package [%s] is a directory, not a file.", options.package.Text());
        return kExitNoPackage;
    }
    stem = options.stemGiven ? options.stem : PathStem(options.package);
    if (!CheckStem(stem)) {
        if (!options.stemGiven)
            Fail("Give a request name with --stem.");
        return kExitUsage;
    }
    return -1;
}

// Where the request goes and where its answer comes; false after saying why.
bool LocateRequest(const Options& options, const Str& stem, Request& request) {
    const char* productFolder =
        QueueWithoutProductFolder ? nullptr : ProductConstants.productFolder;
    request.stem = stem;
    request.drop = options.dropDirectory.IsEmpty()
                       ? FolderBelow(kDirectoryCommonAppData, "common application data folder",
                                     kDropFolder, productFolder)
                       : options.dropDirectory;
    const Str results = options.resultDirectory.IsEmpty()
                            ? FolderBelow(kDirectoryProgramFiles, "program files folder",
                                          kUpdateCompanyFolder, kUpdateFolder)
                            : options.resultDirectory;
    if (request.drop.IsEmpty() || results.IsEmpty())
        return false;
    request.package = FileIn(request.drop, stem, ".msi");
    request.marker = FileIn(request.drop, stem, ".pending");
    request.result = FileIn(results, stem, ".result");
    return !request.package.IsEmpty() && !request.marker.IsEmpty() && !request.result.IsEmpty();
}

// The service's push event; nothing is written unless the service is there to take it.
bool OpenPushEvent(UniqueHandle& event) {
    const char* name = ProductConstants.pushEventName;
    event.Reset(OpenEventW(EVENT_MODIFY_STATE, FALSE, WStr::FromUtf8(Str(name)).Text()));
    if (event)
        return true;
    const DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND)
        FailWithError(
            error, "The update service is not running: its push event [%s] does not exist", name);
    else
        FailWithError(error,
                      "The update service cannot be reached: its push event [%s] cannot be opened",
                      name);
    return false;
}

// The drop directory exists afterwards and holds no waiting request of this name.
bool PrepareDrop(const Request& request) {
    // A request of the same name that is still waiting would get our package and
    // give its answer to both of us.
    if (FileExists(request.marker)) {
        Fail("A request named [%s] is already waiting in [%s]; wait for its answer, or choose "
             "another name with --stem.",
             request.stem.Text(), request.drop.Text());
        return false;
    }
    const WStr platform = ToPlatformPath(request.drop);
    const DWORD attributes = GetFileAttributesW(platform.Text());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        if (!CreateDirectoryPath(request.drop, true, false)) {
            FailWithError(GetLastError(), "The drop directory [%s] cannot be created",
                          request.drop.Text());
            return false;
        }
        Say("Created the drop directory [%s].", request.drop.Text());
    } else if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        Fail("The drop directory [%s] is a file, not a directory.", request.drop.Text());
        return false;
    }
    return true;
}

// The package, complete under its name before the marker comes, then the marker
// and the push; false after saying why, with nothing of ours left waiting.
bool PlaceRequest(const Options& options, const Request& request, HANDLE pushEvent) {
    Str temporary(request.drop);
    const Str temporaryName =
        StrFormat("pushupdate-%lu-%llu.tmp", static_cast<unsigned long>(GetCurrentProcessId()),
                  static_cast<unsigned long long>(GetTickCount64()));
    if (!AppendPathComponent(temporary, temporaryName.Text())) {
        FailWithError(GetLastError(), "The path of a temporary file in [%s] cannot be built",
                      request.drop.Text());
        return false;
    }
    if (!CopyFilePath(options.package, temporary, true)) {
        FailWithError(GetLastError(), "Copying the package [%s] to [%s] failed",
                      options.package.Text(), temporary.Text());
        DeleteFilePath(temporary, false);
        return false;
    }
    if (!MoveFilePath(temporary, request.package, false)) {
        FailWithError(GetLastError(), "Renaming [%s] to [%s] failed", temporary.Text(),
                      request.package.Text());
        DeleteFilePath(temporary, false);
        return false;
    }
    if (!CreateEmptyFile(request.marker)) {
        // Without its marker the service does not touch the package: take it back.
        FailWithError(GetLastError(), "Creating the request marker [%s] failed",
                      request.marker.Text());
        DeleteFilePath(request.package, false);
        return false;
    }
    if (SetEvent(pushEvent))
        return true;
    FailWithError(GetLastError(), "Signalling the push event [%s] failed",
                  ProductConstants.pushEventName);
    if (WithdrawRequest(request.marker))
        Fail("The request [%s] was withdrawn; the package [%s] stays where it is.",
             request.marker.Text(), request.package.Text());
    else if (!IsNotFound(GetLastError()))
        FailWithError(GetLastError(), "Withdrawing the request [%s] failed", request.marker.Text());
    return false;
}

// No answer at all in time: our marker goes if the service has not taken it.
int ReportTimeOut(const Request& request, uint32_t seconds) {
    if (WithdrawRequest(request.marker))
        Fail("No answer from the update service within %u s, and the request was still waiting: "
             "it was withdrawn by deleting [%s] (is the service paused, or are automatic updates "
             "switched off by policy?). The package [%s] stays where it is.",
             seconds, request.marker.Text(), request.package.Text());
    else if (IsNotFound(GetLastError()))
        Fail("No answer from the update service within %u s: it took the request, but no answer "
             "appeared as [%s].",
             seconds, request.result.Text());
    else
        FailWithError(GetLastError(),
                      "No answer from the update service within %u s, and withdrawing the "
                      "request [%s] failed",
                      seconds, request.marker.Text());
    return kExitTimedOut;
}

// Waits for the answer to the push that began at pushTime and says it; the exit
// code is its result code. A result file that is there but cannot be read or
// understood yet is retried until the time is up: the service may still be
// writing it.
int AwaitAnswer(const Request& request, uint32_t seconds, const FileStamp& before,
                uint64_t pushTime) {
    const ULONGLONG deadline = GetTickCount64() + seconds * 1000ull;
    bool answerSeen = false;
    DWORD readError = 0;
    Str line;
    uint32_t code = 0;
    for (;;) {
        if (IsAnswer(before, StampOf(request.result), pushTime)) {
            answerSeen = true;
            Str text;
            readError = ReadResultText(request.result, text) ? 0 : GetLastError();
            if (readError == 0 && !text.IsEmpty() && ParseResultLine(text, code)) {
                line = WithoutLineEnd(text);
                break;
            }
            line = text;
        }
        if (GetTickCount64() >= deadline) {
            if (!answerSeen)
                return ReportTimeOut(request, seconds);
            if (readError != 0)
                FailWithError(readError, "The answer [%s] cannot be read", request.result.Text());
            else if (line.IsEmpty())
                Fail("The answer [%s] stayed empty.", request.result.Text());
            else
                Fail("The answer [%s] is not a result line: [%s].", request.result.Text(),
                     WithoutLineEnd(line).Text());
            return kExitBadAnswer;
        }
        Sleep(kPollMs);
    }
    Say("%s", line.Text());
    if (code >= kResultCodeCount) {
        Fail("The update service answered with the unknown result code %u.", code);
        return kExitBadAnswer;
    }
    Say("Result code %u: %s.", code, kResultMeanings[code]);
    return static_cast<int>(code);
}

int Run() {
    Options options;
    Str stem;
    Request request;
    UniqueHandle pushEvent;
    if (const int code = ReadOptions(options); code >= 0)
        return code;
    if (const int code = CheckPackage(options, stem); code >= 0)
        return code;
    if (!LocateRequest(options, stem, request))
        return kExitNotPlaced;
    if (!OpenPushEvent(pushEvent))
        return kExitNoService;
    if (!PrepareDrop(request))
        return kExitNotPlaced;
    // The push begins: answers written from here on may be ours.
    const uint64_t pushTime = NowFileTime();
    const FileStamp before = StampOf(request.result);
    if (!PlaceRequest(options, request, pushEvent.Get()))
        return kExitNotPlaced;
    Say("Pushed [%s] as [%s]; waiting up to %u s for the answer [%s].", options.package.Text(),
        request.package.Text(), options.timeoutSeconds, request.result.Text());
    return AwaitAnswer(request, options.timeoutSeconds, before, pushTime);
}

} // namespace

int main() {
    return Run();
}
