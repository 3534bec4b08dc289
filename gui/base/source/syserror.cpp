// System error texts: a Windows error code as readable text.
#include <windows.h>

#include <cerrno>
#include <cwctype>

#include "handles.h"
#include "report.h"

namespace {

// FormatMessageW's text as one trimmed UTF-8 line; empty when the system has none.
// The width mask only folds the message's soft line breaks: hard ones (and any
// in the inserts) are folded here, so that a report never splits on them.
Str MessageText(DWORD flags, HMODULE module, uint32_t code, DWORD language, va_list* arguments) {
    wchar_t* buffer = nullptr;
    const DWORD length =
        FormatMessageW(flags | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_MAX_WIDTH_MASK,
                       module, code, language, reinterpret_cast<LPWSTR>(&buffer), 0, arguments);
    UniqueLocal owner(buffer);
    if (length == 0 || buffer == nullptr)
        return Str();
    uint32_t end = length;
    while (end > 0 && iswspace(buffer[end - 1]))
        --end;
    uint32_t start = 0;
    while (start < end && iswspace(buffer[start]))
        ++start;
    uint32_t out = start;
    for (uint32_t i = start; i < end; ++i) {
        if (buffer[i] == L'\r' || buffer[i] == L'\n') {
            while (i + 1 < end && (buffer[i + 1] == L'\r' || buffer[i + 1] == L'\n'))
                ++i;
            buffer[out++] = L' ';
        } else {
            buffer[out++] = buffer[i];
        }
    }
    return Str::FromUtf16(buffer + start, out - start);
}

} // namespace

Str SystemErrorText(uint32_t code) {
    LastErrorKeeper keep;
    return MessageText(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                       nullptr);
}

Str FormatSystemError(uint32_t code, HMODULE module, uint32_t primaryLanguage, uint32_t subLanguage,
                      va_list* arguments) {
    LastErrorKeeper keep;
    DWORD flags = module != nullptr ? FORMAT_MESSAGE_FROM_HMODULE : FORMAT_MESSAGE_FROM_SYSTEM;
    if (arguments == nullptr)
        flags |= FORMAT_MESSAGE_IGNORE_INSERTS;
    const Str text = MessageText(
        flags, module, code,
        MAKELANGID(static_cast<WORD>(primaryLanguage), static_cast<WORD>(subLanguage)), arguments);
    return StrFormat("%s (0x%08lX/%lu)", text.IsEmpty() ? "Unknown error" : text.Text(),
                     static_cast<unsigned long>(code), static_cast<unsigned long>(code));
}

Str LastErrorText(uint32_t code) {
    const int runtimeError = errno;
    return FormatSystemError(code != 0 ? code : static_cast<uint32_t>(runtimeError));
}
