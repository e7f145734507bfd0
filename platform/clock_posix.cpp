#include <time.h>

#include <cstring>

#include "platform/clock.h"

namespace zpdf {
namespace {

// Writes `value` as exactly `width` decimal digits (leading zeros, higher digits dropped).
void PutDigits(char* out, int value, int width) {
    if (value < 0) value = 0;
    for (int i = width - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

}  // namespace

std::uint32_t MillisecondTick() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const auto ms = static_cast<std::uint64_t>(now.tv_sec) * 1000u +
                    static_cast<std::uint64_t>(now.tv_nsec) / 1000000u;
    return static_cast<std::uint32_t>(ms);  // wraps like a 32-bit tick count
}

void CaptureLocalDateTime(char (&date)[11], char (&time)[9]) {
    const ::time_t now = ::time(nullptr);
    struct tm local {};
    if (::localtime_r(&now, &local) == nullptr) {
        std::memcpy(date, "00.00.0000", sizeof date);
        std::memcpy(time, "00:00:00", sizeof time);
        return;
    }
    std::memcpy(date, "dd.MM.yyyy", sizeof date);
    PutDigits(date, local.tm_mday, 2);
    PutDigits(date + 3, local.tm_mon + 1, 2);
    PutDigits(date + 6, local.tm_year + 1900, 4);
    std::memcpy(time, "HH:mm:ss", sizeof time);
    PutDigits(time, local.tm_hour, 2);
    PutDigits(time + 3, local.tm_min, 2);
    PutDigits(time + 6, local.tm_sec, 2);
}

}  // namespace zpdf
