// Names of the service, derived from the running executable, and the host's two reports.
#include <windows.h>

#include "constants.h"
#include "host.h"
#include "report.h"

namespace {

std::wstring Widen(const char* text) {
    const WStr wide = WStr::FromUtf8(text, static_cast<uint32_t>(strlen(text)));
    return std::wstring(wide.Text(), wide.Length());
}

std::wstring WideFromStr(const Str& text) {
    const WStr wide = WStr::FromUtf8(text);
    return std::wstring(wide.Text(), wide.Length());
}

} // namespace

std::wstring GetModulePath() {
    wchar_t buffer[261];
    const DWORD length = GetModuleFileNameW(nullptr, buffer, 261);
    if (length == 0 || length >= 261)
        return std::wstring();
    return std::wstring(buffer, length);
}

std::wstring LimitServiceText(const std::wstring& base, const std::wstring& suffix) {
    if (!suffix.empty() && base.size() + suffix.size() < kServiceTextLimit)
        return base + suffix;
    return base.size() >= kServiceTextLimit ? base.substr(0, kServiceTextLimit) : base;
}

std::wstring ServiceNameFromPath(const std::wstring& modulePath) {
    std::wstring name = modulePath.substr(modulePath.find_last_of(L'\\') + 1);
    const size_t dot = name.find_last_of(L'.');
    if (dot != std::wstring::npos && dot != 0)
        name.resize(dot);
    Str narrow = Str::FromUtf16(name.c_str(), static_cast<uint32_t>(name.size()));
    UpperCaseUtf8(narrow.MutableText());
    return LimitServiceText(WideFromStr(narrow), std::wstring());
}

std::wstring GetServiceName() {
    return ServiceNameFromPath(GetModulePath());
}

std::wstring GetServiceDisplayName(bool withVersion) {
    const std::wstring base =
        Widen(ProductConstants.productName) + L" " + Widen(kServiceDisplaySuffix);
    const std::wstring suffix =
        withVersion ? L" (" + Widen(kServiceVersion) + L")" : std::wstring();
    return LimitServiceText(base, suffix);
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
    const std::wstring display = GetServiceDisplayName(true);
    Str message = Str::FromUtf16(display.c_str(), static_cast<uint32_t>(display.size()));
    message.Append(" ");
    message.Append(word);
    message.Append(".");
    ReportHostEvent(message, kLevelInfo);
}
