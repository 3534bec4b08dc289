// Formatted text: StrFormat and WStrFormat, each pass of the formatter under the
// library's guard.
#include <windows.h>

#include <cstdio>
#include <cwchar>

#include "private/system.h"
#include "str.h"

namespace {

// One pass of the formatter under the library's guard: a bad argument (a text
// pointer that is not one) fails the format instead of the process.
int FormatPass(const char* site, char* buffer, size_t size, const char* format, va_list arguments) {
    int result = -1;
    auto pass = [&] { result = vsnprintf(buffer, size, format, arguments); };
    return RunGuarded(site, ExceptionFilter, pass) ? result : -1;
}

int FormatPass(const char* site, wchar_t* buffer, size_t size, const wchar_t* format,
               va_list arguments) {
    int result = -1;
    auto pass = [&] { result = vsnwprintf(buffer, size, format, arguments); };
    return RunGuarded(site, ExceptionFilter, pass) ? result : -1;
}

// Measures, reserves and writes; empty when either pass fails.
template <class Text, class Unit>
Text FormatText(const char* writeSite, const Unit* format, va_list arguments) {
    Text result;
    if (format == nullptr)
        return result;
    va_list measure;
    va_copy(measure, arguments);
    const int length = FormatPass("FmtGetWidth", nullptr, 0, format, measure);
    va_end(measure);
    if (length <= 0)
        return result;
    Unit* buffer = result.Reserve(static_cast<uint32_t>(length));
    if (buffer == nullptr)
        return Text();
    if (FormatPass(writeSite, buffer, static_cast<size_t>(length) + 1, format, arguments) < 0)
        return Text();
    return result;
}

} // namespace

Str StrFormatV(const char* format, va_list arguments) {
    return FormatText<Str>("qelvsnprintf", format, arguments);
}

Str StrFormat(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Str result = StrFormatV(format, arguments);
    va_end(arguments);
    return result;
}

WStr WStrFormatV(const wchar_t* format, va_list arguments) {
    return FormatText<WStr>("qelvsnwprintf", format, arguments);
}

WStr WStrFormat(const wchar_t* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    WStr result = WStrFormatV(format, arguments);
    va_end(arguments);
    return result;
}
