// Severity levels of log messages and their words.
#pragma once

#include <cstdint>
#include <string_view>

namespace zpdf {

// A higher value is more verbose. A message is written when its level is less than or equal to
// the level of its category, so a category at LogNone lets no real message through.
enum LogLevel : std::int32_t {
    LogNone = 0,
    LogFatal = 1,
    LogError = 2,
    LogWarn = 3,
    LogInfo = 4,
    LogDebug = 5,
    LogTrace = 6,
};

// The three-letter word a line carries ("NIL", "FTL", "ERR", "WRN", "INF", "DBG", "TRC").
// Values outside the seven levels take the word of the nearest level.
const char* LogLevelLineWord(LogLevel level);

// The level named by a configuration word ("none", "fatal", "error", "warn", "info", "debug",
// "trace"), compared without regard to ASCII case; any other text gives LogNone.
LogLevel LogLevelFromConfigWord(std::string_view word);

}  // namespace zpdf
