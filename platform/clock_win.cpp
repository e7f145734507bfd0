#include <windows.h>
// mmsystem.h needs the definitions of windows.h.
#include <mmsystem.h>

#include <cstring>

#include "platform/clock.h"

namespace zpdf {

std::uint32_t MillisecondTick() {
    return static_cast<std::uint32_t>(timeGetTime());
}

void CaptureLocalDateTime(char (&date)[11], char (&time)[9]) {
    SYSTEMTIME now{};
    GetLocalTime(&now);
    // Pictures with quoted separators give the same text in every locale.
    if (GetDateFormatA(LOCALE_USER_DEFAULT, 0, &now, "dd'.'MM'.'yyyy", date, sizeof date) == 0) {
        std::memcpy(date, "00.00.0000", sizeof date);
    }
    if (GetTimeFormatA(LOCALE_USER_DEFAULT, 0, &now, "HH':'mm':'ss", time, sizeof time) == 0) {
        std::memcpy(time, "00:00:00", sizeof time);
    }
}

}  // namespace zpdf
