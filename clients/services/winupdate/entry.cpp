// The process's entry point: module identity first, then install or run as a service.
#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdarg>
#include <cstdio>

#include "constants.h"
#include "host.h"
#include "private/system.h"
#include "report.h"

namespace {

// Wide formatted output to standard output, byte for byte: the text carries its
// own CR LF, which a text-mode stream would double, and a binary-mode stream
// would write wide characters as raw UTF-16. So format wide, write UTF-8.
void PrintWide(const wchar_t* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const WStr wide = WStrFormatV(format, arguments);
    va_end(arguments);
    if (wide.IsEmpty())
        return;
    const Str text = Str::FromUtf16(wide);
    fflush(stdout);
    const int previous = _setmode(_fileno(stdout), _O_BINARY);
    fwrite(text.Text(), 1, text.Length(), stdout);
    fflush(stdout);
    if (previous != -1)
        _setmode(_fileno(stdout), previous);
}

} // namespace

int ServiceEntryPoint() {
    const Str displayName = Str::FromUtf16(GetServiceDisplayName(false));
    SetModulePath(Str::FromUtf16(GetModulePath()));
    SetApplicationName(displayName);
    SetModuleVersion(Str(kServiceVersion));
    InstallEventSource(displayName);
    InitBaseLibrary();

    const Str argument = CommandLineArgument(1);
    if (CompareTextEx(argument.Text(), "install", true) == 0) {
        PrintWide(L"\r\nInstalling [");
        // The display name is the format itself; the product texts hold no '%'.
        PrintWide(GetServiceDisplayName(true).Text());
        PrintWide(L"].\r\n");
        return InstallService();
    }

    SERVICE_TABLE_ENTRYW table[2] = {};
    WStr name = GetServiceName();
    table[0].lpServiceName = name.MutableText();
    table[0].lpServiceProc = ServiceMain;
    if (!StartServiceCtrlDispatcherW(table)) {
        ReportFunctionFailure("StartServiceCtrlDispatcher");
        return 1;
    }
    return 0;
}
