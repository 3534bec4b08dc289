// The base library's date-time text of the local time.
#pragma once

#include "str.h"

// "YYYY-MM-DD" + separator + "hh:mm:ss", with ".mmm" when milliseconds are
// asked for and the zone as "+hh:mm" when it is.
struct TimeTextForm {
    char separator;
    bool milliseconds;
    bool zone;
};
inline constexpr TimeTextForm kTimeTextSeconds = {'T', false, false};
inline constexpr TimeTextForm kTimeTextRecord = {'T', true, true};
inline constexpr TimeTextForm kTimeTextStamp = {' ', true, false};

Str LocalTimeText(const TimeTextForm& form);
