// Clock readings for log lines: a millisecond tick counter and the local date and time.
#pragma once

#include <cstdint>

namespace zpdf {

// Milliseconds since the system started, wrapping at 2^32 like the multimedia timer on
// Windows (timeGetTime; Windows builds link winmm). Elsewhere a monotonic clock is used.
std::uint32_t MillisecondTick();

// The local date as "dd.MM.yyyy" and the local time as "HH:mm:ss" (24-hour clock), both of the
// same instant, NUL-terminated.
void CaptureLocalDateTime(char (&date)[11], char (&time)[9]);

}  // namespace zpdf
