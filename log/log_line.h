// Assembly of one log line: the switched prefix fields, each followed by ";", then the
// printf-style message and exactly one trailing newline.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "log/log_level.h"

namespace zpdf {

// Bit numbers of the prefix fields, in the order they appear in a line.
enum LogField : int {
    LogFieldDate = 0,      // "dd.MM.yyyy"
    LogFieldTime = 1,      // "HH:mm:ss.tttttt": clock time, then a six-character tick counter
    LogFieldLevel = 2,     // "ERR" and the other level words
    LogFieldUser = 3,      // "user@computer"
    LogFieldCategory = 4,  // the category name
};
inline constexpr int kLogFieldCount = 5;
inline constexpr unsigned LogFieldBit(LogField field) {
    return 1u << field;
}
inline constexpr unsigned kLogFieldsDefault =
    LogFieldBit(LogFieldDate) | LogFieldBit(LogFieldTime) | LogFieldBit(LogFieldLevel) |
    LogFieldBit(LogFieldCategory);

// Size of the buffer a line is built in, its terminating NUL included. Longer messages are cut.
inline constexpr std::size_t kLogLineBufferSize = 4085;

// What the prefix fields show. `date` and `time` are read only when their fields are on.
struct LogLinePrefix {
    unsigned fields = 0;         // LogFieldBit values
    const char* date = nullptr;  // 10 characters, "dd.MM.yyyy"
    const char* time = nullptr;  // 8 characters, "HH:mm:ss"
    std::uint32_t tick = 0;      // milliseconds since system start
    LogLevel level = LogNone;
    std::string_view user;  // "user@computer"
    std::string_view category;
};

// Builds the line in `buffer` (`size` bytes, at least 2) and returns its length. The tick field
// is always six characters: shorter counts get leading zeros and a count of seven or more
// digits keeps only its first six. The line always ends in exactly one "\n" that the message
// does not already supply; when the buffer is full the last character becomes that "\n".
std::size_t ComposeLogLine(char* buffer, std::size_t size, const LogLinePrefix& prefix,
                           const char* format, std::va_list args);

}  // namespace zpdf
