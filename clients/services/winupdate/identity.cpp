// Names of the service, derived from the running executable, and the host's two reports.
#include <windows.h>

#include <cwchar>

#include "constants.h"
#include "host.h"
#include "report.h"

WStr GetModulePath() {
    return GetProgramPath();
}

WStr LimitServiceText(const WStr& base, const WStr& suffix) {
    if (!suffix.IsEmpty() && base.Length() + suffix.Length() < kServiceTextLimit) {
        WStr joined(base);
        joined.Append(suffix);
        return joined;
    }
    return base.Length() >= kServiceTextLimit ? WStr(base.Text(), kServiceTextLimit) : base;
}

WStr ServiceNameFromPath(const WStr& modulePath) {
    const wchar_t* separator = wcsrchr(modulePath.Text(), L'\\');
    const wchar_t* name = separator != nullptr ? separator + 1 : modulePath.Text();
    // Cut at the last dot, unless the name is nothing but its extension.
    const wchar_t* dot = wcsrchr(name, L'.');
    const size_t length = dot != nullptr && dot != name ? dot - name : wcslen(name);
    Str narrow = Str::FromUtf16(name, static_cast<uint32_t>(length));
    UpperCaseUtf8(narrow.MutableText());
    return LimitServiceText(WStr::FromUtf8(narrow), WStr());
}

WStr GetServiceName() {
    return ServiceNameFromPath(GetModulePath());
}

WStr GetServiceDisplayName(bool withVersion) {
    Str base(ProductConstants.productName);
    base.Append(" ");
    base.Append(kServiceDisplaySuffix);
    const Str suffix = withVersion ? StrFormat(" (%s)", kServiceVersion) : Str();
    return LimitServiceText(WStr::FromUtf8(base), WStr::FromUtf8(suffix));
}

namespace {

void ReportHostEvent(const Str& message, uint32_t level) {
    EventDescriptor descriptor;
    descriptor.message = message.Text();
    ReportEvent(GetApplicationName(), 0, descriptor, true, level, 0, false);
}

} // namespace

void ReportFunctionFailure(const char* functionName) {
    DWORD code = GetLastError();
    if (code == 0)
        code = ERROR_GEN_FAILURE;
    const Str systemText = SystemErrorText(code);
    Str message = StrFormat("Function [%s] failed with code [%08lX]", functionName,
                            static_cast<unsigned long>(code));
    if (!systemText.IsEmpty()) {
        message.Append(": ");
        message.Append(systemText);
    }
    // The full stop is added even after a system text that ends with one.
    message.Append(".");
    SetLastError(code);
    ReportHostEvent(message, kLevelErr);
}

void ReportServiceMessage(const char* word) {
    Str message = Str::FromUtf16(GetServiceDisplayName(true));
    message.Append(" ");
    message.Append(word);
    message.Append(".");
    ReportHostEvent(message, kLevelInfo);
}
