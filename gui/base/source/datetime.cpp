// The date-time text of the local time.
#include "datetime.h"

#include <windows.h>

Str LocalTimeText(const TimeTextForm& form) {
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    Str text = StrFormat("%04ld-%02ld-%02ld%c%02ld:%02ld:%02ld", static_cast<long>(now.wYear),
                         static_cast<long>(now.wMonth), static_cast<long>(now.wDay), form.separator,
                         static_cast<long>(now.wHour), static_cast<long>(now.wMinute),
                         static_cast<long>(now.wSecond));
    if (form.milliseconds)
        text.Append(StrFormat(".%03ld", static_cast<long>(now.wMilliseconds)));
    if (form.zone) {
        TIME_ZONE_INFORMATION zone;
        const DWORD mode = GetTimeZoneInformation(&zone);
        long bias = zone.Bias;
        if (mode == TIME_ZONE_ID_DAYLIGHT)
            bias += zone.DaylightBias;
        else if (mode == TIME_ZONE_ID_STANDARD)
            bias += zone.StandardBias;
        const long offset = -bias;
        const long magnitude = offset < 0 ? -offset : offset;
        text.Append(
            StrFormat("%c%02ld:%02ld", offset < 0 ? '-' : '+', magnitude / 60, magnitude % 60));
    }
    return text;
}
