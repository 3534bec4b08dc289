// One way to call a platform function that fills a caller's buffer and says how
// much it needs when the buffer is too small: start on the stack, grow, call
// again (the value may grow between two calls, so a few times at most).
#pragma once

#include <windows.h>

#include "str.h"

// fill(buffer, capacity, &needed) is given a buffer of `capacity` units,
// terminator included. It returns false on failure (leaving the platform's last
// error); otherwise it sets needed to the units the whole result takes with its
// terminator. When needed is at most capacity the result is in the buffer.
// False when fill failed, memory ran out or the result kept growing.
template <class Fill> bool FillGrowing(Fill fill, WStr& result) {
    constexpr uint32_t kStackUnits = 256;
    wchar_t stackBuffer[kStackUnits];
    uint32_t needed = 0;
    if (!fill(stackBuffer, kStackUnits, &needed))
        return false;
    if (needed <= kStackUnits) {
        result = WStr(stackBuffer, needed > 0 ? needed - 1 : 0);
        return true;
    }
    for (int attempt = 0; attempt < 4; ++attempt) {
        WStr grown;
        const uint32_t capacity = needed;
        wchar_t* buffer = grown.Reserve(capacity);
        if (buffer == nullptr || !fill(buffer, capacity, &needed))
            return false;
        if (needed <= capacity) {
            buffer[needed > 0 ? needed - 1 : 0] = 0;
            result = grown;
            return true;
        }
    }
    SetLastError(ERROR_MORE_DATA);
    return false;
}
